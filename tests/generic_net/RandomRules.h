// Random regular expressions, outputs and lines, small enough to match each other now and then.
#pragma once

#include <random>
#include <string>
#include <vector>

class RandomRules {
 public:
  explicit RandomRules(unsigned int seed) : random(seed) {}

  // Valid in nine cases of ten.
  std::string regex() {
    if (upTo(9) == 0) return invalid();
    return (upTo(3) == 0 ? "^" : "") + alternation(2) + (upTo(3) == 0 ? "$" : "");
  }

  std::string output() {
    return some({"", "x", "\\0", "<\\1>", "\\2\\1", "\\9", "a\\n\\1", "\\\\1", "end\\"});
  }

  // Bytes, not escaped.
  std::string line() {
    std::string text;
    for (std::size_t left = upTo(12); left > 0; --left)
      text += some({"a", "b", "ab", "1", "=", " ", "_", "\n", "\r\n", "\\", "\xE4", "A"});
    return text;
  }

  std::size_t upTo(std::size_t most) {
    return std::uniform_int_distribution<std::size_t>(0, most)(random);
  }

 private:
  std::string some(const std::vector<std::string>& choices) {
    return choices[upTo(choices.size() - 1)];
  }

  std::string alternation(int depth) {
    std::string all = sequence(depth);
    while (upTo(3) == 0) all += "|" + sequence(depth);
    return all;
  }

  std::string sequence(int depth) {
    std::string all;
    for (std::size_t left = upTo(3); left > 0; --left) all += repeated(depth);
    return all;
  }

  std::string repeated(int depth) {
    return atom(depth) + some({"", "", "", "", "*", "+", "?", "*?", "+?", "??", "{2}", "{1,2}",
                               "{0,1}?", "{2,}"});
  }

  std::string atom(int depth) {
    if (depth > 0 && upTo(3) == 0)
      return some({"(", "(", "(?:", "(?i:", "(?P<n>"}) + alternation(depth - 1) + ")";
    return some({"a",     "b",           "ab",      "1",        "=",     " ",    "_",
                 ".",     "[ab]",        "[^a]",    "[a-f0-9]", "\\d",   "\\w",  "\\W",
                 "\\s",   "(?:\\b)",     "(?:\\B)", "(?:^)",    "(?:$)", "\\\\", "\\\\n",
                 "\\x5c", "[[:alpha:]]", "\\pL",    "()"});
  }

  std::string invalid() {
    return some({"(", ")", "[", "[b-a]", "*", "a**b(", "a{2,1}", "\\", "(?<x>a)", "\\1", "a{1001}",
                 "(?P<n>a)(?P<n>b)", "(?=a)", "\\8", "[[:nope:]]", "\\pX"}) +
           some({"", "", "a"});
  }

  std::mt19937 random;
};
