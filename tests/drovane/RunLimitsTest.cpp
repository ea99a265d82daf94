// What a drovane makes of the limits that it is started with, and of a log that nobody reads.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <cerrno>
#include <fstream>
#include <sstream>

#include "RunningProgram.h"
#include "support/Eventually.h"

namespace {

std::string limitOf(pid_t process, const std::string& name) {
  std::ifstream file("/proc/" + std::to_string(process) + "/limits");
  for (std::string line; std::getline(file, line);)
    if (line.starts_with(name)) return line.substr(name.size());
  return "";
}

TEST(RunLimits, TheLimitOfDescriptorsIsRaisedAsFarAsItMay) {
  const TempFolder folder;
  folder.write("house.conf", houseWith());
  Process process({"prlimit", "--nofile=256:3000", DROVANE_PROGRAM, "run", folder / "house.conf",
                   "--plugins", DROVANE_TEST_PLUGINS, "--control", folder / "control"});
  ASSERT_TRUE(process.waitForErrors(" roviks\n")) << process.errors();
  std::istringstream limits(limitOf(process.pid(), "Max open files"));
  int soft = 0;
  int hard = 0;
  limits >> soft >> hard;
  EXPECT_EQ(soft, 3000);
  EXPECT_EQ(hard, 3000);
  process.signal(SIGTERM);
  EXPECT_EQ(process.wait(), 0);
}

TEST(RunLimits, IsGoneInTimeAlthoughNobodyReadsItsLog) {
  Program program;
  const std::string log = program.folder / "log";
  ASSERT_EQ(::mkfifo(log.c_str(), 0600), 0);
  // Open, but not read.
  const drovane::Descriptor reader(::open(log.c_str(), O_RDWR | O_CLOEXEC | O_NONBLOCK));
  ASSERT_TRUE(reader);
  ASSERT_GE(::fcntl(reader.get(), F_SETPIPE_SZ, 4096), 0);
  program.start(houseWith(), {"--log-file", log});
  ASSERT_TRUE(eventually([&] { return program.ask({"status"}).status == 0; }));
  for (int i = 0; i < 3; ++i)
    EXPECT_EQ(program.ask({"cmd", "boiler", "log", std::string(3000, 'x')}).output, "OK\n");
  program.expectEndsInTime();
}

}  // namespace
