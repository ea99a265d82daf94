// Regular expressions: compiling with one set of options, filling in an output template, and the
// process-wide stock of compiled expressions behind RovikUtil::regex_replace.
#pragma once

#include <re2/re2.h>

#include <array>
#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

namespace drovane {

// One byte is one character: peers send bytes, and no byte may keep a dot from matching. Nothing
// is printed by the library itself.
RE2::Options regexOptions();

// The whole match and groups 1 to 9.
inline constexpr std::size_t kRegexGroups = 10;
using RegexGroups = std::array<re2::StringPiece, kRegexGroups>;

// First match anywhere in `text`. Groups that took no part are empty.
bool regexSearch(const RE2& regex, std::string_view text, RegexGroups& groups);

// Makes `result` from `output`, in which \0 to \9 stand for the groups; every other backslash pair
// is copied as it is.
void fillTemplate(std::string& result, std::string_view output, const RegexGroups& groups);

// A compiled expression, from the stock when it is there. An expression that is not valid comes
// back too (RE2::ok is false); that is logged at level 2 the first time in the life of the
// process.
std::shared_ptr<const RE2> compiledRegex(std::string_view regex);

}  // namespace drovane
