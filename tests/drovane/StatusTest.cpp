// "drovane status" for people and for programs.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>

#include "RunningProgram.h"

namespace {

using testing::Each;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;

std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  return lines;
}

std::string field(const drovane::Json& row, const char* name) {
  cJSON* item = cJSON_GetObjectItemCaseSensitive(row.get(), name);
  return item != nullptr ? drovane::jsonLine(item) : "missing";
}

TEST(Status, ShowsEachRovikInOneRow) {
  Program program;
  program.startReady(houseWith("  open\n"));
  const Finished done = program.ask({"status"});
  EXPECT_EQ(done.status, 0);
  const auto lines = linesOf(done.output);
  ASSERT_GE(lines.size(), 6U);
  EXPECT_THAT(lines[0], MatchesRegex("drovane 0\\.1\\.0   pid [0-9]+   up 00:00:[0-9]+   "
                                     "to nobody: 0"));
  EXPECT_EQ(lines[1], "configuration " + program.file());
  EXPECT_EQ(lines[3],
            "   ID NAME                PLUG-IN        LINK     QUEUED      IN     OUT  "
            "DROP");
  EXPECT_THAT(lines[4], MatchesRegex("    5 boiler +echo +closed +0 +0 +0 +0"));
  EXPECT_THAT(lines[5], MatchesRegex("    6 other +echo +open +0 +0 +0 +0"));
}

TEST(Status, FitsEightyColumnsWhateverTheNamesAndWarnings) {
  Program program;
  program.startReady("rovik 16000 " + std::string(64, 'n') + " echo\n  warn '" +
                     std::string(200, 'w') + " " + std::string(100, 'x') + "'\n");
  const auto lines = linesOf(program.ask({"status"}).output);
  EXPECT_GT(lines.size(), 8U);
  EXPECT_THAT(lines, Each(testing::SizeIs(testing::Le(80))));
}

TEST(Status, ShowsTheLastWarningWithItsTimeAndCount) {
  Program program;
  program.startReady(houseWith("  warn first\n  warn second\n"));
  const auto lines = linesOf(program.ask({"status"}).output);
  EXPECT_THAT(lines, testing::Contains(MatchesRegex("      ! [0-9-]+ [0-9:]+ \\(2x\\) second")));
}

TEST(Status, KeepsControlBytesFromTheTerminal) {
  Program program;
  program.startReady(houseWith());
  program.ask({"cmd", "boiler", "warn", "\x1b[2Jhello\xc2\x9b"});
  const Finished done = program.ask({"status"});
  EXPECT_THAT(done.output, HasSubstr("\\x1b[2Jhello"));
  EXPECT_THAT(done.output, Not(HasSubstr("\x1b")));
  EXPECT_THAT(done.output, Not(HasSubstr("\xc2\x9b")));
}

TEST(Status, JsonHasOneObjectALineWithAllFields) {
  Program program;
  program.startReady(houseWith("  open\n  warn careful\n"));
  const Finished done = program.ask({"status", "--json"});
  ASSERT_EQ(linesOf(done.output).size(), 2U);
  const drovane::Json row = program.statusOf(6);
  ASSERT_TRUE(row);
  EXPECT_EQ(field(row, "name"), "\"other\"");
  EXPECT_EQ(field(row, "plug_in"), "\"echo\"");
  EXPECT_EQ(field(row, "type"), "0");
  EXPECT_EQ(field(row, "running"), "true");
  EXPECT_EQ(field(row, "link_open"), "true");
  EXPECT_EQ(field(row, "held_back"), "false");
  EXPECT_EQ(field(row, "queued"), "0");
  EXPECT_EQ(field(row, "in"), "0");
  EXPECT_EQ(field(row, "out"), "0");
  EXPECT_EQ(field(row, "dropped"), "0");
  EXPECT_EQ(field(row, "warning"), "\"careful\"");
  EXPECT_THAT(field(row, "warning_time"), MatchesRegex("\"[0-9-]+T[0-9:]+\\.000[+-][0-9:]+\""));
  EXPECT_EQ(field(row, "warning_count"), "1");
  EXPECT_EQ(field(row, "description"), "{\"network_id\":6}");
}

TEST(Status, CountsMessages) {
  Program program;
  program.startReady(houseWith());
  program.ask({"cmd", "boiler", "tell", "x"});
  EXPECT_EQ(field(program.statusOf(5), "out"), "1");
  EXPECT_EQ(field(program.statusOf(6), "in"), "1");
}

}  // namespace
