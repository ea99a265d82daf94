// One client of the control socket: lines in, lines out, neither without bounds.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "Descriptor.h"

namespace drovane {

// Belongs to the control thread. Never blocks.
class ControlConnection {
 public:
  static constexpr std::size_t kLongestRequest = 64 * 1024;
  static constexpr std::size_t kOutputBound = 1024 * 1024;

  explicit ControlConnection(Descriptor socket);

  // --- Requests ---

  // Reads what is there. False when the connection is broken.
  bool receive();
  // The next whole line, without its end.
  std::optional<std::string> nextLine();
  // More than kLongestRequest bytes have come without a line end.
  bool tooLong() const { return input.size() > kLongestRequest; }
  // The client sends nothing more.
  bool inputEnded() const { return input_ended; }

  // --- Replies and messages ---

  // Always finds room: whoever answers requests looks at full before each.
  void reply(const std::string& line) { append(line); }
  // For a watching or tracing client: what finds no room is counted instead, and the client is told
  // with {"dropped":N} as soon as there is room again; with "dropped_bytes" too when the lines
  // stood for `bytes` of a link.
  void tell(const std::string& line, std::uint64_t bytes = 0);
  void countDropped(std::uint64_t lines, std::uint64_t bytes = 0);
  // The last line of all that is told: always finds room, and so does the count before it.
  void tellLast(const std::string& line);
  // Writes what the client takes. False when the connection is broken.
  bool flush();
  bool unsent() const { return sent < output.size(); }
  // So much waits for the client that its further requests have to wait too.
  bool full() const { return output.size() - sent >= kOutputBound; }

  int descriptor() const { return socket.get(); }

  // The server's notes about the client.
  bool busy = false;       // its request will be answered later
  bool watching = false;   // gets messages, or what goes over a link
  bool greeted = false;    // has sent a complete request
  std::int64_t heard = 0;  // when it last sent something, in nanoseconds of Clock

 private:
  void append(const std::string& line);
  void reportDropped();
  void appendDropped();

  Descriptor socket;
  std::string input;
  bool input_ended = false;
  std::string output;
  std::size_t sent = 0;  // of `output`
  std::uint64_t dropped = 0;
  std::uint64_t dropped_bytes = 0;
};

}  // namespace drovane
