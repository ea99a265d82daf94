// "drovane watch": every message, as a line.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <sstream>

#include "RunningProgram.h"
#include "support/Eventually.h"

namespace {

using testing::ContainsRegex;
using testing::HasSubstr;
using testing::Not;

TEST(Watch, ShowsWhoSendsWhatToWhom) {
  Program program;
  program.startReady(houseWith());
  const auto watcher = program.watch();
  program.ask({"cmd", "boiler", "tell", "21.5\x1b"});
  ASSERT_TRUE(watcher->waitForOutput(" boiler(5) -> everybody data 5_1_0 = \"21.5\\x1b\"\n"));
  program.ask({"send", "5_0_0", "int", "1", "--to", "other", "--actuator"});
  ASSERT_TRUE(watcher->waitForOutput(" cli(16382) -> other(6) actuator 5_0_0 = 1\n"));
  program.ask({"get", "5_1_0", "float", "--to", "6"});
  ASSERT_TRUE(watcher->waitForOutput(" cli(16382) -> other(6) data request 5_1_0 (float)\n"));
  ASSERT_TRUE(watcher->waitForOutput(" other(6) -> cli(16382) data 5_1_0 = 21.5\n"));
  EXPECT_THAT(watcher->output(),
              ContainsRegex("[0-9][0-9]:[0-9][0-9]:[0-9][0-9]\\.[0-9][0-9][0-9] boiler"));
}

TEST(Watch, UsesNoColourWithoutATerminal) {
  Program program;
  program.startReady(houseWith());
  EXPECT_THAT(program.watch()->output(), Not(HasSubstr("\x1b")));
}

TEST(Watch, JsonIsOneObjectALineWithTheTime) {
  Program program;
  program.startReady(houseWith());
  const auto watcher = program.watch({"--json"});
  program.ask({"cmd", "boiler", "tell", "warm"});
  ASSERT_TRUE(watcher->waitForOutput("\"warm\""));
  ASSERT_TRUE(watcher->waitForOutput("}\n"));
  watcher->signal(SIGINT);
  EXPECT_EQ(watcher->wait(), 0);
  std::istringstream lines(watcher->output());
  for (std::string line; std::getline(lines, line);) {
    const drovane::Json json(cJSON_Parse(line.c_str()));
    ASSERT_TRUE(cJSON_IsObject(json.get())) << line;
    const cJSON* time = cJSON_GetObjectItemCaseSensitive(json.get(), "time");
    ASSERT_TRUE(cJSON_IsString(time)) << line;
    EXPECT_THAT(time->valuestring, ContainsRegex("T..:..:..\\....[+-]..:..$"));
  }
}

TEST(Watch, EndsWithStatus0OnEitherSignal) {
  Program program;
  program.startReady(houseWith());
  for (const int signal : {SIGINT, SIGTERM}) {
    const auto watcher = program.watch();
    watcher->signal(signal);
    EXPECT_EQ(watcher->wait(), 0);
  }
}

TEST(Watch, EndsWithStatus3WhenDrovaneGoesAway) {
  Program program;
  Process& run = program.startReady(houseWith());
  const auto watcher = program.watch();
  run.signal(SIGINT);
  EXPECT_EQ(watcher->wait(), 3);
  EXPECT_EQ(watcher->errors(), "drovane: the drovane at " + program.control + " has gone away\n");
}

TEST(Watch, EndsWhenNobodyTakesWhatItShows) {
  Program program;
  program.startReady(houseWith());
  Process watcher({"/bin/sh", "-c", "exec \"$0\" watch > /dev/full", DROVANE_PROGRAM},
                  {{"DROVANE_CONTROL", program.control}});
  ASSERT_TRUE(eventually([&] {
    program.ask({"send", "9_9_9", "int", "1"});
    return watcher.errors().find("cannot be written") != std::string::npos;
  }));
  EXPECT_EQ(watcher.wait(), 2);
  EXPECT_EQ(watcher.errors(), "drovane: standard output cannot be written any more\n");
}

// What a filter lets through, up to a message that every filter of the test lets through.
class FilteredWatch : public testing::Test {
 protected:
  // "other" tells 5_1_0, then "boiler" does, then the command line sends an actuator 7_2_0.
  std::string shown(const Arguments& options) {
    const Arguments sign = {"send", "9_9_9", "int", "1", "--to", "boiler"};
    const auto watcher = program.watch(options, sign);
    program.ask({"cmd", "other", "tell", "a"});
    program.ask({"cmd", "boiler", "tell", "b"});
    program.ask({"send", "7_2_0", "int", "3", "--to", "boiler", "--actuator"});
    program.ask({"send", "9_9_9", "int", "4", "--to", "boiler"});
    EXPECT_TRUE(watcher->waitForOutput("9_9_9 = 4"));
    std::string shown;
    for (const char* text : {"= \"a\"", "= \"b\"", "7_2_0 = 3"})
      if (watcher->output().find(text) != std::string::npos) shown += text[text[0] == '7' ? 8 : 3];
    return shown;
  }

  Program program;
  Process& run = program.startReady(houseWith());
};

TEST_F(FilteredWatch, ShowsEverythingWithoutAWish) { EXPECT_EQ(shown({}), "ab3"); }

TEST_F(FilteredWatch, ShowsWhatARovikSendsAndIsSent) {
  EXPECT_EQ(shown({"--rovik", "boiler"}), "b3");
  EXPECT_EQ(shown({"--rovik", "5"}), "b3");
  EXPECT_EQ(shown({"--rovik", "6", "--rovik", "cli"}), "a3");
}

TEST_F(FilteredWatch, ShowsAKind) {
  EXPECT_EQ(shown({"--kind", "data"}), "ab");
  EXPECT_EQ(shown({"--kind", "actuator", "--kind", "data"}), "ab3");
}

TEST_F(FilteredWatch, ShowsKeysThatMatchAPattern) {
  EXPECT_EQ(shown({"--key", "[79]_*"}), "3");
  EXPECT_EQ(shown({"--key", "[79]*[0-9]"}), "3");
  EXPECT_EQ(shown({"--key", "5_1_0", "--key", "9_*"}), "ab");
}

TEST_F(FilteredWatch, ShowsWhatPassesAll) {
  EXPECT_EQ(shown({"--rovik", "boiler", "--kind", "data", "--key", "*"}), "b");
}

TEST_F(FilteredWatch, RefusesAKindThatThereIsNot) {
  const Finished done = program.ask({"watch", "--kind", "nonsense"});
  EXPECT_EQ(done.status, 2);
  EXPECT_THAT(done.errors, HasSubstr("--kind: nonsense not in {empty,data,data-request,"));
}

TEST_F(FilteredWatch, RefusesARovikThatIsNotThere) {
  const Finished done = program.ask({"watch", "--rovik", "nobody"});
  EXPECT_EQ(done.status, 1);
  EXPECT_EQ(done.errors,
            "drovane: there is no rovik 'nobody'; expected a name or an id that 'drovane status' "
            "shows\n");
}

}  // namespace
