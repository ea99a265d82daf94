// cmd, send and get against a running drovane.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "RunningProgram.h"
#include "support/Eventually.h"

namespace {

using testing::HasSubstr;

class Requests : public testing::Test {
 protected:
  // What the rovik has received last, once it is what the test waits for.
  bool lastBecomes(const std::string& rovik, const std::string& expected) const {
    return eventually([&] {
      return program.ask({"cmd", rovik, "last"}).output == expected + "\n";
    });
  }

  Program program;
  Process& run = program.startReady(houseWith("rovik 7 mute hangs\n"));
};

TEST_F(Requests, CmdPrintsTheReply) {
  const Finished done = program.ask({"cmd", "boiler", "say", "hello"});
  EXPECT_EQ(done.status, 0);
  EXPECT_EQ(done.output, "hello\n");
  EXPECT_EQ(done.errors, "");
}

TEST_F(Requests, CmdTakesAnIdToo) {
  EXPECT_EQ(program.ask({"cmd", "6", "say", "hello"}).output, "hello\n");
}

TEST_F(Requests, CmdPassesEveryWordUntouched) {
  const Finished done = program.ask({"cmd", "boiler", "say", "--help", "-x", "--", "[a,b]", "",
                                     "status", "\\r\\n", "a b", "\xff", "--control"});
  EXPECT_EQ(done.status, 0);
  EXPECT_EQ(done.output, "--help|-x|--|[a,b]||status|\\r\\n|a b|\xff|--control\n");
}

TEST_F(Requests, CmdPrintsAnErrorOfTheRovikOnStandardOutputWithStatus1) {
  const Finished done = program.ask({"cmd", "boiler", "fail"});
  EXPECT_EQ(done.status, 1);
  EXPECT_EQ(done.output, "ERROR (FAILED)\n");
  EXPECT_EQ(done.errors, "");
}

TEST_F(Requests, CmdSaysWhenNothingHandledTheWord) {
  const Finished done = program.ask({"cmd", "boiler", "nonsense"});
  EXPECT_EQ(done.status, 1);
  EXPECT_EQ(done.output, "");
  EXPECT_EQ(done.errors,
            "drovane: nothing handled 'nonsense'; expected a command of the rovik's plug-in (some "
            "need its script or an open link)\n");
}

TEST_F(Requests, CmdRefusesAnUnknownRovik) {
  const Finished done = program.ask({"cmd", "nobody", "say"});
  EXPECT_EQ(done.status, 1);
  EXPECT_EQ(done.errors,
            "drovane: there is no rovik 'nobody'; expected a name or an id that 'drovane status' "
            "shows\n");
}

TEST_F(Requests, CmdIsGivenUpWhenTheRovikGivesItNoTurn) {
  Process hanging({DROVANE_PROGRAM, "cmd", "--control", program.control, "mute", "hang"});
  ASSERT_TRUE(run.waitForErrors("mute hangs now"));
  const Finished done = program.ask({"cmd", "mute", "mode"});
  EXPECT_EQ(done.status, 1);
  EXPECT_EQ(done.errors, "drovane: rovik 7 mute: no turn within 5 s, the rovik is busy\n");
}

TEST_F(Requests, SendReachesEverybodyWithoutTo) {
  EXPECT_EQ(program.ask({"send", "5_1_0", "int", "-5"}).status, 0);
  EXPECT_TRUE(lastBecomes("boiler", "data 5_1_0 int -5 from 16382 cli"));
  EXPECT_TRUE(lastBecomes("other", "data 5_1_0 int -5 from 16382 cli"));
  EXPECT_EQ(program.ask({"send", "5_1_0", "int", "-6", "--to", "BC"}).status, 0);
  EXPECT_TRUE(lastBecomes("other", "data 5_1_0 int -6 from 16382 cli"));
}

TEST_F(Requests, SendReachesOneRovikByNameOrId) {
  EXPECT_EQ(program.ask({"send", "5_1_0", "float", "1.5", "--to", "boiler"}).status, 0);
  EXPECT_TRUE(lastBecomes("boiler", "data 5_1_0 float 1.5 from 16382 cli"));
  EXPECT_EQ(program.ask({"send", "--to", "6", "5_1_0", "string", "a b"}).status, 0);
  EXPECT_TRUE(lastBecomes("other", "data 5_1_0 string a b from 16382 cli"));
  EXPECT_TRUE(lastBecomes("boiler", "data 5_1_0 float 1.5 from 16382 cli"));
}

TEST_F(Requests, SendAsksForAValueToBeSet) {
  const Finished done =
      program.ask({"send", "5_0_0", "string", "HEAT=ON", "--to", "boiler", "--actuator"});
  EXPECT_EQ(done.status, 0);
  EXPECT_EQ(done.output, "");
  EXPECT_TRUE(lastBecomes("boiler", "actuator 5_0_0 string HEAT=ON from 16382 cli"));
}

struct Refusal {
  const char* what;
  Arguments arguments;
  const char* error;
};

class Refusals : public Requests, public testing::WithParamInterface<Refusal> {};

TEST_P(Refusals, AreExplainedWithStatus1) {
  const Finished done = program.ask(GetParam().arguments);
  EXPECT_EQ(done.status, 1);
  EXPECT_EQ(done.output, "");
  EXPECT_EQ(done.errors, GetParam().error);
}

INSTANTIATE_TEST_SUITE_P(
    Requests, Refusals,
    testing::Values(
        Refusal{"Key",
                {"send", "5_1", "int", "1"},
                "drovane: key '5_1' is no key; expected three numbers joined by '_', such as "
                "5_1_0\n"},
        Refusal{"Type",
                {"send", "5_1_0", "bool", "1"},
                "drovane: type 'bool' is no value type; expected int, float or string\n"},
        Refusal{"Value",
                {"send", "5_1_0", "int", "warm"},
                "drovane: value 'warm' does not fit the type; expected a whole number from "
                "-2147483648 to 2147483647\n"},
        Refusal{"FloatValue",
                {"send", "5_1_0", "float", "warm"},
                "drovane: value 'warm' does not fit the type; expected a decimal number such as "
                "21.5\n"},
        Refusal{"Destination",
                {"send", "5_1_0", "int", "1", "--to", "nobody"},
                "drovane: there is no rovik 'nobody'; expected a name or an id that 'drovane "
                "status' shows\n"},
        Refusal{"DestinationId",
                {"get", "5_1_0", "int", "--to", "16383"},
                "drovane: there is no rovik '16383'; expected a name or an id that 'drovane "
                "status' shows\n"}),
    [](const auto& each) { return each.param.what; });

TEST_F(Requests, GetPrintsTheAnswer) {
  const Finished done = program.ask({"get", "5_1_0", "float", "--to", "boiler"});
  EXPECT_EQ(done.status, 0);
  EXPECT_EQ(done.output, "21.5\n");
}

TEST_F(Requests, GetGivesUpWithoutAnAnswer) {
  const Finished done = program.ask({"get", "5_1_0", "float", "--to", "mute"});
  EXPECT_EQ(done.status, 1);
  EXPECT_EQ(done.errors, "drovane: rovik 7 mute: no answer to the request within 5 s\n");
}

TEST_F(Requests, OneRequestThatWaitsDoesNotKeepOthersWaiting) {
  Process waiting(
      {DROVANE_PROGRAM, "get", "--control", program.control, "1_1_1", "int", "--to", "mute"});
  EXPECT_EQ(program.ask({"get", "5_1_0", "float", "--to", "boiler"}).output, "21.5\n");
  EXPECT_EQ(waiting.wait(), 1);
}

TEST_F(Requests, LogLevelIsShownAndSetWhileTheHouseRuns) {
  EXPECT_EQ(program.ask({"log-level"}).output, "3\n");
  EXPECT_EQ(program.ask({"log-level", "2"}).output, "2\n");
  program.ask({"cmd", "boiler", "log", "unheard"});
  const Finished done = program.ask({"log-level", "4"});
  EXPECT_EQ(done.status, 0);
  EXPECT_EQ(done.output, "4\n");
  EXPECT_EQ(program.ask({"log-level"}).output, "4\n");
  ASSERT_TRUE(run.waitForErrors(" 3 0 drovane log level set to 4\n"));
  EXPECT_THAT(run.errors(), testing::Not(HasSubstr("unheard")));
}

TEST_F(Requests, LogLevelRefusesWhatIsNone) {
  const Finished done = program.ask({"log-level", "5"});
  EXPECT_EQ(done.status, 2);
  EXPECT_THAT(done.errors, HasSubstr("LEVEL: 5 not in {2,3,4}"));
}

}  // namespace
