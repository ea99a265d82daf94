// What the framework's parts do when the system refuses them something.
#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <system_error>

#include "Mutex.h"
#include "Thread.h"
#include "faults/LibraryFaults.h"
#include "framework/ConfigFile.h"
#include "framework/Waker.h"
#include "support/DescriptorLimits.h"
#include "support/TempFolder.h"

namespace {

TEST(MutexRefusedTest, IsNeverTaken) {
  for (const char* call : {"pthread_mutexattr_init", "pthread_mutex_init"}) {
    const LibraryFault fault(call, ENOMEM);
    Mutex mutex;
    ASSERT_TRUE(fault.happened()) << call;
    EXPECT_FALSE(mutex.lock()) << call;
    mutex.unlock();
    EXPECT_FALSE(mutex.lock()) << call;
  }
}

class Idle : public Thread {
 public:
  int main() override {
    ++runs;
    return 0;
  }
  int runs = 0;
};

TEST(ThreadRefusedTest, StartTellsTheErrorAndMayBeTriedAgain) {
  Idle idle;
  {
    const LibraryFault fault("pthread_create", EAGAIN);
    EXPECT_EQ(idle.start("idle"), EAGAIN);
  }
  EXPECT_EQ(idle.stop(), 0);
  EXPECT_EQ(idle.runs, 0);
  EXPECT_EQ(idle.start("idle"), 0);
  EXPECT_EQ(idle.stop(), 0);
  EXPECT_EQ(idle.runs, 1);
}

TEST(ThreadRefusedTest, ASecondStartIsNoSecondThread) {
  Idle idle;
  EXPECT_EQ(idle.start("idle"), 0);
  EXPECT_EQ(idle.start("idle"), 0);
  EXPECT_EQ(idle.stop(), 0);
  EXPECT_EQ(idle.runs, 1);
}

TEST(ThreadRefusedTest, AWaitForTheEndThatFailsIsTold) {
  Idle idle;
  ASSERT_EQ(idle.start("idle"), 0);
  const LibraryFault fault("pthread_join", EDEADLK);
  EXPECT_EQ(idle.stop(), -1);
  EXPECT_EQ(idle.stop(), 0);
}

TEST(WakerRefusedTest, SaysWhenThereIsNoDescriptor) {
  const DescriptorLimit none(3);
  try {
    const drovane::Waker waker;
    FAIL() << "there is a waker without a descriptor";
  } catch (const std::system_error& error) {
    EXPECT_STREQ(error.what(), "eventfd: Too many open files");
  }
}

std::string errorOf(const std::string& path) {
  try {
    drovane::ConfigFile::read(path);
  } catch (const drovane::ConfigError& error) {
    return error.what();
  }
  return "no error";
}

TEST(ConfigFileRefusedTest, SaysWhenTheFileCannotBeLookedAt) {
  const TempFolder folder;
  folder.write("house.conf", "rovik 5 boiler echo\n");
  const std::string path = folder / "house.conf";
  const LibraryFault fault("fstat", EIO);
  EXPECT_EQ(errorOf(path), path +
                               ":1: the file cannot be looked at: Input/output error; expected "
                               "a configuration file that can be read");
}

// The first page of a process's memory is never there.
TEST(ConfigFileRefusedTest, SaysWhenTheFileCannotBeRead) {
  EXPECT_EQ(errorOf("/proc/self/mem"),
            "/proc/self/mem:1: the file cannot be read: Input/output error; expected a "
            "configuration file that can be read");
}

TEST(ConfigFileRefusedTest, ARootThatLeadsNowhereStaysAsItIsWritten) {
  const TempFolder folder;
  std::filesystem::create_symlink("loop", folder / "loop");
  folder.write("house.conf", "root loop/x\nrovik 5 boiler echo\n");
  EXPECT_EQ(drovane::ConfigFile::read(folder / "house.conf").rootFolder(), folder / "loop/x");
}

}  // namespace
