#include "support/Flood.h"

#include <algorithm>
#include <charconv>
#include <system_error>

#include "support/Sockets.h"

namespace bench {
namespace {

constexpr std::size_t kNumberDigits = 9;

}  // namespace

void appendNumberedLine(std::string& text, std::uint64_t number, std::size_t size) {
  const std::string digits = std::to_string(number);
  const std::size_t begin = text.size();
  text.append(kNumberDigits - std::min(kNumberDigits, digits.size()), '0').append(digits);
  text.push_back(' ');
  text.append(size - 1 - std::min(size - 1, text.size() - begin), 'x').push_back('\n');
}

std::int64_t numberOfLine(std::string_view line) {
  std::int64_t number = -1;
  const auto read = std::from_chars(line.data(), line.data() + line.size(), number);
  const auto digits = static_cast<std::size_t>(read.ptr - line.data());
  const bool filled = line.find_first_not_of('x', digits + 1) == std::string_view::npos;
  return digits >= kNumberDigits && filled ? number : -1;
}

Flood::Flood(int its_socket, Lines its_lines, std::atomic<std::uint64_t>& its_sent)
    : socket(its_socket), lines(its_lines), sent(its_sent), thread([this] { run(); }) {}

Flood::~Flood() { stop(); }

void Flood::stop() {
  askToStop();
  if (thread.joinable()) thread.join();
}

void Flood::run() {
  std::uint64_t number = 0;
  std::string text;
  try {
    while (!stopping.load(std::memory_order_relaxed)) {
      text.clear();
      for (std::size_t i = 0; i < lines.per_send; ++i)
        appendNumberedLine(text, number++, lines.size);
      writeAll(socket, text);
      sent.store(number, std::memory_order_relaxed);
    }
  } catch (const std::system_error&) {
    // The other end has closed the connection: nothing more can be said.
  }
}

}  // namespace bench
