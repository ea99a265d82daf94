// A program whose standard input is closed gets 0 as its next descriptor: a number like any other.
#include <fcntl.h>
#include <unistd.h>

#include <optional>

#include "NetTest.h"
#include "SerialLink.h"
#include "framework/Descriptor.h"

namespace {

using testing::Contains;

// Closes the standard input for as long as it lives.
class InputClosed {
 public:
  InputClosed() : input(fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, kElsewhere)) {
    if (input) ::close(STDIN_FILENO);
  }
  ~InputClosed() {
    if (input) ::dup2(input.get(), STDIN_FILENO);
  }
  InputClosed(const InputClosed&) = delete;
  InputClosed& operator=(const InputClosed&) = delete;

 private:
  static constexpr int kElsewhere = 100;
  drovane::Descriptor input;
};

bool zeroIsOpen() { return fcntl(STDIN_FILENO, F_GETFD) >= 0; }

// The link ends before the standard input is put back in its place.
template <typename Net>
class WithoutInput : public Net {
 protected:
  void TearDown() override {
    this->net->closeGeneric();
    closed.reset();
  }
  void closeInput() { closed.emplace(); }

 private:
  std::optional<InputClosed> closed;
};

class DescriptorZero : public WithoutInput<NetTest> {};
class DescriptorZeroOfAPort : public WithoutInput<SerialLink> {};

TEST_F(DescriptorZero, IsReadAndWritten) {
  TcpPeer peer;
  closeInput();
  openTo(peer);
  ASSERT_EQ(STDIN_FILENO, net->fd);
  feed(peer, "in\n");
  EXPECT_THAT(newLines(), Contains(traceLine("Rovik Message: MM_DATA 5_0_0 = {in\\n}")));
  net->persistent = true;
  char out[16] = "out";
  EXPECT_EQ(0, net->sndData(out, 3, sizeof out));
  EXPECT_EQ("out", peer.receive(3));
  EXPECT_EQ(STDIN_FILENO, net->fd);
}

TEST_F(DescriptorZero, IsAnOpenLink) {
  TcpPeer peer;
  closeInput();
  openTo(peer);
  ASSERT_EQ(STDIN_FILENO, net->fd);
  EXPECT_EQ("", net->command({"open"}));
  EXPECT_EQ(0, net->openGeneric());
  EXPECT_EQ(STDIN_FILENO, net->fd);
}

TEST_F(DescriptorZero, IsClosed) {
  TcpPeer peer;
  closeInput();
  openTo(peer);
  ASSERT_EQ(STDIN_FILENO, net->fd);
  EXPECT_EQ("OK", net->command({"close"}));
  EXPECT_EQ(-1, net->fd);
  EXPECT_FALSE(zeroIsOpen());
  EXPECT_TRUE(peer.seesEnd());
}

TEST_F(DescriptorZero, SendsAWakeUp) {
  net->command({"wol", "adr", "127.0.0.1"});
  closeInput();
  EXPECT_EQ("OK", net->command({"wol", "snd"}));
}

TEST_F(DescriptorZeroOfAPort, HasModemFeatures) {
  closeInput();
  open();
  ASSERT_EQ(STDIN_FILENO, net->fd);
  EXPECT_EQ("OK", net->command({"rts", "on"}));
  EXPECT_NE(0U, portSettings().c_cflag & CRTSCTS);
  // A pseudo-terminal has no such line; what counts is that it was asked.
  EXPECT_EQ(-1, net->toggleDTR(true));
  EXPECT_EQ("DTR: ioctl TIOCMGET (errno: 25 Inappropriate ioctl for device)", warning());
}

}  // namespace
