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

// What stands between the next `quote` from `begin` on and the one after it.
std::string quoted(const std::string& text, std::size_t begin, char quote) {
  const std::size_t first = text.find(quote, begin) + 1;
  return text.substr(first, text.find(quote, first) - first);
}

// Every place behind `part`.
std::vector<std::size_t> placesBehind(const std::string& text, const std::string& part) {
  std::vector<std::size_t> places;
  for (std::size_t at = 0; (at = text.find(part, at)) != std::string::npos;)
    places.push_back(at += part.size());
  return places;
}

// The literals that a source hands to a function, without the end of line.
void collect(Texts& texts, const std::string& source, const std::string& call) {
  for (const std::size_t place : placesBehind(source, call)) {
    if (source[source.find_first_not_of(" \n", place)] != '"') continue;
    const std::string literal = quoted(source, place, '"');
    if (literal.ends_with("\\n")) texts.insert(literal.substr(0, literal.size() - 2));
  }
}

// The texts of one of the sources of the links.
Texts textsOf(const std::string& file) {
  const std::string source = contentOf("src/generic_net/" + file);
  Texts texts;
  collect(texts, source, " report(");
  collect(texts, source, " trace(");
  // The name of the failed call comes from the table of transports.
  texts.erase("%s (errno: %d %s)");
  for (const std::size_t place : placesBehind(source, "&Net::write"))
    texts.insert(quoted(source, place, '"') + " (errno: %d %s)");
  // Settings of an open port are reported behind the name of the line.
  for (const char* part : {"failed to flush serial port: %s (errno: %d %s)",
                           "failed to set serial configuration: %s (errno: %d %s)"}) {
    if (texts.erase(std::string("%s") + part) == 0) continue;
    texts.insert(part);
    texts.insert(std::string("RTS: ") + part);
  }
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
       {"Link.cpp", "Udp.cpp", "Tcp.cpp", "Tls.cpp", "Serial.cpp", "WakeOnLan.cpp"})
    logged.merge(textsOf(source));
  // What is said to the script is the subject of another page.
  std::erase_if(logged, [](const auto& each) { return each.starts_with("notify lua script"); });
  EXPECT_GE(logged.size(), 45U);
  for (const auto& each : logged) EXPECT_TRUE(explained.contains(each)) << each;
}

TEST(LinksManual, ExplainsNoTextThatNoLinkLogs) {
  Texts known;
  for (const char* source : {"Link.cpp", "Udp.cpp", "Tcp.cpp", "Tls.cpp", "Serial.cpp",
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
