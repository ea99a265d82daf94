#include "support/PeerSerial.h"

#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <stdexcept>
#include <system_error>

#include "support/Eventually.h"

namespace {

int checked(int result, const char* what) {
  if (result < 0) throw std::system_error(errno, std::generic_category(), what);
  return result;
}

// For at most `limit`, until one of `events` or the line's end is there.
void await(int descriptor, short events, std::chrono::milliseconds limit) {
  pollfd watched{descriptor, events, 0};
  checked(::poll(&watched, 1, static_cast<int>(limit.count())), "poll");
}

}  // namespace

SerialPeer::SerialPeer()
    : line(checked(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK), "posix_openpt")) {
  checked(::unlockpt(line.get()), "unlockpt");
  std::array<char, 64> name{};
  const int error = ::ptsname_r(line.get(), name.data(), name.size());
  if (error != 0) throw std::system_error(error, std::generic_category(), "ptsname_r");
  its_path = name.data();
}

std::size_t SerialPeer::sendSome(std::string_view bytes) {
  const ssize_t sent = ::write(line.get(), bytes.data(), bytes.size());
  if (sent < 0 && errno != EAGAIN) throw std::system_error(errno, std::generic_category(), "write");
  return sent < 0 ? 0 : static_cast<std::size_t>(sent);
}

void SerialPeer::send(std::string_view bytes) {
  const auto progress = [&] {
    const std::size_t sent = sendSome(bytes);
    bytes.remove_prefix(sent);
    return sent > 0;
  };
  while (!bytes.empty())
    if (!eventually(progress)) throw std::runtime_error("nobody reads what the device sends");
}

// At most `most` bytes more, waiting for the first. False when the other side has closed the port
// or nothing comes in time.
bool SerialPeer::take(std::string& bytes, std::size_t most) {
  await(line.get(), POLLIN, kPatienceOfTests);
  const std::size_t before = bytes.size();
  bytes.resize(before + most);
  const ssize_t received = ::read(line.get(), &bytes[before], most);
  bytes.resize(before + static_cast<std::size_t>(std::max<ssize_t>(received, 0)));
  return received > 0;
}

std::string SerialPeer::receive(std::size_t count) {
  std::string bytes;
  while (bytes.size() < count && take(bytes, count - bytes.size())) continue;
  return bytes;
}

std::string SerialPeer::receiveUntil(std::string_view end) {
  std::string bytes;
  while (!bytes.ends_with(end) && take(bytes, 1)) continue;
  return bytes;
}

bool SerialPeer::seesEnd() {
  std::string dropped;
  while (take(dropped, 4096)) dropped.clear();
  pollfd watched{line.get(), 0, 0};
  return checked(::poll(&watched, 1, 0), "poll") == 1 && (watched.revents & POLLHUP) != 0;
}

// Asked at this end, a pseudo-terminal tells about its other end.
termios SerialPeer::settings() const {
  termios now{};
  checked(::tcgetattr(line.get(), &now), "tcgetattr");
  return now;
}

void SerialPeer::set(const termios& settings) {
  checked(::tcsetattr(line.get(), TCSANOW, &settings), "tcsetattr");
}

// An end that stays open keeps the number, and so the path, from the next pseudo-terminal: who
// looks for this device again must not come upon another's.
void SerialPeer::unplug() {
  dead_end = drovane::Descriptor(
      checked(::open(its_path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC), "open"));
  line.reset();
}
