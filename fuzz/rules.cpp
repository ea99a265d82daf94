// Tables of rules and lines: all rules at once, one after the other, and each rule by itself say
// the same.
//
// Input: rules, one a line, expression TAB output; then a line "%%"; then lines to match.
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "Owned.h"
#include "RegexTable.h"
#include "RovikUtil.h"
#include "support/Property.h"
#include "support/Sections.h"

using fuzzing::require;

namespace {

constexpr std::size_t kMostRules = 24;
constexpr std::size_t kMostLines = 8;

struct Rule {
  std::string regex;
  std::string output;
};
using Matches = std::vector<std::pair<std::size_t, std::string>>;

std::vector<Rule> rulesOf(std::string_view section) {
  std::vector<Rule> rules;
  for (const std::string_view line : fuzzing::linesOf(section, kMostRules)) {
    const std::size_t tab = std::min(line.find('\t'), line.size());
    std::string output(line.substr(std::min(tab + 1, line.size())));
    rules.push_back({std::string(line.substr(0, tab)), std::move(output)});
  }
  return rules;
}

Matches oneByOne(const std::vector<Rule>& rules, const std::string& text) {
  Matches found;
  for (std::size_t i = 0; i < rules.size(); ++i) {
    char* result = nullptr;
    const int status = RovikUtil::regex_replace(&result, text.c_str(), rules[i].output.c_str(),
                                                rules[i].regex.c_str());
    const OwnedText owner(result);
    const bool valid = RovikUtil::regexError(rules[i].regex).empty();
    require(valid == (status >= 0), "a rule is refused for being invalid and for nothing else");
    require((status > 0) == (result != nullptr), "there is a result on a match");
    if (status > 0) found.emplace_back(i, owner.get());
  }
  return found;
}

Matches tableOf(RegexTable& table, const std::string& text) {
  Matches found;
  table.match(text, [&](std::size_t index, const std::string& output) {
    found.emplace_back(index, output);
  });
  return found;
}

// Escaped, as lines of a peer are when they meet the rules.
std::string escaped(std::string_view bytes) {
  std::string text;
  RovikUtil::escape(text, bytes.data(), bytes.size());
  return text;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzzing::silenceLog();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string input(fuzzing::asText(data, size));
  // A rule is a text that ends at its first zero byte.
  std::erase(input, '\0');
  const auto [table_text, lines] = fuzzing::cutInTwo(input);
  const std::vector<Rule> rules = rulesOf(table_text);
  RegexTable one_pass(0);
  RegexTable walk(SIZE_MAX);
  RegexTable standard;
  for (const Rule& rule : rules)
    for (RegexTable* table : {&one_pass, &walk, &standard}) table->add(rule.regex, rule.output);
  for (const std::string_view line : fuzzing::linesOf(lines, kMostLines)) {
    const std::string text = escaped(line);
    const Matches expected = oneByOne(rules, text);
    require(tableOf(walk, text) == expected, "the walk says what each rule says");
    require(tableOf(one_pass, text) == expected, "one pass says what each rule says");
    require(tableOf(standard, text) == expected, "the table says what each rule says");
  }
  return 0;
}
