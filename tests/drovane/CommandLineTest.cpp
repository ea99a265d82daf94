// The command line itself: help, version, usage errors, and what happens when nothing runs.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "RunningProgram.h"

namespace {

using testing::HasSubstr;

TEST(CommandLine, TellsItsVersion) {
  const Finished done = Program().ask({"--version"});
  EXPECT_EQ(done.status, 0);
  EXPECT_EQ(done.output, "drovane 0.1.0\n");
}

class EachSubcommand : public testing::TestWithParam<const char*> {};

TEST_P(EachSubcommand, HasHelpWithAnExample) {
  const Finished done = Program().ask({GetParam(), "--help"});
  EXPECT_EQ(done.status, 0);
  EXPECT_THAT(done.output, HasSubstr("Example: drovane " + std::string(GetParam())));
}

TEST_P(EachSubcommand, RefusesAnUnknownOption) {
  const Finished done = Program().ask({GetParam(), "--frobnicate"});
  EXPECT_EQ(done.status, 2);
  EXPECT_NE(done.errors, "");
}

INSTANTIATE_TEST_SUITE_P(CommandLine, EachSubcommand,
                         testing::Values("run", "check", "try", "cmd", "send", "get", "status",
                                         "watch", "trace", "replay", "log-level", "reload"),
                         [](const auto& each) {
                           std::string name = each.param;
                           std::replace(name.begin(), name.end(), '-', '_');
                           return name;
                         });

class WrongUsage : public testing::TestWithParam<Arguments> {};

TEST_P(WrongUsage, EndsWithStatus2) {
  const Finished done = Program().ask(GetParam());
  EXPECT_EQ(done.status, 2);
  EXPECT_EQ(done.output, "");
  EXPECT_NE(done.errors, "");
}

INSTANTIATE_TEST_SUITE_P(
    CommandLine, WrongUsage,
    testing::Values(Arguments{}, Arguments{"fly"}, Arguments{"run"}, Arguments{"run", "a", "b"},
                    Arguments{"run", "a", "--log-level", "5"}, Arguments{"cmd"},
                    Arguments{"cmd", "boiler"}, Arguments{"send", "1_2_3", "int"},
                    Arguments{"get", "1_2_3", "int"}, Arguments{"status", "boiler", "now"},
                    Arguments{"trace"}, Arguments{"trace", "boiler", "now"},
                    Arguments{"trace", "boiler", "--force"},
                    Arguments{"replay", "a", "--port", "1", "--link", "b"}, Arguments{"replay"},
                    Arguments{"replay", "a", "--port", "65536"},
                    Arguments{"replay", "a", "--speed", "-1"}, Arguments{"reload", "house.conf"}));

TEST(CommandLine, NamesAnUnknownSubcommand) {
  const Finished done = Program().ask({"staus"});
  EXPECT_EQ(done.status, 2);
  EXPECT_THAT(done.errors, HasSubstr("unknown subcommand 'staus'; expected one of run, check, "));
}

TEST(CommandLine, NamesAnUnexpectedWord) {
  EXPECT_EQ(Program().ask({"run", "a", "b"}).errors,
            "unexpected: b\nRun with --help for more information.\n");
}

class WithoutAnybodyRunning : public testing::TestWithParam<Arguments> {};

TEST_P(WithoutAnybodyRunning, EndsWithStatus3AndThePathThatWasTried) {
  const Program program;
  const Finished done = program.ask(GetParam());
  EXPECT_EQ(done.status, 3);
  EXPECT_EQ(done.output, "");
  EXPECT_EQ(done.errors,
            "drovane: no running drovane at " + program.control + ": No such file or directory\n");
}

INSTANTIATE_TEST_SUITE_P(CommandLine, WithoutAnybodyRunning,
                         testing::Values(Arguments{"cmd", "boiler", "open"},
                                         Arguments{"send", "1_2_3", "int", "4"},
                                         Arguments{"get", "1_2_3", "int", "--to", "boiler"},
                                         Arguments{"status"}, Arguments{"watch"},
                                         Arguments{"trace", "boiler"}, Arguments{"reload"}));

TEST(CommandLine, LooksForTheControlSocketInTheRuntimeFolder) {
  const TempFolder folder;
  const Finished done = runToEnd({DROVANE_PROGRAM, "status"},
                                 {{"DROVANE_CONTROL", ""}, {"XDG_RUNTIME_DIR", folder.path()}});
  EXPECT_THAT(done.errors, HasSubstr("no running drovane at " + (folder / "drovane.sock") + ":"));
}

// What gets as far as this was understood.
TEST(CommandLine, ANegativeNumberIsAValue) {
  for (const char* value : {"-5", "-.5", "-0"})
    EXPECT_EQ(Program().ask({"send", "5_1_0", "float", value}).status, 3) << value;
}

TEST(CommandLine, BehindTwoDashesEverythingIsAValue) {
  EXPECT_EQ(Program().ask({"send", "--actuator", "--", "5_1_0", "string", "--to"}).status, 3);
  EXPECT_EQ(Program().ask({"send", "--", "5_1_0", "string", "--"}).status, 3);
}

TEST(CommandLine, AnOptionWithoutItsValueIsWrongUsage) {
  EXPECT_EQ(Program().ask({"status", "--control"}).status, 2);
}

TEST(CommandLine, OptionForTheControlSocketGoesFirst) {
  const Finished done = Program().ask({"status", "--control", "/nowhere/socket"});
  EXPECT_EQ(done.status, 3);
  EXPECT_THAT(done.errors, HasSubstr("no running drovane at /nowhere/socket:"));
}

}  // namespace
