// The lines that a benchmark sends, made beforehand, and the process that sends them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "support/Child.h"
#include "support/Sockets.h"

namespace bench {

enum class LineForm : std::uint32_t {
  Numbered,  // 000000017xxxxxxx, of any size from ten bytes on
  Reading,   // T17=23.50, ten bytes with the line feed
};

// Different lines of one size, line feed included, to be sent round and round.
class Block {
 public:
  // `size` is 10 for readings.
  Block(LineForm form, std::size_t line_size);

  std::string_view text(std::size_t index) const { return {&bytes[index * size], size - 1}; }
  // What stands behind the "=" of a reading.
  std::string_view value(std::size_t index) const { return text(index).substr(kKeySize); }

  const std::size_t size;
  const std::size_t count;
  std::string bytes;

 private:
  static constexpr std::size_t kKeySize = 4;
};

struct Job {
  LineForm form;
  std::uint32_t line_size;
  std::uint64_t lines;
};

// A process that sends what each job asks for to whoever has connected, and then the end of the
// stream. To be made before any thread.
class LineSource {
 public:
  LineSource();
  int port() const { return listener.port; }
  void send(const Job& job) { process.send(job); }

 private:
  const Listener listener;
  Child process;
};

}  // namespace bench
