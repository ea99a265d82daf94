#include "NetTest.h"

#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <stdexcept>
#include <utility>

#include "framework/Identity.h"
#include "framework/RovikHost.h"
#include "framework/Words.h"
#include "support/Eventually.h"

std::unique_ptr<ExposedNet> ExposedNet::make(int id, const std::string& name) {
  const drovane::IdentityForConstruction identity(id, name);
  auto net = std::make_unique<ExposedNet>();
  if (!drovane::RovikHost::of(*net).enterRouter())
    throw std::runtime_error("address is taken: " + name);
  return net;
}

std::string ExposedNet::command(std::vector<std::string> words) {
  drovane::CommandVector vector(std::move(words));
  return interpretCmd(vector.get());
}

void ExposedNet::readLinkNow() {
  FD_ZERO(&readfds);
  if (fd >= 0) FD_SET(fd, &readfds);
  EXPECT_EQ(0, selectFD());
}

int ExposedNet::bytesWaiting() const {
  int waiting = 0;
  return ioctl(fd, FIONREAD, &waiting) == 0 ? waiting : -1;
}

bool ExposedNet::bufferIsClean() const {
  if (inbufpos < 0 || inbufpos >= kBufferSize) return false;
  return std::all_of(inbuf + inbufpos, inbuf + kBufferSize, [](char byte) { return byte == 0; });
}

NetTest::NetTest() : net(ExposedNet::make(5, "net")) { newLines(); }

NetTest::~NetTest() {
  if (net && net->fd >= 0) ::close(net->fd);
}

Lines NetTest::newLines() {
  Lines lines = log.lines();
  const auto known = static_cast<std::ptrdiff_t>(seen);
  seen = lines.size();
  lines.erase(lines.begin(), lines.begin() + known);
  return lines;
}

std::string NetTest::warning() const { return drovane::RovikHost::of(*net).status().warning; }

std::size_t NetTest::warnings() const {
  return static_cast<std::size_t>(drovane::RovikHost::of(*net).status().warning_count);
}

void NetTest::openTo(TcpPeer& peer) {
  net->command({"host", "127.0.0.1"});
  net->command({"port", std::to_string(peer.port())});
  ASSERT_EQ("OK", net->command({"open"}));
  peer.accept();
  newLines();
}

void NetTest::deliver(TcpPeer& peer, std::string_view bytes) {
  const int before = net->bytesWaiting();
  peer.send(bytes);
  ASSERT_TRUE(
      eventually([&] { return net->bytesWaiting() == before + static_cast<int>(bytes.size()); }));
}

void NetTest::feed(TcpPeer& peer, std::string_view bytes) {
  deliver(peer, bytes);
  while (net->fd >= 0 && net->bytesWaiting() > 0) net->readLinkNow();
}

void NetTest::awaitEnd() {
  ASSERT_TRUE(eventually([&] {
    pollfd watched{net->fd, POLLRDHUP, 0};
    return poll(&watched, 1, 0) == 1 && (watched.revents & (POLLRDHUP | POLLHUP | POLLERR)) != 0;
  }));
}
