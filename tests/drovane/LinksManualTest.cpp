// Holds docs/links.md against the sources of the links and against "drovane check".
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <set>
#include <sstream>

#include "RunningProgram.h"

namespace {

using Texts = std::set<std::string>;

std::string contentOf(const std::string& file) {
  std::ifstream stream(DROVANE_SOURCE_DIR "/" + file);
  EXPECT_TRUE(stream) << file;
  return {std::istreambuf_iterator<char>(stream), {}};
}

std::string manual() { return contentOf("docs/links.md"); }

// The texts that one of the sources of the links logs: its literals that end a line.
Texts textsOf(const std::string& file) {
  std::istringstream parts(contentOf("src/generic_net/" + file));
  Texts texts;
  std::string part;
  for (bool inside = false; std::getline(parts, part, '"'); inside = !inside)
    if (inside && part.ends_with("\\n")) texts.insert(part.substr(0, part.size() - 2));
  // What the command "test" sends, and what is said to and about the script.
  std::erase_if(texts, [](const auto& text) {
    return text == "TEST" || text.starts_with("notify lua script") ||
           text.starts_with("lua ROVIK_");
  });
  return texts;
}

// The texts in the first column of the tables of reports.
Texts textsExplained() {
  std::istringstream lines(manual());
  Texts texts;
  bool reports = false;
  for (std::string line; std::getline(lines, line);) {
    if (line.starts_with("## ")) reports = line == "## Reports, causes and cures";
    if (!reports || !line.starts_with("| `")) continue;
    std::istringstream cell(line.substr(0, line.find(" | ")));
    std::string part;
    for (bool inside = false; std::getline(cell, part, '`'); inside = !inside)
      if (inside) texts.insert(part);
  }
  return texts;
}

TEST(LinksManual, ExplainsEveryTextThatALinkLogs) {
  const Texts explained = textsExplained();
  Texts logged = {"connection closed by peer %s:%d",
                  "request message ignored as socket not connected"};
  for (const char* source :
       {"Link.cpp", "Udp.cpp", "Tcp.cpp", "Tls.cpp", "Serial.cpp", "Trial.cpp", "WakeOnLan.cpp"})
    logged.merge(textsOf(source));
  EXPECT_GE(logged.size(), 45U);
  for (const auto& each : logged) EXPECT_TRUE(explained.contains(each)) << each;
}

TEST(LinksManual, ExplainsNoTextThatNoLinkLogs) {
  Texts known;
  for (const char* source : {"Link.cpp", "Udp.cpp", "Tcp.cpp", "Tls.cpp", "Serial.cpp", "Trial.cpp",
                             "WakeOnLan.cpp", "Inbound.cpp", "Outbound.cpp"})
    known.merge(textsOf(source));
  for (const char* line : {"RTS", "DTR"})
    for (const char* verb : {"set", "clear"})
      known.insert("could not " + std::string(verb) + ' ' + line);
  const Texts explained = textsExplained();
  for (const auto& each : explained) EXPECT_TRUE(known.contains(each)) << each;
}

TEST(LinksManual, EveryConfigurationIsAcceptedAndWhole) {
  const Program program;
  std::istringstream lines(manual());
  std::string config;
  int count = 0;
  bool inside = false;
  for (std::string line; std::getline(lines, line);) {
    if (inside && line == "```") {
      const Finished done = program.check(config);
      EXPECT_EQ(done.output, program.file() + ": ok, 1 rovik\n") << config;
      EXPECT_EQ(done.errors, "");
      inside = false;
      ++count;
    } else if (line == "```drovane") {
      inside = true;
      config.clear();
    } else if (inside) {
      config += line + '\n';
    }
  }
  EXPECT_GE(count, 7);
}

}  // namespace
