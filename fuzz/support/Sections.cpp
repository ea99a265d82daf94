#include "support/Sections.h"

#include <algorithm>

namespace fuzzing {

std::pair<std::string_view, std::string_view> cutInTwo(std::string_view input) {
  constexpr std::string_view kRule = "%%\n";
  for (std::size_t at = 0; (at = input.find(kRule, at)) != std::string_view::npos; ++at)
    if (at == 0 || input[at - 1] == '\n')
      return {input.substr(0, at), input.substr(at + kRule.size())};
  return {{}, input};
}

std::vector<std::string_view> linesOf(std::string_view text, std::size_t most) {
  std::vector<std::string_view> lines;
  while (!text.empty() && lines.size() < most) {
    const std::size_t end = std::min(text.find('\n'), text.size());
    lines.push_back(text.substr(0, end));
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  return lines;
}

std::vector<Step> stepsOf(std::string_view text, std::size_t most) {
  std::vector<Step> steps;
  for (std::size_t at = 0; at < text.size(); ++at) {
    const bool mark = text[at] == '\xFF' && at + 1 < text.size();
    if (mark) ++at;
    if (mark && text[at] != '\xFF') {
      if (steps.size() == most) break;
      steps.push_back({text[at], {}});
      continue;
    }
    if (steps.empty()) steps.push_back({0, {}});
    steps.back().bytes += text[at];
  }
  return steps;
}

}  // namespace fuzzing
