// A log that cannot be written: the house goes on, something is said, and the log goes on when it
// can.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <re2/re2.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "FaultyHouse.h"
#include "support/Emulation.h"
#include "support/Eventually.h"

namespace {

using testing::HasSubstr;
using testing::Not;

constexpr std::size_t kLargestLog = 10 * 1024 * 1024;

std::string contentOf(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

// Looks at the end of the file only: some are large.
bool isWritten(const std::string& path, const std::string& text) {
  return eventually([&] {
    std::ifstream file(path, std::ios::binary | std::ios::ate);
    const std::streamoff size = file.tellg();
    file.seekg(std::max<std::streamoff>(size - 65536, 0));
    const std::string end(std::istreambuf_iterator<char>(file), {});
    return end.find(text) != std::string::npos;
  });
}

void expectWholeLines(const std::string& log) {
  static const RE2 kLine(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}[+-]\d\d:\d\d [234] \d+ \S+ .*)");
  EXPECT_TRUE(log.ends_with('\n'));
  std::istringstream lines(log);
  for (std::string line; std::getline(lines, line);)
    EXPECT_TRUE(RE2::FullMatch(line, kLine)) << line;
}

TEST(LogFaults, AFullDiskIsSaidOnStandardErrorAndTheHouseGoesOn) {
  FaultyHouse house;
  Process& run = house.start(houseWith(), {"--log-file", "/dev/full"});
  EXPECT_TRUE(run.waitForErrors("drovane: the log cannot be written: No space left on device\n"));
  EXPECT_TRUE(eventually([&] { return house.command("boiler", {"say", "alive"}) == "alive\n"; }));
  house.expectEndsInTime();
}

// The kernel's limit for the size of a file, which comes with a signal.
TEST(LogFaults, AFileThatMustNotGrowCostsLinesAndSaysHowMany) {
  FaultyHouse house;
  const std::string file = house.program.folder / "log";
  Process& run = house.start(houseWith(), {"--log-file", file});
  ASSERT_TRUE(isWritten(file, " roviks\n"));
  house.limit(RLIMIT_FSIZE, static_cast<rlim_t>(std::filesystem::file_size(file) + 80));
  for (const char* text : {"one", "two", "three", "four"})
    EXPECT_EQ(house.command("boiler", {"log", text}), "OK\n");
  EXPECT_TRUE(run.waitForErrors("drovane: the log cannot be written: File too large\n"));
  house.unlimit(RLIMIT_FSIZE);
  EXPECT_EQ(house.command("boiler", {"log", "five"}), "OK\n");
  ASSERT_TRUE(isWritten(file, " 3 5 boiler five\n"));
  const std::string log = contentOf(file);
  EXPECT_THAT(log, HasSubstr(" log lines could not be written: File too large\n"));
  EXPECT_THAT(log, Not(HasSubstr(" boiler two\n")));
  expectWholeLines(log);
  house.expectEndsInTime();
}

// A file system of 64 KiB that only the program sees, and whoever comes through its root.
class SmallDisk : public testing::Test {
 protected:
  void SetUp() override {
    SKIP_WHEN_EMULATED("does not follow into another file system");
    const std::string disk = house.program.folder / "disk";
    std::filesystem::create_directory(disk);
    house.start(houseWith(), {"--log-file", disk + "/log"}, {},
                {"unshare", "--user", "--map-root-user", "--mount", "sh", "-c",
                 "mount -t tmpfs -o size=64k none '" + disk + "' && exec \"$0\" \"$@\""});
    const bool started = eventually([&] {
      return house.command("other", {"say", "alive"}) == "alive\n" ||
             house.running().errors().find("unshare") != std::string::npos ||
             house.running().errors().find("mount") != std::string::npos;
    });
    ASSERT_TRUE(started) << house.running().errors();
    if (house.running().errors().find("ermi") != std::string::npos)
      GTEST_SKIP() << "no file system of one's own here: " << house.running().errors();
    inside = "/proc/" + std::to_string(house.running().pid()) + "/root" + disk;
  }

  // Takes all the room that is left.
  void fill() const {
    const drovane::Descriptor file(
        ::open((inside + "/rest").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    const std::string block(512, 'x');
    while (::write(file.get(), block.data(), block.size()) > 0) continue;
    ASSERT_EQ(errno, ENOSPC);
  }

  FaultyHouse house;
  std::string inside;
};

TEST_F(SmallDisk, WhenItIsFullTheHouseGoesOnAndTheLogDoesOnceThereIsRoom) {
  ASSERT_TRUE(isWritten(inside + "/log", " roviks\n"));
  fill();
  const std::string text(200, 'y');
  ASSERT_TRUE(eventually([&] {
    return house.command("boiler", {"log", text}) == "OK\n" &&
           house.running().errors().find(
               "drovane: the log cannot be written: No space left on device\n") !=
               std::string::npos;
  }));
  EXPECT_EQ(house.command("boiler", {"say", "alive"}), "alive\n");
  std::filesystem::remove(inside + "/rest");
  EXPECT_EQ(house.command("boiler", {"log", "room again"}), "OK\n");
  ASSERT_TRUE(isWritten(inside + "/log", " 3 5 boiler room again\n"));
  const std::string log = contentOf(inside + "/log");
  EXPECT_THAT(log, HasSubstr(" log lines could not be written: No space left on device\n"));
  expectWholeLines(log);
  house.expectEndsInTime();
}

class FullLog : public testing::Test {
 protected:
  const std::string& startWithFullLog() {
    file = house.program.folder / "logs/log";
    std::filesystem::create_directory(house.program.folder / "logs");
    house.program.folder.write("logs/log", std::string(kLargestLog - 1, 'x') + '\n');
    return file;
  }

  FaultyHouse house;
  std::string file;
};

TEST_F(FullLog, IsPutAsideForANewOneAndFiveOfThemAreKept) {
  startWithFullLog();
  for (const char* number : {"1", "2", "3", "4", "5"})
    house.program.folder.write("logs/log." + std::string(number), number);
  house.start(houseWith(), {"--log-file", file});
  ASSERT_TRUE(isWritten(file, " roviks\n"));
  EXPECT_EQ(std::filesystem::file_size(file + ".1"), kLargestLog);
  EXPECT_EQ(contentOf(file + ".2"), "1");
  EXPECT_EQ(contentOf(file + ".5"), "4");
  EXPECT_FALSE(std::filesystem::exists(file + ".6"));
  expectWholeLines(contentOf(file));
}

TEST_F(FullLog, StaysInUseWhileANewOneCannotBeBegun) {
  startWithFullLog();
  // Nothing can be made under this name.
  std::filesystem::create_directory(file + ".new");
  house.start(houseWith(), {"--log-file", file});
  ASSERT_TRUE(isWritten(file, " roviks\n"));
  const std::string log = contentOf(file).substr(kLargestLog);
  EXPECT_THAT(log, HasSubstr(" 2 0 drovane a new log file could not be begun: Is a directory\n"));
  EXPECT_FALSE(std::filesystem::exists(file + ".1"));
  expectWholeLines(log);
}

TEST(LogFaults, AFolderThatIsMissingIsMade) {
  FaultyHouse house;
  const std::string file = house.program.folder / "new/logs/log";
  house.start(houseWith(), {"--log-file", file});
  EXPECT_TRUE(isWritten(file, " roviks\n"));
  house.expectEndsInTime();
}

TEST(LogFaults, AFolderThatCannotBeWrittenStopsTheStart) {
  FaultyHouse house;
  Process& run = house.start(houseWith(), {"--log-file", "/proc/log"});
  EXPECT_EQ(run.wait(), 2);
  EXPECT_EQ(run.errors(),
            "drovane: log file '/proc/log' cannot be opened: No such file or directory\n");
}

// There is no signal for it: whoever moves the file away takes the log along.
TEST(LogFaults, AFileThatIsMovedAwayIsFollowed) {
  FaultyHouse house;
  const std::string file = house.program.folder / "log";
  house.start(houseWith(), {"--log-file", file});
  ASSERT_TRUE(isWritten(file, " roviks\n"));
  std::filesystem::rename(file, file + ".old");
  EXPECT_EQ(house.command("boiler", {"log", "moved"}), "OK\n");
  EXPECT_TRUE(isWritten(file + ".old", " 3 5 boiler moved\n"));
  EXPECT_FALSE(std::filesystem::exists(file));
}

// What "copy and truncate" of a log rotation does.
TEST(LogFaults, AFileThatIsEmptiedIsGoneOnWith) {
  FaultyHouse house;
  const std::string file = house.program.folder / "log";
  house.start(houseWith(), {"--log-file", file});
  ASSERT_TRUE(isWritten(file, " roviks\n"));
  std::filesystem::resize_file(file, 0);
  EXPECT_EQ(house.command("boiler", {"log", "emptied"}), "OK\n");
  EXPECT_TRUE(isWritten(file, " 3 5 boiler emptied\n"));
  expectWholeLines(contentOf(file));
}

}  // namespace
