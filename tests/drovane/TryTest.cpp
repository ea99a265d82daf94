// "drovane try": lines in, messages out, without a device.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <string>

#include "RunningProgram.h"
#include "support/PeerTcp.h"
#include "support/Sanitizers.h"

namespace {

using testing::HasSubstr;
using testing::Not;

constexpr const char* kRules =
    "rovik 5 boiler generic_net\n"
    "  host 127.0.0.1\n"
    "  port 1\n"
    "  chopeol on\n"
    "  unparsedout off\n"
    "  reg on\n"
    "  regin 5_1_0 '^T=(.*)$' '\\1'\n"
    "  open\n";

class Try : public testing::Test {
 protected:
  Try() { std::filesystem::create_directory(program.folder / "lua"); }

  Finished tryLines(const std::string& config, const Arguments& lines,
                    const Arguments& options = {}) const {
    Arguments arguments = {"try", program.folder.write("house.conf", config), "boiler"};
    arguments.insert(arguments.end(), lines.begin(), lines.end());
    arguments.insert(arguments.end(), options.begin(), options.end());
    return program.ask(arguments);
  }
  // The boiler with a script in which this event function does something.
  std::string scripted(const std::string& function, const std::string& body) const {
    program.folder.write("lua/boiler.lua",
                         "function ROVIK_INIT(me) m_p = me end\n"
                         "function ROVIK_RCV() end\nfunction ROVIK_RCVIO() end\n"
                         "function ROVIK_RCVOPEN() end\nfunction ROVIK_RCVCLOSE() end\n"
                         "function ROVIK_PERIODIC() end\n"
                         "function " +
                             function + " " + body + " end\n");
    return std::string(kRules) + "  luafile boiler.lua\n  luaopen\n";
  }

  const Program program;
};

TEST_F(Try, ShowsTheMessagesThatBecomeOfEachLine) {
  const Finished done = tryLines(kRules, {"T=21.3", "T=21.4"});
  EXPECT_EQ(done.output,
            "T=21.3\n"
            "  boiler(5) -> everybody data 5_1_0 = \"21.3\"\n"
            "T=21.4\n"
            "  boiler(5) -> everybody data 5_1_0 = \"21.4\"\n");
  EXPECT_EQ(done.errors, "");
  EXPECT_EQ(done.status, 0);
}

TEST_F(Try, ALineOfWhichNothingComesGivesStatus1) {
  const Finished done = tryLines(kRules, {"T=21.3", "nonsense"});
  EXPECT_THAT(done.output, HasSubstr("nonsense\n  nothing\n"));
  EXPECT_EQ(done.status, 1);
}

TEST_F(Try, TakesTheLinesOfItsInput) {
  const std::string file = program.folder.write("house.conf", kRules);
  const std::string lines = program.folder.write("lines", "T=1\nT=2\n");
  const Finished done = runToEnd(
      {"/bin/sh", "-c", "exec \"$0\" try \"$1\" 5 < \"$2\"", DROVANE_PROGRAM, file, lines});
  EXPECT_EQ(done.output,
            "T=1\n  boiler(5) -> everybody data 5_1_0 = \"1\"\n"
            "T=2\n  boiler(5) -> everybody data 5_1_0 = \"2\"\n");
  EXPECT_EQ(done.status, 0);
}

TEST_F(Try, EscapesInALineAreBytes) {
  const Finished done = tryLines("rovik 5 boiler generic_net\n  chopeol on\n", {"a\\x00b\\\\c"});
  EXPECT_THAT(done.output, HasSubstr("data 5_0_0 = \"a\\x00b\\\\c\"\n"));
}

TEST_F(Try, ALineInBracketsIsOneLine) {
  const Finished done = tryLines("rovik 5 boiler generic_net\n  chopeol on\n", {"[1,2]", "[]"});
  EXPECT_EQ(done.output,
            "[1,2]\n  boiler(5) -> everybody data 5_0_0 = \"[1,2]\"\n"
            "[]\n  boiler(5) -> everybody data 5_0_0 = \"[]\"\n");
}

TEST_F(Try, TheConfiguredEndOfLineIsAdded) {
  const Finished done = tryLines("rovik 5 boiler generic_net\n  eolin \\r\\n\n", {"AB"});
  EXPECT_THAT(done.output, HasSubstr("data 5_0_0 = \"AB\\r\\n\"\n"));
}

TEST_F(Try, OpensNoLinkButItsOwn) {
  const TcpPeer peer;
  for (const char* mode : {"udp", "tcp", "ssl", "tty"}) {
    const Finished done =
        tryLines("rovik 5 boiler generic_net\n  mode " + std::string(mode) +
                     "\n  host 127.0.0.1\n  port " + std::to_string(peer.port()) + "\n  open\n",
                 {"AB"});
    EXPECT_THAT(done.output, HasSubstr("data 5_0_0 = \"AB")) << mode;
    EXPECT_EQ(done.status, 0) << mode << done.errors;
  }
  EXPECT_FALSE(peer.linkWaits());
}

TEST_F(Try, DatagramsAndRawUnitsHaveNoEnd) {
  EXPECT_THAT(tryLines("rovik 5 boiler generic_net\n  mode udp\n", {"AB", "CD"}).output,
              HasSubstr("= \"AB\"\nCD\n  boiler(5) -> everybody data 5_0_0 = \"CD\"\n"));
  EXPECT_THAT(tryLines("rovik 5 boiler generic_net\n  raw on\n", {"AB"}).output,
              HasSubstr("= \"AB\"\n"));
}

TEST_F(Try, AUnitThatEndsWithTheLinkIsFollowedByANewLink) {
  const Finished done = tryLines("rovik 5 boiler generic_net\n  eolclose on\n", {"AB", "CD"});
  EXPECT_EQ(done.output,
            "AB\n  boiler(5) -> everybody data 5_0_0 = \"AB\"\n"
            "CD\n  boiler(5) -> everybody data 5_0_0 = \"CD\"\n");
  EXPECT_EQ(done.status, 0) << done.errors;
}

TEST_F(Try, ShowsWhatAScriptWritesToTheDevice) {
  const Finished done =
      tryLines(scripted("ROVIK_RCVIO(line)", "sndIO('GOT ' .. line .. '\\\\n')") + "  persist on\n",
               {"T=21.3"});
  EXPECT_THAT(done.output, HasSubstr("  -> device \"GOT T=21.3\\n\"\n"));
  EXPECT_EQ(done.status, 0);
}

TEST_F(Try, ALinkThatTheRovikClosesIsOpenedAgainForTheNextLine) {
  const Finished done =
      tryLines(scripted("ROVIK_RCVIO(line)", "sndIO('OK')"), {"T=21.3", "T=21.4"});
  EXPECT_THAT(done.output, HasSubstr("data 5_1_0 = \"21.4\"\n  -> device \"OK\"\n"));
  EXPECT_EQ(done.status, 0);
}

TEST_F(Try, AScriptErrorIsShownAndGivesStatus1) {
  const Finished done =
      tryLines(scripted("ROVIK_RCVIO(line)", "error('what is ' .. line)"), {"T=21.3"});
  EXPECT_THAT(done.errors, HasSubstr("what is T=21.3"));
  EXPECT_EQ(done.status, 1);
}

TEST_F(Try, OtherRoviksOfTheFileAreReachedAndSilent) {
  const std::string config =
      scripted("ROVIK_RCVIO(line)", "sndACTUATOR_REQUEST('6_1_0', 'string', 'ON', 'lamp')") +
      "rovik 6 lamp generic_net\n  open\n";
  const Finished done = tryLines(config, {"T=21.3"});
  EXPECT_THAT(done.output, HasSubstr("  boiler(5) -> lamp actuator 6_1_0 = \"ON\"\n"));
  EXPECT_EQ(done.errors, "");
}

TEST_F(Try, ShowsWhatTheStartHasBrought) {
  const Finished done =
      tryLines(scripted("ROVIK_RCVOPEN()", "sndDATA('5_9_0', 'string', 'UP', 'BC')"), {"T=1"});
  EXPECT_THAT(done.output, testing::StartsWith("T=1\n  boiler(5) -> everybody data 5_1_0"));
  const Finished later = tryLines(
      scripted("ROVIK_RCVOPEN()", "sndDATA('5_9_0', 'string', 'UP', 'BC')") + "  close\n  open\n",
      {"T=1"});
  EXPECT_THAT(later.output,
              testing::StartsWith("(start)\n  boiler(5) -> everybody data 5_9_0 = \"UP\"\nT=1\n"));
}

TEST_F(Try, GoesOnAfterTheLastLineWhenToldTo) {
  const std::string config = scripted("ROVIK_RCVIO(line)",
                                      "return 10000 end function ROVIK_PERIODIC() "
                                      "sndDATA('5_8_0', 'string', 'late', 'BC') return 20000000");
  EXPECT_THAT(tryLines(config, {"T=1"}, {"--for", "2"}).output,
              HasSubstr("(later)\n  boiler(5) -> everybody data 5_8_0 = \"late\"\n"));
}

// More than a link holds that nobody reads.
TEST_F(Try, TakesAllThatAScriptWrites) {
  for (const char* event : {"ROVIK_RCVIO(line)", "ROVIK_RCVOPEN()"}) {
    const std::string config = scripted(
        event,
        "for i = 1, 1000 do sndIO(string.rep('x', 1000)) end sndDATA('5_9_0', 'string', 'DONE', "
        "'BC')");
    const Finished done = tryLines(config + "  persist on\n  close\n  open\n", {"T=1"});
    EXPECT_THAT(done.output, HasSubstr("data 5_9_0 = \"DONE\"\n")) << event;
    EXPECT_EQ(std::count(done.output.begin(), done.output.end(), 'x'), 1'000'000) << event;
    EXPECT_EQ(done.status, 0) << done.errors;
  }
}

TEST_F(Try, ARequestThatNobodyAnswersBelongsToItsLine) {
  const std::string config =
      scripted("ROVIK_RCVIO(line)",
               "getDATA('6_1_0', 'string', 'lamp') sndDATA('5_9_0', 'string', 'NONE', 'BC')") +
      "rovik 6 lamp generic_net\n";
  const Finished done = tryLines(config, {"T=1"});
  EXPECT_THAT(done.output, HasSubstr("data 5_9_0 = \"NONE\"\n"));
  EXPECT_EQ(done.errors, "");
  EXPECT_EQ(done.status, 0);
}

// More messages than wait for a receiver before whoever sends them no longer reads its link.
TEST_F(Try, ShowsWhatTheTimerBringsWhileThereIsNoLineYet) {
  const std::string config =
      scripted("ROVIK_PERIODIC()",
               "for i = 1, 100 do sndDATA('5_8_0', 'string', 'tick', 'BC') end "
               "return 1000 end function ROVIK_RCVIO() return 1000");
  const Finished done = runToEnd(
      {"/bin/sh", "-c",
       "cd \"$2\"; (echo T=1; until test $(grep -c tick out) -gt 5000; do sleep 0.01; done; echo "
       "T=2)"
       " | \"$0\" try \"$1\" 5 > out; status=$?; grep -v tick out; exit $status",
       DROVANE_PROGRAM, program.folder.write("house.conf", config), program.folder.path()});
  EXPECT_THAT(done.output, HasSubstr("(later)\n"));
  EXPECT_THAT(done.output, HasSubstr("T=2\n  boiler(5) -> everybody data 5_1_0 = \"2\"\n"));
  EXPECT_EQ(done.errors, "");
  EXPECT_EQ(done.status, 0);
}

TEST_F(Try, ARovikThatDoesNotComeBackEndsIt) {
  const Finished done = tryLines(scripted("ROVIK_RCVIO()", "while true do end"), {"T=1", "T=2"});
  EXPECT_THAT(done.errors, HasSubstr("drovane: the rovik has not taken the line 'T=1'"));
  EXPECT_THAT(done.errors, Not(HasSubstr("'T=2'")));
  EXPECT_EQ(done.status, 1);
}

TEST_F(Try, AConfigurationThatDoesNotComeBackEndsIt) {
  const Finished done =
      tryLines(scripted("ROVIK_RCVOPEN()", "while true do end") + "  close\n  open\n", {"T=1"});
  EXPECT_EQ(done.errors, "rovik 5 boiler has not come to the end of its configuration in time\n");
  EXPECT_EQ(done.status, 2);
}

TEST_F(Try, AnEndThatDoesNotComeEndsIt) {
  const Finished done = tryLines(scripted("ROVIK_RCVCLOSE()", "while true do end"), {"T=1"});
  EXPECT_EQ(done.errors, "drovane: the rovik did not end in time\n");
  EXPECT_EQ(done.status, 1);
}

TEST_F(Try, AScriptThatEndsTheProcessIsNoSuccess) {
  SKIP_WHEN_SANITIZED("tells of the threads that are left behind");
  const Finished done = tryLines(scripted("ROVIK_RCVIO()", "os.exit(0)"), {"T=1"});
  EXPECT_EQ(done.errors, "drovane: the script has ended the process\n");
  EXPECT_EQ(done.status, 1);
}

TEST_F(Try, JsonIsOneObjectALine) {
  const Finished done = tryLines(kRules, {"T=21.3"}, {"--json"});
  const drovane::Json object(cJSON_Parse(done.output.c_str()));
  ASSERT_TRUE(cJSON_IsObject(object.get())) << done.output;
  EXPECT_THAT(done.output, testing::StartsWith("{\"line\":\"T=21.3\",\"messages\":[{\"type\":"
                                               "\"MM_DATA\","));
  EXPECT_THAT(done.output, testing::EndsWith("}],\"to_device\":\"\"}\n"));
}

TEST_F(Try, WritesWhatAScriptPrintsAtLogLevel3) {
  const std::string config = scripted("ROVIK_RCVIO(line)", "print('heard ' .. line)");
  EXPECT_THAT(tryLines(config, {"T=1"}).errors, Not(HasSubstr("heard")));
  EXPECT_THAT(tryLines(config, {"T=1"}, {"--log-level", "3"}).errors,
              HasSubstr(" 3 5 boiler LUA: heard T=1\n"));
}

TEST_F(Try, TheLinesOfASerialPortAreSetWithoutOne) {
  const Finished done =
      tryLines("rovik 5 boiler generic_net\n  mode tty\n  open\n  rts on\n  dtr on\n", {"AB"});
  EXPECT_EQ(done.errors, "");
  EXPECT_EQ(done.status, 0);
}

TEST_F(Try, WritesWhatAScriptPrintsAtTheStart) {
  const std::string config = scripted("ROVIK_INIT(me)", "m_p = me print('begun')");
  EXPECT_THAT(tryLines(config, {"T=1"}, {"--log-level", "3"}).errors,
              HasSubstr(" 3 5 boiler LUA: begun\n"));
}

TEST_F(Try, ARovikThatIsNotInTheFileIsRefused) {
  const std::string file = program.folder.write("house.conf", "rovik 6 lamp generic_net\n");
  const Finished done = program.ask({"try", file, "boiler", "T=1"});
  EXPECT_EQ(done.status, 2);
  EXPECT_EQ(done.errors, file +
                             ":1: there is no rovik 'boiler'; expected the name or the id of one "
                             "in this file\n");
}

TEST_F(Try, AWrongCommandIsReportedWithItsLine) {
  const Finished done = tryLines("rovik 5 boiler generic_net\n  mode nonsense\n", {"T=1"});
  EXPECT_EQ(done.status, 2);
  EXPECT_THAT(done.errors, HasSubstr("house.conf:2: rovik 5 boiler: 'mode nonsense' was answered"));
}

TEST_F(Try, ARovikThatTakesNoTrialLinkIsNamed) {
  const Finished done =
      tryLines("rovik 5 boiler echo\n", {"T=1"}, {"--plugins", DROVANE_TEST_PLUGINS});
  EXPECT_EQ(done.status, 1);
  EXPECT_THAT(done.errors, HasSubstr("drovane: the rovik has not taken the line 'T=1'; expected an "
                                     "open link and an answer within 5 s\n"));
}

}  // namespace
