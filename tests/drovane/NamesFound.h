// Names that a document or a program mentions.
#pragma once

#include <re2/re2.h>

#include <set>
#include <string>

using Names = std::set<std::string>;

// Every first group of the expression in the text, which is gone through line by line.
inline Names foundIn(const std::string& text, const std::string& expression) {
  const RE2 pattern("(?m)" + expression);
  Names names;
  std::string name;
  for (re2::StringPiece rest(text); RE2::FindAndConsume(&rest, pattern, &name);) names.insert(name);
  return names;
}
