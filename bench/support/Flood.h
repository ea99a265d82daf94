// A peer that says numbered lines as fast as they are taken.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <thread>

namespace bench {

// "000000017 xxx…\n", `size` bytes with the line feed, at least 11.
void appendNumberedLine(std::string& text, std::uint64_t number, std::size_t size);
// Of such a line without its line feed; -1 when it is none.
std::int64_t numberOfLine(std::string_view line);

class Flood {
 public:
  struct Lines {
    std::size_t size;      // of each line
    std::size_t per_send;  // lines for the kernel in one go
  };

  // Says lines 0, 1, 2, … to a connected socket, which is the caller's, from a thread of its own.
  // `sent` counts those that the kernel has taken whole.
  Flood(int socket, Lines its_lines, std::atomic<std::uint64_t>& its_sent);
  ~Flood();
  Flood(const Flood&) = delete;
  Flood& operator=(const Flood&) = delete;

  // No more lines than those that wait for the kernel.
  void askToStop() { stopping.store(true, std::memory_order_relaxed); }
  // Also returns only when these have been taken, or the connection has ended.
  void stop();

 private:
  void run();

  const int socket;
  const Lines lines;
  std::atomic<std::uint64_t>& sent;
  std::atomic<bool> stopping{false};
  std::thread thread;
};

}  // namespace bench
