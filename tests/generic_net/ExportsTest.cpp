// What the plug-in and the framework's library show to the dynamic linker.
#include <fnmatch.h>
#include <gmock/gmock.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "support/Process.h"

namespace {

using Names = std::set<std::string>;

const std::string kPlugIn = DROVANE_PLUGINS "/generic_net.so";
const std::string kFramework = DROVANE_PLUGINS "/../libdrovane.so";

bool isNumber(const std::string& word) {
  return word.find_first_not_of("0123456789abcdef") == std::string::npos;
}

// The name in a line NAME TYPE [VALUE [SIZE]], where a name may hold blanks, a type is one letter
// and the rest is hexadecimal.
std::string nameIn(const std::string& line) {
  std::istringstream stream(line);
  const std::vector<std::string> words{std::istream_iterator<std::string>(stream), {}};
  std::string name;
  for (auto word = words.begin(); word != words.end(); ++word) {
    if (!name.empty() && word->size() == 1 && std::all_of(word + 1, words.end(), isNumber)) break;
    name += (name.empty() ? "" : " ") + *word;
  }
  return name;
}

// The dynamic symbols of a library, as C++ names.
Names symbolsOf(const std::string& library, const char* which) {
  const Finished nm = runToEnd({"nm", "-D", "-C", "-f", "posix", which, library});
  EXPECT_EQ(0, nm.status) << nm.errors;
  Names names;
  std::istringstream lines(nm.output);
  for (std::string line; std::getline(lines, line);) names.insert(nameIn(line));
  return names;
}

// The patterns under "global:" of a version script.
std::vector<std::string> patternsOf(const std::string& script) {
  std::ifstream file(DROVANE_SOURCE_DIR "/src/" + script);
  EXPECT_TRUE(file) << script;
  std::vector<std::string> patterns;
  bool global = false;
  for (std::string line; std::getline(file, line);) {
    line.erase(0, line.find_first_not_of(' '));
    if (line == "global:") global = true;
    if (line == "local:") global = false;
    if (!global || line.empty() || line[0] == '#' || line.back() != ';' || line == "};") continue;
    line.pop_back();
    if (line.front() == '"') line = line.substr(1, line.size() - 2);
    patterns.push_back(line);
  }
  return patterns;
}

bool matches(const std::string& pattern, const std::string& name) {
  return pattern == name || fnmatch(pattern.c_str(), name.c_str(), 0) == 0;
}

bool matchesAny(const std::vector<std::string>& patterns, const std::string& name) {
  return std::any_of(patterns.begin(), patterns.end(),
                     [&](const auto& pattern) { return matches(pattern, name); });
}

TEST(PlugInExports, MakerAndNothingElse) {
  EXPECT_EQ(Names{"maker"}, symbolsOf(kPlugIn, "--defined-only"));
  EXPECT_EQ(std::vector<std::string>{"maker"}, patternsOf("generic_net/plug-in.map"));
}

TEST(PlugInExports, FrameworkIsLeftToWhoeverLoadsIt) {
  const Names wanted = symbolsOf(kPlugIn, "--undefined-only");
  const Names offered = symbolsOf(kFramework, "--defined-only");
  const auto contract = patternsOf("framework/framework.map");
  std::size_t of_the_framework = 0;
  for (const auto& name : wanted) {
    if (!matchesAny(contract, name)) continue;
    ++of_the_framework;
    EXPECT_TRUE(offered.contains(name)) << name;
    EXPECT_FALSE(name.starts_with("drovane::")) << name << " is not the contract's";
  }
  EXPECT_GT(of_the_framework, 10U);
  for (const char* name : {"Rovik::Rovik()", "Rovik::messageSnd(RovikMessage*)", "Drovane::global",
                           "RovikMessage::destroy(RovikMessage*)"})
    EXPECT_TRUE(wanted.contains(name)) << name;
}

TEST(FrameworkExports, NothingButItsList) {
  const auto contract = patternsOf("framework/framework.map");
  for (const auto& name : symbolsOf(kFramework, "--defined-only"))
    EXPECT_TRUE(matchesAny(contract, name)) << name;
}

TEST(FrameworkExports, EveryEntryOfItsList) {
  const Names offered = symbolsOf(kFramework, "--defined-only");
  for (const auto& pattern : patternsOf("framework/framework.map")) {
    // A lock's guard is inline in its header: nothing of it need be in the library.
    if (pattern == "MutexLock::*") continue;
    EXPECT_TRUE(std::any_of(offered.begin(), offered.end(), [&](const auto& name) {
      return matches(pattern, name);
    })) << pattern;
  }
}

}  // namespace
