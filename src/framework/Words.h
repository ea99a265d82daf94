// Command lines: how they are split into words, and the form in which a rovik gets them.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace drovane {

struct WordsOrError {
  std::vector<std::string> words;
  std::string error;  // empty when the line could be read
};

// Splits at blanks and tabs. '…' and "…" group, and everything inside them is literal; quoted and
// bare pieces that touch are one word, '' is an empty word; a backslash is never special; # at the
// start of a word begins a comment.
WordsOrError splitWords(std::string_view line);

// The null-terminated vector that Rovik::interpretCmd takes: at least ten entries, null where no
// word was given. Owns the texts, which the rovik may write to.
class CommandVector {
 public:
  explicit CommandVector(std::vector<std::string> its_words);
  CommandVector(const CommandVector&) = delete;
  CommandVector& operator=(const CommandVector&) = delete;

  char** get() { return entries.data(); }

 private:
  std::vector<std::string> words;
  std::vector<char*> entries;
};

}  // namespace drovane
