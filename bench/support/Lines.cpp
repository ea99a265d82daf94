#include "support/Lines.h"

#include <sys/socket.h>

#include <algorithm>

namespace bench {
namespace {

constexpr std::size_t kBlockBytes = 250'000;  // stays in a core's cache
constexpr std::size_t kNumberDigits = 9;
constexpr std::size_t kReadings = 10'000;  // as many as four digits tell apart

std::string padded(std::size_t number, std::size_t digits) {
  const std::string text = std::to_string(number);
  return std::string(digits - text.size(), '0') + text;
}

std::string numbered(std::size_t index, std::size_t size) {
  return padded(index, kNumberDigits) + std::string(size - 1 - kNumberDigits, 'x') + '\n';
}

std::string reading(std::size_t index) {
  return "T17=" + padded(index / 100, 2) + '.' + padded(index % 100, 2) + '\n';
}

void serve(const Listener& listener, int channel) {
  while (const auto job = receiveRecord<Job>(channel)) {
    const Block block(job->form, job->line_size);
    const drovane::Descriptor peer = listener.accept();
    for (std::uint64_t left = job->lines; left > 0;) {
      const auto now = static_cast<std::size_t>(std::min<std::uint64_t>(left, block.count));
      writeAll(peer.get(), std::string_view(block.bytes).substr(0, now * block.size));
      left -= now;
    }
    shutdown(peer.get(), SHUT_WR);
    awaitClose(peer.get());
  }
}

}  // namespace

Block::Block(LineForm form, std::size_t line_size)
    : size(line_size), count(form == LineForm::Reading ? kReadings : kBlockBytes / line_size) {
  for (std::size_t i = 0; i < count; ++i)
    bytes += form == LineForm::Reading ? reading(i) : numbered(i, size);
}

LineSource::LineSource() : process([this](int channel) { serve(listener, channel); }) {}

}  // namespace bench
