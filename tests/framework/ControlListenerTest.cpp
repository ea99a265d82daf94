// The file of the control socket: each step that can go wrong is named.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <cerrno>
#include <filesystem>

#include "faults/LibraryFaults.h"
#include "framework/ControlListener.h"
#include "support/DescriptorLimits.h"
#include "support/TempFolder.h"

namespace {

using drovane::ControlListener;

class ControlListenerTest : public testing::Test {
 protected:
  static std::string errorAt(const std::string& path) {
    try {
      const ControlListener listener(path);
    } catch (const drovane::ControlSocketError& error) {
      return error.what();
    }
    return "no error";
  }
  std::string error() const { return errorAt(path); }
  // The error when this call fails with EIO, and only if the call was made.
  std::string errorOf(const char* call, int spared = 0) const {
    const LibraryFault fault(call, EIO, LibraryFault::On::ThisThread, spared);
    const std::string text = error();
    return fault.happened() ? text : "not called: " + std::string(call);
  }

  std::string madeNot(const std::string& why) const {
    return "control socket '" + path + "' cannot be made: " + why;
  }

  // What a process that was killed leaves behind.
  void leaveStaleSocket() const {
    const drovane::Descriptor dead(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un target{};
    target.sun_family = AF_UNIX;
    path.copy(target.sun_path, sizeof target.sun_path - 1);
    ASSERT_EQ(::bind(dead.get(), reinterpret_cast<const sockaddr*>(&target), sizeof target), 0);
  }

  const TempFolder folder;
  const std::string path = folder / "control";
};

TEST_F(ControlListenerTest, AnEmptyPathIsRefused) {
  EXPECT_EQ(errorAt(""),
            "control socket '' cannot be made: its path has 0 bytes; expected 1 to 107");
}

TEST_F(ControlListenerTest, APathThroughAFileIsRefused) {
  folder.write("file", "");
  EXPECT_EQ(errorAt(folder / "file/control"), "control socket '" + (folder / "file/control") +
                                                  "' cannot be made: lstat: Not a directory");
}

TEST_F(ControlListenerTest, SaysWhenThereIsNoDescriptor) {
  const DescriptorLimit none(3);
  EXPECT_EQ(error(), madeNot("socket: Too many open files"));
}

TEST_F(ControlListenerTest, SaysWhatFailsWhileItIsMade) {
  EXPECT_EQ(errorOf("chmod"), madeNot("chmod: Input/output error"));
  std::filesystem::remove(path);
  EXPECT_EQ(errorOf("lstat", 1), madeNot("lstat: Input/output error"));
  std::filesystem::remove(path);
  EXPECT_EQ(errorOf("listen"), madeNot("listen: Input/output error"));
}

TEST_F(ControlListenerTest, ASocketThatNobodyListensOnIsReplaced) {
  leaveStaleSocket();
  const ControlListener listener(path);
  struct stat facts {};
  ASSERT_EQ(::stat(path.c_str(), &facts), 0);
  EXPECT_EQ(facts.st_mode & 07777, 0600U);
}

TEST_F(ControlListenerTest, SaysWhatFailsWhileAnOldSocketIsReplaced) {
  leaveStaleSocket();
  EXPECT_EQ(errorOf("connect"), madeNot("connect: Input/output error"));
  EXPECT_EQ(errorOf("unlink"), madeNot("unlink: Input/output error"));
}

TEST_F(ControlListenerTest, AnOldSocketThatSomebodyElseHasJustRemovedIsNoError) {
  leaveStaleSocket();
  const LibraryFault fault("unlink", ENOENT);
  // The file is still there in truth, so the step behind it is the one that fails.
  EXPECT_EQ(error(), madeNot("bind: Address already in use"));
}

TEST_F(ControlListenerTest, ASocketWithAFullQueueIsSomebodys) {
  const ControlListener listener(path);
  const LibraryFault fault("connect", EAGAIN);
  EXPECT_EQ(error(), "control socket '" + path +
                         "' is in use by a running drovane; expected a free path, or another one "
                         "with --control");
}

TEST_F(ControlListenerTest, AFileThatIsGoneAtTheEndIsNoError) {
  {
    const ControlListener listener(path);
    std::filesystem::remove(path);
  }
  EXPECT_FALSE(std::filesystem::exists(path));
}

TEST_F(ControlListenerTest, WhoCannotBeIdentifiedIsNotAllowed) {
  EXPECT_FALSE(ControlListener::allowed(-1));
}

}  // namespace
