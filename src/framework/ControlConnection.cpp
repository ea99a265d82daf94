#include "ControlConnection.h"

#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <utility>

namespace drovane {
namespace {

constexpr std::size_t kBlock = 16 * 1024;

bool wouldBlock(int error) { return error == EAGAIN || error == EWOULDBLOCK || error == EINTR; }

}  // namespace

ControlConnection::ControlConnection(Descriptor its_socket) : socket(std::move(its_socket)) {}

// One block at a time: the other clients have their turn too.
bool ControlConnection::receive() {
  std::array<char, kBlock> block;
  const ssize_t count = ::recv(socket.get(), block.data(), block.size(), 0);
  if (count < 0) return wouldBlock(errno);
  if (count == 0) input_ended = true;
  input.append(block.data(), static_cast<std::size_t>(count));
  return true;
}

std::optional<std::string> ControlConnection::nextLine() {
  const std::size_t end = input.find('\n');
  if (end == std::string::npos || end > kLongestRequest) return std::nullopt;
  std::string line = input.substr(0, end);
  input.erase(0, end + 1);
  return line;
}

void ControlConnection::append(const std::string& line) {
  if (sent == output.size()) {
    output.clear();
    sent = 0;
  }
  output += line;
  output += '\n';
}

void ControlConnection::tell(const std::string& line, std::uint64_t bytes) {
  reportDropped();
  if (dropped > 0 || output.size() - sent + line.size() > kOutputBound)
    countDropped(1, bytes);
  else
    append(line);
}

void ControlConnection::countDropped(std::uint64_t lines, std::uint64_t bytes) {
  dropped += lines;
  dropped_bytes += bytes;
}

// Waits until half the room is free, so that a slow client is not told once per message.
void ControlConnection::reportDropped() {
  if (dropped > 0 && output.size() - sent <= kOutputBound / 2) appendDropped();
}

void ControlConnection::tellLast(const std::string& line) {
  if (dropped > 0) appendDropped();
  append(line);
}

void ControlConnection::appendDropped() {
  std::string line = "{\"dropped\":" + std::to_string(std::exchange(dropped, 0));
  if (dropped_bytes > 0)
    line += ",\"dropped_bytes\":" + std::to_string(std::exchange(dropped_bytes, 0));
  append(line + '}');
}

bool ControlConnection::flush() {
  while (unsent()) {
    const ssize_t count =
        ::send(socket.get(), output.data() + sent, output.size() - sent, MSG_NOSIGNAL);
    if (count < 0) return wouldBlock(errno);
    sent += static_cast<std::size_t>(count);
    reportDropped();
  }
  return true;
}

}  // namespace drovane
