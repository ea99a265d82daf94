#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "Drovane.h"
#include "framework/Descriptor.h"
#include "framework/Log.h"
#include "support/Eventually.h"
#include "support/LogCapture.h"
#include "support/TempFolder.h"

namespace {

using drovane::Log;
using testing::ElementsAre;
using testing::HasSubstr;

std::string oneLine(std::string text) {
  Log::makeOneLine(text);
  return text;
}

// A log file in a folder of its own; lines go back to the terminal at the end.
class LogFile {
 public:
  LogFile() = default;
  ~LogFile() { Log::global().close(); }
  LogFile(const LogFile&) = delete;
  LogFile& operator=(const LogFile&) = delete;

  std::string path() const { return folder / "log"; }
  std::vector<std::string> lines() const {
    std::ifstream file(path());
    std::vector<std::string> result;
    for (std::string line; std::getline(file, line);) result.push_back(line);
    return result;
  }

 private:
  TempFolder folder;
};

// The line without its time, which must have its form.
std::string afterTime(const std::string& line) {
  const auto is_time = testing::Matches(testing::MatchesRegex(
      "[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}[.][0-9]{3}[+-][0-9]{2}:[0-9]{2} "));
  return is_time(line.substr(0, 30)) ? line.substr(30) : "no time: " + line;
}

TEST(LogTest, ALineIsTimeLevelIdNameAndText) {
  const LogFile file;
  Log::global().openFile(file.path());
  Drovane::global.log(3, 7, "boiler", "port set to: %d\n", 7001);
  Drovane::global.log(2, 16000, "a.b-c_d", "bind (errno: %d %s)\n", 98, "in use");
  Log::global().close();
  const auto lines = file.lines();
  ASSERT_EQ(lines.size(), 2U);
  EXPECT_EQ(afterTime(lines[0]), "3 7 boiler port set to: 7001");
  EXPECT_EQ(afterTime(lines[1]), "2 16000 a.b-c_d bind (errno: 98 in use)");
}

TEST(LogTest, ALineWithoutALineEndIsALineToo) {
  LogCapture log;
  Drovane::global.log(3, 7, "boiler", "no line end");
  Drovane::global.log(3, 7, "boiler", "one line end\n");
  ASSERT_EQ(log.lines().size(), 2U);
  EXPECT_EQ(log.lines()[0].text, "no line end");
  EXPECT_EQ(log.lines()[1].text, "one line end");
}

TEST(LogTest, LinesUpToTheLevelAreWritten) {
  for (const int level : {2, 3, 4}) {
    LogCapture log(level);
    for (const int of_line : {2, 3, 4}) {
      EXPECT_EQ(Drovane::global.logs(of_line), of_line <= level);
      Drovane::global.log(of_line, 7, "boiler", "x");
    }
    EXPECT_EQ(log.lines().size(), static_cast<std::size_t>(level - 1));
  }
}

TEST(LogTest, ControlBytesAreWrittenAsEscapes) {
  EXPECT_EQ(oneLine("a\nb\rc\td"), "a\\nb\\rc\\td");
  EXPECT_EQ(oneLine(std::string("\0\x01\x1f\x7f\x1b[31m", 9)), "\\x00\\x01\\x1f\\x7f\\x1b[31m");
  EXPECT_EQ(oneLine("x\n\n"), "x\\n");
  EXPECT_EQ(oneLine("\n"), "");
  EXPECT_EQ(oneLine(""), "");
}

TEST(LogTest, ABackslashAndBytesAboveAsciiStayAsTheyAre) {
  EXPECT_EQ(oneLine("a\\nb \\"), "a\\nb \\");
  EXPECT_EQ(oneLine("gr\xc3\xbcn\n"), "gr\xc3\xbcn");
  EXPECT_EQ(oneLine("\\\n\\\n"), "\\\\n\\");
}

TEST(LogTest, NoTextCanLookLikeASecondLine) {
  const LogFile file;
  Log::global().openFile(file.path());
  Drovane::global.log(3, 7, "boiler", "%s\n", "real\n2026-01-01T00:00:00.000+00:00 2 1 x forged");
  Log::global().close();
  EXPECT_EQ(file.lines().size(), 1U);
}

TEST(LogTest, PercentAndBracesInATextAreText) {
  LogCapture log;
  Drovane::global.log(3, 7, "boiler", "%s", "{} {0} %s %n 100%");
  ASSERT_EQ(log.lines().size(), 1U);
  EXPECT_EQ(log.lines()[0].text, "{} {0} %s %n 100%");
}

TEST(LogTest, LongTextsComeOutWhole) {
  const LogFile file;
  Log::global().openFile(file.path());
  Drovane::global.log(3, 7, "boiler", "%s", std::string(100000, 'x').c_str());
  Log::global().close();
  ASSERT_EQ(file.lines().size(), 1U);
  EXPECT_EQ(afterTime(file.lines()[0]), "3 7 boiler " + std::string(100000, 'x'));
}

TEST(LogTest, BeforeItIsOpenedLinesGoToStandardErrorAtOnce) {
  Log::global().close();
  testing::internal::CaptureStderr();
  Drovane::global.log(3, 7, "boiler", "early\n");
  const std::string written = testing::internal::GetCapturedStderr();
  ASSERT_FALSE(written.empty());
  EXPECT_EQ(written.back(), '\n');
  EXPECT_EQ(afterTime(written.substr(0, written.size() - 1)), "3 7 boiler early");
}

TEST(LogTest, TheTerminalGetsEveryLineByTheTimeItIsClosed) {
  testing::internal::CaptureStderr();
  Log::global().openTerminal();
  for (int i = 0; i < 100; ++i) Drovane::global.log(3, 7, "boiler", "line %d\n", i);
  Log::global().close();
  const std::string written = testing::internal::GetCapturedStderr();
  EXPECT_EQ(std::count(written.begin(), written.end(), '\n'), 100);
  EXPECT_THAT(written, HasSubstr(" 3 7 boiler line 99\n"));
  EXPECT_EQ(written.find('\033'), std::string::npos) << "colours are for terminals";
}

TEST(LogTest, AFileIsAppendedTo) {
  const LogFile file;
  for (const char* text : {"first", "second"}) {
    Log::global().openFile(file.path());
    Drovane::global.log(3, 7, "boiler", "%s\n", text);
    Log::global().close();
  }
  const auto lines = file.lines();
  ASSERT_EQ(lines.size(), 2U);
  EXPECT_THAT(lines[0], HasSubstr("first"));
  EXPECT_THAT(lines[1], HasSubstr("second"));
}

TEST(LogTest, AFullFileMakesRoomForANewOne) {
  const LogFile file;
  Log::global().openFile(file.path());
  const std::string large(1024 * 1024, 'x');
  for (int i = 0; i < 12; ++i) Drovane::global.log(3, 7, "boiler", "%s\n", large.c_str());
  Log::global().close();
  EXPECT_LE(std::filesystem::file_size(file.path()), 10U * 1024 * 1024);
  EXPECT_TRUE(std::filesystem::exists(file.path() + ".1"));
  EXPECT_EQ(file.lines().size(), 12U - 9U);
}

TEST(LogTest, AFileThatCannotBeOpenedIsNamed) {
  const LogFile file;
  std::ofstream(file.path()) << "in the way";
  try {
    Log::global().openFile(file.path() + "/is/no/folder");
    FAIL() << "could be opened";
  } catch (const std::runtime_error& error) {
    EXPECT_THAT(error.what(), HasSubstr(file.path() + "/is/no/folder"));
  }
  EXPECT_THAT(file.lines(), ElementsAre("in the way"));
}

TEST(LogTest, AWriterGetsEveryLineInItsPartsByTheTimeItIsClosed) {
  std::vector<CapturedLine> written;
  Log::global().openWriter([&](const drovane::LogLine& line) {
    written.push_back({line.level, line.id, std::string(line.name), std::string(line.text)});
  });
  const int level = Drovane::global.logLevel();
  Drovane::global.setLogLevel(4);
  Drovane::global.log(2, 16000, "a.b-c_d", "bind (errno: %d %s)\n", 98, "in use");
  Drovane::global.log(3, 7, "boiler", "\n");
  Drovane::global.log(4, 0, "drovane", " 3 4 x {} \\ ");
  Drovane::global.setLogLevel(level);
  Log::global().close();
  EXPECT_THAT(written, ElementsAre(CapturedLine{2, 16000, "a.b-c_d", "bind (errno: 98 in use)"},
                                   CapturedLine{3, 7, "boiler", ""},
                                   CapturedLine{4, 0, "drovane", " 3 4 x {} \\ "}));
}

TEST(LogTest, WhatAWriterThrowsIsComplainedAboutAndTheLogGoesOn) {
  std::vector<std::string> written;
  testing::internal::CaptureStderr();
  Log::global().openWriter([&](const drovane::LogLine& line) {
    if (line.text == "bad") throw std::runtime_error("no journal");
    written.emplace_back(line.text);
  });
  Drovane::global.log(3, 7, "boiler", "bad\n");
  Drovane::global.log(3, 7, "boiler", "good\n");
  Log::global().close();
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "drovane: the log cannot be written: no journal\n");
  EXPECT_THAT(written, ElementsAre("good"));
}

TEST(LogTest, AnObserverSeesWhatIsWrittenUntilItIsTakenAway) {
  std::vector<std::string> seen;
  Log::global().observe([&](const drovane::LogLine& line) {
    std::ostringstream text;
    text << line.level << '|' << line.id << '|' << line.name << '|' << line.text;
    seen.push_back(text.str());
  });
  Drovane::global.log(3, 7, "boiler", "seen\n");
  Drovane::global.log(4, 7, "boiler", "filtered out\n");
  Log::global().observe({});
  Drovane::global.log(3, 7, "boiler", "not seen\n");
  EXPECT_THAT(seen, ElementsAre("3|7|boiler|seen"));
}

TEST(LogTest, LinesOfSeveralThreadsStayWhole) {
  const LogFile file;
  Log::global().openFile(file.path());
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([t] {
      for (int i = 0; i < 500; ++i)
        Drovane::global.log(3, t, "boiler", "thread %d line %d\n", t, i);
    });
  }
  for (auto& thread : threads) thread.join();
  Log::global().close();
  std::array<int, 4> next{};
  for (const auto& line : file.lines()) {
    int thread = -1;
    int number = -1;
    ASSERT_EQ(
        std::sscanf(afterTime(line).c_str(), "3 %*d boiler thread %d line %d", &thread, &number), 2)
        << line;
    ASSERT_EQ(number, next.at(static_cast<std::size_t>(thread))++);
  }
  EXPECT_THAT(next, testing::Each(500));
}

// Reads what is written to a pipe.
class PipeReader {
 public:
  explicit PipeReader(const std::string& path)
      : pipe(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC)) {}

  // False when `text` does not come in time.
  bool readUntil(const std::string& text) {
    return eventually([&] {
      pollfd watched{pipe.get(), POLLIN, 0};
      poll(&watched, 1, 10);
      std::array<char, 65536> buffer;
      const ssize_t count = read(pipe.get(), buffer.data(), buffer.size());
      if (count > 0) content.append(buffer.data(), static_cast<std::size_t>(count));
      return content.find(text) != std::string::npos;
    });
  }

  std::string content;

 private:
  drovane::Descriptor pipe;
};

TEST(LogTest, AFloodLosesItsOldestLinesAndSaysHowMany) {
  constexpr int kFlood = 30000;
  const LogFile file;
  ASSERT_EQ(mkfifo(file.path().c_str(), 0600), 0);
  PipeReader reader(file.path());
  Log::global().openFile(file.path());  // nobody reads the pipe: the writer gets stuck
  for (int i = 0; i < kFlood; ++i) Drovane::global.log(3, 7, "boiler", "flood %d.\n", i);
  ASSERT_TRUE(reader.readUntil("flood " + std::to_string(kFlood - 1) + "."));
  Drovane::global.log(3, 7, "boiler", "after it\n");
  ASSERT_TRUE(reader.readUntil(" log lines lost in a flood\n"));
  Drovane::global.log(3, 7, "boiler", "the end\n");
  ASSERT_TRUE(reader.readUntil("the end\n"));

  int arrived = 0;
  int lost = 0;
  int reports = 0;
  std::istringstream lines(reader.content);
  for (std::string line; std::getline(lines, line);) {
    if (line.find("flood ") != std::string::npos && line.back() == '.') ++arrived;
    const std::string rest = afterTime(line);
    if (std::sscanf(rest.c_str(), "2 0 drovane %d log lines lost in a flood", &lost) == 1)
      ++reports;
  }
  EXPECT_EQ(reports, 1);
  EXPECT_GT(lost, 0);
  EXPECT_EQ(arrived + lost, kFlood);
}

TEST(LogTest, WhatIsNoRegularFileIsNeverRenamed) {
  const std::string megabyte(1024 * 1024, 'x');
  const LogFile file;
  ASSERT_EQ(mkfifo(file.path().c_str(), 0600), 0);
  PipeReader reader(file.path());
  Log::global().openFile(file.path());
  for (int i = 0; i < 12; ++i) {  // a regular file would have been renamed at 10 MB
    Drovane::global.log(3, 7, "boiler", "%s end %d.\n", megabyte.c_str(), i);
    ASSERT_TRUE(reader.readUntil(" end " + std::to_string(i) + "."));
    reader.content.clear();
  }
  EXPECT_TRUE(std::filesystem::is_fifo(file.path()));
  EXPECT_FALSE(std::filesystem::exists(file.path() + ".1"));
}

TEST(LogTest, TheInstallationRootIsCutToTheBuffer) {
  Drovane::global.setInstRoot("/opt/house");
  std::array<char, 512> buf{};
  Drovane::global.getInstRoot(buf.data(), 512);
  EXPECT_STREQ(buf.data(), "/opt/house");
  buf.fill('x');
  Drovane::global.getInstRoot(buf.data(), 5);
  EXPECT_STREQ(buf.data(), "/opt");
  EXPECT_EQ(buf[5], 'x');
  Drovane::global.setInstRoot(".");
}

}  // namespace
