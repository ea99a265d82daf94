// Holds docs/operation.md against the tests that cause the faults.
#include <gtest/gtest.h>
#include <re2/re2.h>

#include <fstream>
#include <iterator>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "RunningProgram.h"

namespace {

using Texts = std::set<std::string>;

std::string contentOf(const std::string& file) {
  std::ifstream stream(DROVANE_SOURCE_DIR "/" + file);
  EXPECT_TRUE(stream) << file;
  return {std::istreambuf_iterator<char>(stream), {}};
}

// Neighbouring literals are one, as the compiler has it.
std::string sourceOf(const std::string& file) {
  std::string source = contentOf("tests/drovane/" + file);
  RE2::GlobalReplace(&source, R"re("\s*")re", "");
  return source;
}

// The texts in backquotes in the column "what you see".
Texts textsShown() {
  std::istringstream lines(contentOf("docs/operation.md"));
  Texts texts;
  bool faults = false;
  for (std::string line; std::getline(lines, line);) {
    if (line.starts_with("## ")) faults = line == "## Faults";
    if (!faults || !line.starts_with("| ")) continue;
    const std::size_t begin = line.find(" | ") + 3;
    std::istringstream cell(line.substr(begin, line.find(" | ", begin) - begin));
    std::string part;
    for (bool inside = false; std::getline(cell, part, '`'); inside = !inside)
      if (inside) texts.insert(part);
  }
  return texts;
}

// What stands between the places that differ from case to case.
std::vector<std::string> fixedParts(const std::string& text) {
  static const std::string kPlace = "…";
  std::vector<std::string> parts;
  std::size_t begin = 0;
  for (std::size_t end = 0; end != std::string::npos; begin = end + kPlace.size()) {
    end = text.find(kPlace, begin);
    parts.push_back(text.substr(begin, end - begin));
    if (end == std::string::npos) break;
  }
  return parts;
}

TEST(OperationManual, ShowsOnlyTextsThatTheTestsOfTheFaultsExpect) {
  std::string tests;
  for (const char* file :
       {"LimitFaultsTest.cpp", "LogFaultsTest.cpp", "ClockFaultsTest.cpp", "RestartFaultsTest.cpp",
        "ServiceTest.cpp", "WatchdogTest.cpp", "JournalTest.cpp"})
    tests += sourceOf(file);
  const Texts shown = textsShown();
  EXPECT_GE(shown.size(), 18U);
  for (const std::string& text : shown)
    for (const std::string& part : fixedParts(text))
      EXPECT_NE(tests.find(part), std::string::npos) << text << ": " << part;
}

}  // namespace
