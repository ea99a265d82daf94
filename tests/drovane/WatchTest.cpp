// "drovane watch": every message, as a line.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <sstream>

#include "RunningProgram.h"

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

}  // namespace
