#include "Voice.h"

#include <charconv>

namespace soak {

void Voice::begin() {
  pending.clear();
  ++connection;
  number = 0;
  said_last = false;
  counted = false;
}

void Voice::add(std::string_view ending, std::size_t padding) {
  pending += '#' + std::to_string(connection) + '.' + std::to_string(++number);
  pending += ending;
  if (padding > 0) pending += ' ' + std::string(padding, 'x');
  pending += '\n';
  ++all_lines;
}

void Voice::sayLast() {
  add("!", 0);
  said_last = true;
}

bool Voice::passOn(Line& line) {
  if (!pending.empty()) pending.erase(0, line.send(pending));
  if (!pending.empty()) return false;
  if (said_last && !counted) {
    counted = true;
    ++ended;
    ended_lines += number;
  }
  return true;
}

void Ear::begin() {
  partial.clear();
  begun.clear();
}

void Ear::hear(std::string_view bytes) {
  if (rule == Rule::None) return;
  partial += bytes;
  std::size_t begin = 0;
  for (std::size_t end = 0; (end = partial.find('\n', begin)) != std::string::npos;) {
    check(std::string_view(partial).substr(begin, end - begin));
    begin = end + 1;
  }
  partial.erase(0, begin);
}

void Ear::check(std::string_view line) {
  ++all_lines;
  std::int64_t number = 0;
  const char kind = line.empty() ? '?' : line[0];
  if (kind != '?') std::from_chars(line.data() + 1, line.data() + line.size(), number);
  std::int64_t& before = numbers[kind];
  const bool fresh = !begun[kind] && rule == Rule::InConnections;
  if (number < 1 || (fresh ? number <= before : number != before + 1))
    found.push_back("heard \"" + std::string(line.substr(0, 40)) + "\" after number " +
                    std::to_string(before));
  begun[kind] = true;
  before = number;
}

std::int64_t Ear::last(char kind) const {
  const auto found_kind = numbers.find(kind);
  return found_kind != numbers.end() ? found_kind->second : 0;
}

}  // namespace soak
