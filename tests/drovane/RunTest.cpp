// "drovane run": starting, going on or not, and stopping in bounded time.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <chrono>

#include "RunningProgram.h"

namespace {

using std::chrono::steady_clock;
using testing::HasSubstr;
using testing::Not;

bool exists(const std::string& path) {
  struct stat facts {};
  return ::lstat(path.c_str(), &facts) == 0;
}

TEST(Run, SaysWhatIsLoadedStartedAndStopped) {
  Program program;
  Process& run = program.startReady(houseWith());
  run.signal(SIGINT);
  EXPECT_EQ(run.wait(), 0);
  for (const char* part :
       {" 3 0 drovane rovik 5 boiler: plug-in echo from " DROVANE_TEST_PLUGINS "/echo.so\n",
        " 3 0 drovane rovik 5 boiler: started\n", " 3 0 drovane rovik 6 other: started\n",
        " 3 0 drovane rovik 5 boiler: stopped\n", " 3 0 drovane rovik 6 other: stopped\n"})
    EXPECT_THAT(run.errors(), HasSubstr(part));
  EXPECT_EQ(run.output(), "");
}

TEST(Run, CountsItsRoviks) {
  Program one;
  EXPECT_TRUE(one.start("rovik 5 boiler echo\n").waitForErrors(one.file() + ": 1 rovik\n"));
  Program two;
  EXPECT_TRUE(two.start(houseWith()).waitForErrors(two.file() + ": 2 roviks\n"));
}

TEST(Run, ClosesAnOpenLinkBeforeItEnds) {
  Program program;
  Process& run = program.startReady(houseWith("  open\n"));
  run.signal(SIGTERM);
  EXPECT_EQ(run.wait(), 0);
  const std::string& log = run.errors();
  ASSERT_THAT(log, HasSubstr(" 3 6 other echo closed its link\n"));
  EXPECT_LT(log.find("echo closed its link"), log.find("6 other echo destroyed"));
}

TEST(Run, RemovesItsControlSocket) {
  Program program;
  Process& run = program.startReady(houseWith());
  EXPECT_TRUE(exists(program.control));
  run.signal(SIGINT);
  EXPECT_EQ(run.wait(), 0);
  EXPECT_FALSE(exists(program.control));
}

TEST(Run, GoesOnAfterACommandThatFails) {
  Program program;
  Process& run = program.startReady(houseWith("  fail\n  nonsense\n"));
  EXPECT_THAT(run.errors(),
              HasSubstr(" 2 0 drovane " + program.file() +
                        ":3: rovik 6 other: 'fail' was answered with ERROR (FAILED)\n"));
  EXPECT_THAT(run.errors(), HasSubstr(program.file() + ":4: rovik 6 other: nothing handled"));
  EXPECT_EQ(program.ask({"cmd", "other", "say", "alive"}).output, "alive\n");
}

TEST(Run, StrictStopsEverythingAtTheFirstFinding) {
  const Program program;
  const Finished done =
      program.runToItsEnd(houseWith("  fail\n  nonsense\nrovik 7 third echo\n"), {"--strict"});
  EXPECT_EQ(done.status, 2);
  EXPECT_THAT(done.errors, HasSubstr("'fail' was answered with ERROR (FAILED)"));
  EXPECT_THAT(done.errors, Not(HasSubstr("nothing handled")));
  EXPECT_THAT(done.errors, HasSubstr("rovik 5 boiler: started"));
  EXPECT_THAT(done.errors, HasSubstr("rovik 5 boiler: stopped"));
  EXPECT_THAT(done.errors, Not(HasSubstr("rovik 7 third: started")));
}

TEST(Run, StartsNothingWhenOnePlugInIsMissing) {
  const Program program;
  const Finished done = program.runToItsEnd(houseWith("rovik 7 third none\n"));
  EXPECT_EQ(done.status, 2);
  EXPECT_THAT(done.errors, HasSubstr(program.file() + ":3: plug-in 'none' was not found"));
  EXPECT_THAT(done.errors, Not(HasSubstr("started")));
}

TEST(Run, RefusesABadConfigurationWithStatus2) {
  const Program program;
  const Finished done = program.runToItsEnd("rovik 5 boiler\n");
  EXPECT_EQ(done.status, 2);
  EXPECT_EQ(done.errors, program.file() +
                             ":1: a word is missing after 'rovik'; expected 'rovik "
                             "ID NAME PLUG-IN'\n");
}

TEST(Run, WritesItsLogToAFile) {
  Program program;
  const std::string file = program.folder / "log";
  Process& run = program.start(houseWith("  fail\n"), {"--log-file", file});
  ASSERT_TRUE(run.waitForErrors(":3: rovik 6 other: 'fail' was answered with ERROR (FAILED)\n"));
  run.signal(SIGTERM);
  EXPECT_EQ(run.wait(), 0);
  EXPECT_THAT(program.folder.read("log"), HasSubstr(" 3 0 drovane rovik 5 boiler: stopped\n"));
}

TEST(Run, RefusesALogFileThatCannotBeOpened) {
  const Program program;
  const Finished done = program.runToItsEnd(houseWith(), {"--log-file", "/proc/none/log"});
  EXPECT_EQ(done.status, 2);
  EXPECT_THAT(done.errors, HasSubstr("log file '/proc/none/log' cannot be opened"));
}

TEST(Run, OptionForTheLogLevelWinsOverTheFile) {
  Program program;
  Process& run = program.start("log level 4\n" + houseWith("  fail\n"), {"--log-level", "2"});
  ASSERT_TRUE(run.waitForErrors("was answered"));
  run.signal(SIGTERM);
  EXPECT_EQ(run.wait(), 0);
  EXPECT_THAT(run.errors(), Not(HasSubstr(" 3 0 drovane ")));
}

TEST(Run, LivesWithARovikThatThrowsFromEverySlot) {
  Program program;
  Process& run = program.startReady(houseWith("rovik 7 bad throws\n"));
  ASSERT_TRUE(run.waitForErrors("exception in selectTI: no timer"));
  EXPECT_EQ(program.ask({"send", "1_2_3", "int", "4", "--to", "bad"}).status, 0);
  ASSERT_TRUE(run.waitForErrors("exception in selectMM: no message"));
  EXPECT_EQ(program.ask({"cmd", "boiler", "say", "alive"}).output, "alive\n");
  run.signal(SIGINT);
  EXPECT_EQ(run.wait(), 0);
  EXPECT_THAT(run.errors(), HasSubstr("rovik 7 bad: stopped"));
}

TEST(Run, IsGoneWithinFiveSecondsAlthoughARovikHangs) {
  Program program;
  Process& run = program.startReady(houseWith("rovik 7 stuck hangs\n"));
  Process request({DROVANE_PROGRAM, "cmd", "stuck", "hang", "--control", program.control},
                  {{"DROVANE_CONTROL", program.control}});
  ASSERT_TRUE(run.waitForErrors("stuck hangs now"));
  const auto begun = steady_clock::now();
  run.signal(SIGTERM);
  EXPECT_EQ(run.wait(), 0);
  EXPECT_LT(steady_clock::now() - begun, std::chrono::seconds(5));
  EXPECT_THAT(run.errors(), HasSubstr(" 2 0 drovane rovik 7 stuck did not end in time\n"));
  EXPECT_THAT(run.errors(), HasSubstr("rovik 5 boiler: stopped"));
  EXPECT_THAT(run.errors(), Not(HasSubstr("rovik 5 boiler did not end")));
  EXPECT_EQ(request.wait(), 3);
}

TEST(Run, IsGoneWithinFiveSecondsAlthoughItsStartHangs) {
  Program program;
  // The one that starts is overtaken by the next, which says when that is so.
  Process& run = program.start("rovik 7 stuck hangs\n  hang\nrovik 5 boiler echo\n");
  ASSERT_TRUE(run.waitForErrors("rovik 5 boiler: started"));
  const auto begun = steady_clock::now();
  run.signal(SIGINT);
  EXPECT_EQ(run.wait(), 0);
  EXPECT_LT(steady_clock::now() - begun, std::chrono::seconds(5));
  EXPECT_THAT(run.errors(), HasSubstr("rovik 7 stuck did not end in time\n"));
  EXPECT_THAT(run.errors(), HasSubstr("rovik 5 boiler: stopped"));
}

TEST(Run, ARovikWhoseDeviceKeepsItWaitingIsOvertakenByTheNext) {
  Program program;
  Process& run = program.start("rovik 7 stuck hangs\n  hang\nrovik 6 other echo\n");
  ASSERT_TRUE(run.waitForErrors("rovik 6 other: started"));
  EXPECT_EQ(program.ask({"cmd", "other", "say", "alive"}).output, "alive\n");
  const Finished refused = program.ask({"cmd", "stuck", "say", "alive"});
  EXPECT_EQ(refused.status, 1);
  EXPECT_THAT(refused.errors, HasSubstr("rovik 7 stuck is starting"));
  EXPECT_THAT(program.ask({"status"}).output,
              HasSubstr("stuck               hangs          starts"));
}

TEST(Run, SecondInterruptWhileStoppingEndsItAtOnce) {
  Program program;
  Process& run = program.start("rovik 7 stuck hangs\n  hang\n");
  ASSERT_TRUE(run.waitForErrors("control socket"));
  const auto begun = steady_clock::now();
  run.signal(SIGINT);
  ASSERT_TRUE(run.waitForErrors("stopping\n"));
  run.signal(SIGINT);
  EXPECT_EQ(run.wait(), 128 + SIGINT);
  EXPECT_LT(steady_clock::now() - begun, std::chrono::seconds(4));
}

}  // namespace
