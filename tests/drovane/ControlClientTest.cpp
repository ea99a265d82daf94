// The command line's end of the control socket.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>

#include "FakeDrovane.h"
#include "drovane/ControlClient.h"
#include "faults/LibraryFaults.h"
#include "support/DescriptorLimits.h"

namespace {

using drovane::ControlClient;
using drovane::newRequest;

const char* const kOk = R"({"ok":true,"reply":"x"})";

// The text of the NotRunning that `action` throws.
template <typename Action>
std::string errorOf(Action action) {
  try {
    action();
  } catch (const drovane::NotRunning& error) {
    return error.what();
  }
  return "no error";
}

TEST(ControlClientTest, SaysWhenThePathIsTooLong) {
  const std::string path(108, 'p');
  EXPECT_EQ(errorOf([&] { const ControlClient client(path); }),
            "no running drovane at " + path + ": the path is too long");
}

TEST(ControlClientTest, SaysWhenThereIsNoDescriptor) {
  const DescriptorLimit none(3);
  EXPECT_EQ(errorOf([] { const ControlClient client("/nowhere"); }),
            "no running drovane at /nowhere: Too many open files");
}

TEST(ControlClientTest, GoesOnAfterAnInterruption) {
  for (const char* call : {"send", "recv"}) {
    const FakeDrovane fake({kOk});
    ControlClient client(fake.path());
    const LibraryFault fault(call, EINTR);
    const drovane::Json reply = client.request(newRequest("version"));
    EXPECT_EQ(drovane::jsonLine(reply.get()), kOk) << call;
    EXPECT_TRUE(fault.happened()) << call;
  }
}

// A drovane that has no room says so and closes the connection.
TEST(ControlClientTest, ReadsTheReasonEvenIfItsRequestDoesNotGoOut) {
  const FakeDrovane fake({std::string(kOk) + '\n' + R"({"ok":false,"error":"no room"})"});
  ControlClient client(fake.path());
  client.request(newRequest("version"));
  const LibraryFault fault("send", EPIPE);
  try {
    client.request(newRequest("version"));
    FAIL() << "it was not refused";
  } catch (const drovane::Refused& error) {
    EXPECT_STREQ(error.what(), "no room");
  }
  EXPECT_TRUE(fault.happened());
}

}  // namespace
