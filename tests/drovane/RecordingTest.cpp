// The file in which a link is recorded.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <numeric>
#include <string>

#include "drovane/Recording.h"
#include "support/TempFolder.h"

namespace {

using drovane::LinkSign;
using drovane::RecordedEvent;
using drovane::Recording;
using drovane::RecordingError;
using drovane::RecordingWriter;

const char* const kHead = "drovane-recording 1 boiler tcp 2026-11-21T02:46:40.124+01:00\n";

std::string allBytes() {
  std::string bytes(256, '\0');
  std::iota(bytes.begin(), bytes.end(), '\0');
  return bytes;
}

class RecordingFile : public testing::Test {
 protected:
  Recording read(const std::string& content) const {
    return Recording::read(folder.write("link.rec", content));
  }
  // What is wrong with the content, without the file's name.
  std::string errorOf(const std::string& content) const {
    try {
      read(content);
    } catch (const RecordingError& error) {
      const std::string text = error.what();
      EXPECT_EQ(text.find(folder / "link.rec"), 0U) << text;
      return text.substr((folder / "link.rec").size());
    }
    return "no error";
  }

  const TempFolder folder;
};

TEST_F(RecordingFile, IsReadEventByEvent) {
  const Recording recording = read(std::string(kHead) +
                                   "# what a person has to say\n"
                                   "0.000000 +\n"
                                   "\n"
                                   "0.25 > STATUS?\\r\\n\r\n"
                                   "  # a lone remark\n"
                                   "1 <  T=\\x00 # \\\\\n"
                                   "12.500001 -\n");
  EXPECT_EQ(recording.head.rovik, "boiler");
  EXPECT_EQ(recording.head.mode, "tcp");
  EXPECT_EQ(recording.head.start, "2026-11-21T02:46:40.124+01:00");
  ASSERT_EQ(recording.events.size(), 4U);
  const auto expectEvent = [&](std::size_t at, int line, std::int64_t microseconds, LinkSign sign,
                               const std::string& bytes) {
    const RecordedEvent& event = recording.events[at];
    EXPECT_EQ(event.line, line);
    EXPECT_EQ(event.microseconds, microseconds);
    EXPECT_EQ(event.sign, sign);
    EXPECT_EQ(event.bytes, bytes);
  };
  expectEvent(0, 3, 0, LinkSign::Opened, "");
  expectEvent(1, 5, 250'000, LinkSign::ToDevice, "STATUS?\r\n");
  expectEvent(2, 7, 1'000'000, LinkSign::FromDevice, std::string(" T=\0 # \\", 8));
  expectEvent(3, 8, 12'500'001, LinkSign::Closed, "");
}

TEST_F(RecordingFile, KnowsNoModeWhereADashStands) {
  EXPECT_EQ(read("drovane-recording 1 boiler - now\n").head.mode, "");
}

TEST_F(RecordingFile, IsWrittenLineByLineAsItIsRead) {
  RecordingWriter writer(folder / "new.rec", false);
  writer.begin({"boiler", "", "2026-11-21T02:46:40.124+01:00"});
  EXPECT_EQ(folder.read("new.rec"), "drovane-recording 1 boiler - 2026-11-21T02:46:40.124+01:00\n");
  writer.add(0, LinkSign::Opened, "");
  writer.add(34'100, LinkSign::FromDevice, "T=21.5\r\n");
  writer.add(1'034'100, LinkSign::ToDevice, " # ");
  writer.remark("something is missing");
  writer.add(5'000'000'000'000, LinkSign::Closed, "");
  EXPECT_EQ(folder.read("new.rec"),
            "drovane-recording 1 boiler - 2026-11-21T02:46:40.124+01:00\n"
            "0.000000 +\n"
            "0.034100 < T=21.5\\r\\n\n"
            "1.034100 > \\x20#\\x20\n"
            "# something is missing\n"
            "5000000.000000 -\n");
  EXPECT_EQ(Recording::read(folder / "new.rec").events.at(2).bytes, " # ");
}

TEST_F(RecordingFile, KeepsEveryByte) {
  RecordingWriter writer(folder / "new.rec", false);
  writer.begin({"boiler", "tcp", "now"});
  writer.add(0, LinkSign::FromDevice, allBytes());
  for (const char byte : allBytes()) writer.add(1, LinkSign::ToDevice, {&byte, 1});
  const Recording recording = Recording::read(folder / "new.rec");
  ASSERT_EQ(recording.events.size(), 257U);
  EXPECT_EQ(recording.events[0].bytes, allBytes());
  for (std::size_t i = 0; i < 256; ++i)
    EXPECT_EQ(recording.events[i + 1].bytes, allBytes().substr(i, 1)) << i;
}

TEST_F(RecordingFile, ReadsEveryEscapeThatTextsOfTheSystemHave) {
  EXPECT_EQ(read(std::string(kHead) + "0 < \\\\\\n\\r\\t\\a\\b\\e\\f\\v\\0\\x7f\\x7F\xc3\xa4\n")
                .events.at(0)
                .bytes,
            std::string("\\\n\r\t\a\b\x1b\f\v\0\x7f\x7f\xc3\xa4", 14));
}

TEST_F(RecordingFile, ThatIsThereIsReplacedOnlyOnDemand) {
  const std::string file = folder.write("old.rec", "something dear\n");
  try {
    const RecordingWriter writer(file, false);
    ADD_FAILURE() << "no error";
  } catch (const RecordingError& error) {
    EXPECT_EQ(error.what(),
              file + ": exists already; expected a new file, or --force to replace it");
  }
  EXPECT_EQ(folder.read("old.rec"), "something dear\n");
  const RecordingWriter writer(file, true);
  EXPECT_EQ(folder.read("old.rec"), "");
}

TEST_F(RecordingFile, BelongsToItsUserAlone) {
  const RecordingWriter writer(folder / "new.rec", false);
  struct stat facts {};
  ASSERT_EQ(::stat((folder / "new.rec").c_str(), &facts), 0);
  EXPECT_EQ(facts.st_mode & 07777, 0600U);
}

TEST_F(RecordingFile, ThatCannotBeWrittenIsReported) {
  RecordingWriter writer("/dev/full", true);
  try {
    writer.add(0, LinkSign::Opened, "");
    ADD_FAILURE() << "no error";
  } catch (const RecordingError& error) {
    EXPECT_STREQ(error.what(), "/dev/full: cannot be written: No space left on device");
  }
}

TEST_F(RecordingFile, ThatCannotBeReadIsReported) {
  for (const auto& [file, reason] : {std::pair{"/nowhere/link.rec", "No such file or directory"},
                                     std::pair{"/", "Is a directory"}}) {
    try {
      Recording::read(file);
      ADD_FAILURE() << file;
    } catch (const RecordingError& error) {
      EXPECT_EQ(error.what(), std::string(file) + ": cannot be read: " + reason);
    }
  }
}

struct WrongLine {
  const char* name;
  std::string content;
  const char* error;
};

class WrongLines : public RecordingFile, public testing::WithParamInterface<WrongLine> {};

TEST_P(WrongLines, AreReportedWithWhatWasExpected) {
  EXPECT_EQ(errorOf(GetParam().content), GetParam().error);
}

std::string event(const std::string& line) { return kHead + line + '\n'; }

INSTANTIATE_TEST_SUITE_P(
    Recording, WrongLines,
    testing::Values(
        WrongLine{"Empty", "",
                  ":1: the recording has no first line; expected 'drovane-recording 1 NAME MODE "
                  "TIME'"},
        WrongLine{"Foreign", "GIF89a\n",
                  ":1: this is no recording; expected 'drovane-recording 1 NAME MODE TIME'"},
        WrongLine{"Newer", "# remark\ndrovane-recording 2 boiler tcp now\n",
                  ":2: this is a recording of version '2'; expected version 1"},
        WrongLine{"ShortHead", "drovane-recording 1 boiler tcp\n",
                  ":1: the first line has not five words; expected 'drovane-recording 1 NAME MODE "
                  "TIME'"},
        WrongLine{"LongHead", "drovane-recording 1 boiler tcp now then\n",
                  ":1: the first line has not five words; expected 'drovane-recording 1 NAME MODE "
                  "TIME'"},
        WrongLine{"NoTime", event("soon < x"),
                  ":2: 'soon' is no time; expected seconds since the start, such as 1.250000"},
        WrongLine{"HalfATime", event("1.5s < x"),
                  ":2: '1.5s' is no time; expected seconds since the start, such as 1.250000"},
        WrongLine{"NegativeTime", event("-1 < x"),
                  ":2: '-1' is no time; expected seconds since the start, such as 1.250000"},
        WrongLine{"EndlessTime", event("inf < x"),
                  ":2: 'inf' is no time; expected seconds since the start, such as 1.250000"},
        WrongLine{"TooLate", event("1000000001 < x"),
                  ":2: '1000000001' is no time; expected seconds since the start, such as "
                  "1.250000"},
        WrongLine{"OutOfOrder", event("2 < x\n# no\n1.9 < y"),
                  ":4: the time is before that of line 2; expected events in the order of their "
                  "times"},
        WrongLine{"NoSign", event("1"), ":2: '' is no sign; expected one of + - < >"},
        WrongLine{"WrongSign", event("1 = x"), ":2: '=' is no sign; expected one of + - < >"},
        WrongLine{"NoBytes", event("1 <"),
                  ":2: there are no bytes behind <; expected escaped bytes"},
        WrongLine{"BytesBehindOpen", event("1 + x"),
                  ":2: 'x' stands behind +; expected the end of the line"},
        WrongLine{"BytesBehindClose", event("1 - x"),
                  ":2: 'x' stands behind -; expected the end of the line"},
        WrongLine{"WrongEscape", event("1 < a\\qb"),
                  ":2: '\\q' is no escape; expected one of \\\\ \\n \\r \\t \\a \\b \\e \\f \\v "
                  "\\0, or \\x and two hexadecimal digits"},
        WrongLine{"HalfAnEscape", event("1 < a\\x4"),
                  ":2: '\\x' is no escape; expected one of \\\\ \\n \\r \\t \\a \\b \\e \\f \\v "
                  "\\0, or \\x and two hexadecimal digits"},
        WrongLine{"LoneBackslash", event("1 < a\\"),
                  ":2: '\\' is no escape; expected one of \\\\ \\n \\r \\t \\a \\b \\e \\f \\v "
                  "\\0, or \\x and two hexadecimal digits"},
        WrongLine{"ZeroByte", event(std::string("1 < a\0b", 7)),
                  ":2: the line holds a zero byte; expected text, with \\0 in it"}),
    [](const auto& each) { return std::string(each.param.name); });

}  // namespace
