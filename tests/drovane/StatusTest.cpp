// "drovane status" for people and for programs.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <sstream>

#include "RunningProgram.h"
#include "drovane/StatusText.h"
#include "support/Eventually.h"
#include "support/PeerTcp.h"

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
  EXPECT_THAT(lines, testing::Contains(
                         MatchesRegex("      ! [0-9-]+ [0-9:]+ \\(2x, [0-9.]+ s ago\\) second")));
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

// A boiler on a real link.
class StatusOfALink : public testing::Test {
 protected:
  StatusOfALink() {
    program.startReady("rovik 5 boiler generic_net\n  host 127.0.0.1\n  port " +
                       std::to_string(peer.port()) +
                       "\n  chopeol on\n  persist on\n  open\nrovik 6 other echo\n");
    peer.accept();
  }

  // Waits until the rovik has heard so many lines.
  void hear(const std::string& bytes, const std::string& lines) {
    peer.send(bytes);
    ASSERT_TRUE(eventually([&] { return field(program.statusOf(5), "units_in") == lines; }));
  }

  TcpPeer peer;
  Program program;
};

TEST_F(StatusOfALink, ShowsSinceWhenItIsOpenAndWhatCameAndWentLast) {
  hear("T=21.3\nT=21.4\n", "2");
  program.ask({"send", "5_0_0", "string", "HEAT=ON\\n", "--to", "boiler", "--actuator"});
  EXPECT_EQ(peer.receive(8), "HEAT=ON\n");
  const auto lines = linesOf(program.ask({"status"}).output);
  ASSERT_GE(lines.size(), 8U);
  EXPECT_THAT(lines[5], MatchesRegex("      open for 00:00:[0-9]+"));
  EXPECT_THAT(lines[6], MatchesRegex("      < 2 \\(14 bytes\\), [0-9.]+ s ago: T=21.4"));
  EXPECT_THAT(lines[7], MatchesRegex("      > 1 \\(8 bytes\\), [0-9.]+ s ago: HEAT=ON\\\\n"));
}

TEST_F(StatusOfALink, ShowsWhatWasDroppedWithoutAnEnd) {
  hear("T=21.3\n", "1");
  peer.send(std::string(4096, 'x'));
  EXPECT_TRUE(eventually([&] { return field(program.statusOf(5), "units_dropped") == "1"; }));
  EXPECT_THAT(program.ask({"status"}).output, HasSubstr("      < 1 (4103 bytes), 1 dropped, "));
}

TEST_F(StatusOfALink, ShowsSinceWhenItIsClosed) {
  peer.close();
  ASSERT_TRUE(eventually([&] { return field(program.statusOf(5), "link_open") == "false"; }));
  EXPECT_THAT(program.ask({"status"}).output, HasSubstr("      closed for 00:00:0"));
}

TEST_F(StatusOfALink, OfOneRovikIsTheWholeDetail) {
  hear("T=21.3\n", "1");
  const Finished done = program.ask({"status", "boiler"});
  EXPECT_EQ(done.status, 0);
  const auto lines = linesOf(done.output);
  ASSERT_EQ(lines.size(), 12U);
  EXPECT_EQ(lines[0], "5 boiler");
  EXPECT_EQ(lines[1], "plug-in      generic_net");
  EXPECT_THAT(lines[2], MatchesRegex("link         open for 00:00:[0-9]+"));
  EXPECT_EQ(lines[3], "received     1 line, 7 bytes, 0 dropped");
  EXPECT_THAT(lines[4], MatchesRegex("  last       [0-9.]+ s ago: T=21.3"));
  EXPECT_EQ(lines[5], "sent         0 writes, 0 bytes");
  EXPECT_EQ(lines[6], "messages     0 in, 1 out, 0 waiting, 0 dropped");
  EXPECT_EQ(lines[7], "script       off");
  EXPECT_THAT(lines[8], MatchesRegex("timer        in [0-9]+ s"));
  EXPECT_EQ(lines[9], "warning      none");
  EXPECT_EQ(lines[10], "description");
  EXPECT_EQ(lines[11], "  network_id 5");
}

TEST_F(StatusOfALink, JsonHasTheFiguresOfTheLink) {
  hear("T=21.3\n", "1");
  const drovane::Json row = program.statusOf(5);
  EXPECT_EQ(field(row, "bytes_in"), "7");
  EXPECT_EQ(field(row, "last_in"), "\"T=21.3\"");
  EXPECT_THAT(field(row, "last_in_seconds"), MatchesRegex("[0-9.]+"));
  EXPECT_THAT(field(row, "link_seconds"), MatchesRegex("[0-9.]+"));
  EXPECT_EQ(field(row, "bytes_out"), "0");
  EXPECT_EQ(field(row, "units_out"), "0");
  EXPECT_EQ(field(row, "last_out"), "missing");
  EXPECT_EQ(field(row, "last_out_seconds"), "missing");
  EXPECT_EQ(field(row, "units_dropped"), "0");
  EXPECT_EQ(field(row, "script_memory"), "0");
  EXPECT_THAT(field(row, "timer_seconds"), MatchesRegex("[0-9.]+"));
}

TEST(Status, ARovikThatNeverHadALinkHasNoFiguresOfOne) {
  Program program;
  program.startReady(houseWith());
  const drovane::Json row = program.statusOf(5);
  EXPECT_EQ(field(row, "link_seconds"), "missing");
  EXPECT_EQ(field(row, "bytes_in"), "missing");
  EXPECT_THAT(program.ask({"status", "5"}).output, HasSubstr("link         closed, never open\n"));
}

TEST(Status, ShowsTheMemoryAndTheTimerOfAScript) {
  Program program;
  std::filesystem::create_directory(program.folder / "lua");
  program.folder.write("lua/plain.lua", "function ROVIK_INIT(me) m_p = me return 20000000 end");
  program.startReady("rovik 5 boiler generic_net\n  luafile plain.lua\n  luaopen\n");
  EXPECT_THAT(linesOf(program.ask({"status"}).output),
              testing::Contains(MatchesRegex("      script [0-9]+ bytes, timer in [0-9]+ s")));
  EXPECT_THAT(program.ask({"status", "boiler"}).output,
              testing::ContainsRegex("script       on, [0-9]+ bytes\n"));
}

TEST(Status, OfARovikShowsItsWarningWithItsAgeAndHowOften) {
  Program program;
  program.startReady(houseWith("  warn first\n  warn second\n"));
  EXPECT_THAT(program.ask({"status", "other"}).output,
              testing::ContainsRegex("warning      second\n  last       [0-9-]+ [0-9:]+, "
                                     "[0-9.]+ s ago, 2 so far\n"));
}

TEST(Status, RefusesARovikThatIsNotThere) {
  Program program;
  program.startReady(houseWith());
  const Finished done = program.ask({"status", "nobody"});
  EXPECT_EQ(done.status, 1);
  EXPECT_EQ(done.errors,
            "drovane: there is no rovik 'nobody'; expected a name or an id that 'drovane status' "
            "shows\n");
}

TEST(StatusAge, IsShortAndInTheUnitThatFits) {
  using drovane::ageText;
  EXPECT_EQ(ageText(-1), "0.0 s");
  EXPECT_EQ(ageText(0.44), "0.4 s");
  EXPECT_EQ(ageText(9.96), "10 s");
  EXPECT_EQ(ageText(119), "119 s");
  EXPECT_EQ(ageText(121), "2 min");
  EXPECT_EQ(ageText(7199), "119 min");
  EXPECT_EQ(ageText(7201), "2 h");
  EXPECT_EQ(ageText(2 * 86400.0 - 1), "47 h");
  EXPECT_EQ(ageText(2 * 86400.0 + 1), "2 d");
}

}  // namespace
