#include "Words.h"

#include <algorithm>
#include <utility>

namespace drovane {
namespace {

constexpr std::string_view kBlanks = " \t";
constexpr std::size_t kFewestEntries = 10;

bool blank(char byte) { return kBlanks.find(byte) != std::string_view::npos; }

// Reads the word at `at` into `word` and moves `at` behind it. False when a quote is not closed.
bool readWord(std::string_view line, std::size_t& at, std::string& word) {
  while (at < line.size() && !blank(line[at])) {
    const char byte = line[at++];
    if (byte != '\'' && byte != '"') {
      word += byte;
      continue;
    }
    const std::size_t close = line.find(byte, at);
    if (close == std::string_view::npos) return false;
    word.append(line, at, close - at);
    at = close + 1;
  }
  return true;
}

}  // namespace

WordsOrError splitWords(std::string_view line) {
  WordsOrError result;
  for (std::size_t at = 0;;) {
    at = std::min(line.find_first_not_of(kBlanks, at), line.size());
    if (at == line.size() || line[at] == '#') return result;
    const std::size_t begin = at;
    std::string word;
    if (!readWord(line, at, word)) {
      result.error = "quote is not closed: " + std::string(line.substr(begin, 40)) +
                     "; expected a second " + "' or \" of the same kind in the same line";
      return result;
    }
    result.words.push_back(std::move(word));
  }
}

CommandVector::CommandVector(std::vector<std::string> its_words) : words(std::move(its_words)) {
  entries.assign(std::max(words.size() + 1, kFewestEntries), nullptr);
  std::transform(words.begin(), words.end(), entries.begin(),
                 [](std::string& word) { return word.data(); });
}

}  // namespace drovane
