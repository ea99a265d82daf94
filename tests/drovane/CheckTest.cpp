// "drovane check": every finding, and nothing started.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "RunningProgram.h"

namespace {

using testing::HasSubstr;
using testing::StartsWith;

TEST(Check, CountsTheRoviksOfAGoodFile) {
  const Program program;
  const Finished done = program.check(houseWith("  say hello\n"));
  EXPECT_EQ(done.status, 0);
  EXPECT_EQ(done.output, program.file() + ": ok, 2 roviks\n");
  EXPECT_EQ(done.errors, "");
}

TEST(Check, ReportsEveryErrorAndEveryUnhandledWordWithItsLine) {
  const Program program;
  const Finished done = program.check(houseWith("  fail\n  say x\n  nonsense 1 2\n"));
  EXPECT_EQ(done.status, 2);
  EXPECT_EQ(done.output, "");
  EXPECT_EQ(done.errors,
            program.file() + ":3: rovik 6 other: 'fail' was answered with ERROR (FAILED)\n" +
                program.file() +
                ":5: rovik 6 other: nothing handled 'nonsense 1 2'; expected a command of echo "
                "(some need the script or an open link)\n");
}

TEST(Check, ReportsAnExceptionOfACommandWithItsLine) {
  const Program program;
  const Finished done = program.check("rovik 5 bad throws\n  go\n");
  EXPECT_EQ(done.status, 2);
  EXPECT_THAT(done.errors,
              HasSubstr(program.file() + ":2: rovik 5 bad: 'go' was answered with ERROR"));
}

class BadPlugIn : public testing::TestWithParam<const char*> {};

TEST_P(BadPlugIn, IsReportedWithItsLineAndTheOthersAreCheckedAllTheSame) {
  const Program program;
  const Finished done =
      program.check("\nrovik 4 bad " + std::string(GetParam()) + "\n" + houseWith("  fail\n"));
  EXPECT_EQ(done.status, 2);
  EXPECT_THAT(done.errors,
              StartsWith(program.file() + ":2: plug-in '" + std::string(GetParam()) + "' "));
  EXPECT_THAT(done.errors, HasSubstr(program.file() + ":5: rovik 6 other: 'fail' was answered"));
}

INSTANTIATE_TEST_SUITE_P(Check, BadPlugIn,
                         testing::Values("none", "no_maker", "null_maker", "throwing_maker",
                                         "unresolved"),
                         [](const auto& each) { return std::string(each.param); });

TEST(Check, RefusesAFileThatCannotBeRead) {
  const Program program;
  const Finished done = program.ask({"check", program.folder / "none.conf"});
  EXPECT_EQ(done.status, 2);
  EXPECT_THAT(done.errors, StartsWith((program.folder / "none.conf") + ":1: "));
}

TEST(Check, LeavesNoControlSocketBehind) {
  const Program program;
  program.check(houseWith());
  struct stat facts {};
  EXPECT_NE(::stat(program.control.c_str(), &facts), 0);
}

}  // namespace
