// What the subcommands make of answers that a small house seldom gives, or that no drovane gives.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "FakeDrovane.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

const char* const kOk = R"({"ok":true})";

TEST(Answers, OfSomethingElseThanADrovaneAreRefused) {
  for (const char* answer : {"HTTP/1.0 400 Bad Request", "{}", R"({"ok":"yes"})", "[true]"}) {
    const FakeDrovane fake({answer});
    const Finished done = fake.ask({"status"});
    EXPECT_EQ(done.status, 1) << answer;
    EXPECT_EQ(done.output, "") << answer;
    EXPECT_THAT(done.errors, HasSubstr(" is not a drovane's\n")) << answer;
  }
}

TEST(Answers, ARefusalMayHaveNoReason) {
  const FakeDrovane fake({R"({"ok":false})"});
  const Finished done = fake.ask({"send", "5_1_0", "int", "1"});
  EXPECT_EQ(done.status, 1);
  EXPECT_EQ(done.errors, "drovane: refused without a reason\n");
}

TEST(Answers, ADrovaneThatGoesAwayBeforeItsAnswerIsNotRunning) {
  const FakeDrovane fake({});
  const Finished done = fake.ask({"status"});
  EXPECT_EQ(done.status, 3);
  EXPECT_THAT(done.errors, HasSubstr(" has gone away\n"));
}

TEST(Answers, ToARequestForAValueMayBeAText) {
  const FakeDrovane fake(
      {R"({"ok":true,"message":{"type":"MM_CMD_RESPONSE","rsp":"in the cellar"}})"});
  const Finished done = fake.ask({"get", "5_1_0", "string", "--to", "boiler"});
  EXPECT_EQ(done.status, 0);
  EXPECT_EQ(done.output, "in the cellar\n");
  EXPECT_THAT(fake.requests(),
              ElementsAre(R"({"op":"get","key":"5_1_0","type":"string","to":"boiler"})"));
}

TEST(Answers, ToARequestForAValueWithoutOneAreAnEmptyLine) {
  for (const char* answer : {kOk, R"({"ok":true,"message":{"type":"MM_MSG","msg":"x"}})"}) {
    const FakeDrovane fake({answer});
    EXPECT_EQ(fake.ask({"get", "5_1_0", "string", "--to", "boiler"}).output, "\n") << answer;
  }
}

TEST(Answers, ALineEndOfAReplyIsNotDoubled) {
  const FakeDrovane fake({R"({"ok":true,"reply":"one\ntwo\n"})"});
  EXPECT_EQ(fake.ask({"cmd", "boiler", "list"}).output, "one\ntwo\n");
}

TEST(Answers, StatusShowsADrovaneThatHasRunForDays) {
  const FakeDrovane fake({R"({"ok":true,"version":"9","pid":1,"uptime":266400})"});
  EXPECT_THAT(fake.ask({"status"}).output,
              HasSubstr("drovane 9   pid 1   up 3 d 02:00:00   to nobody: 0\n"));
}

std::string statusRowOf(const std::string& fields) {
  const FakeDrovane fake(
      {R"({"ok":true,"roviks":[{"id":5,"name":"n","plug_in":"p",)" + fields + "}]}"});
  const std::string output = fake.ask({"status"}).output;
  const std::size_t row = output.find("    5 n");
  return row == std::string::npos ? output : output.substr(row, output.find('\n', row) - row);
}

std::string rowText(const std::string& link, const std::string& counts) {
  return "    5 n                   p              " + link + " " + counts;
}

TEST(Answers, StatusShowsWhatALinkDoes) {
  const std::string none = "      0       0       0     0";
  EXPECT_EQ(statusRowOf(R"("starting":true)"), rowText("starts ", none));
  EXPECT_EQ(statusRowOf(R"("starting":false)"), rowText("stopped", none));
  EXPECT_EQ(statusRowOf(R"("running":true)"), rowText("closed ", none));
  EXPECT_EQ(statusRowOf(R"("running":true,"link_open":true)"), rowText("open   ", none));
  EXPECT_EQ(statusRowOf(R"("running":true,"link_open":true,"held_back":true)"),
            rowText("waits  ", none));
}

TEST(Answers, StatusRoundsLargeCountsDown) {
  EXPECT_EQ(statusRowOf(R"("queued":999999,"in":1000000,"out":1999999999,"dropped":2)"),
            rowText("stopped", " 999999   1000k   1999M     2"));
  EXPECT_EQ(statusRowOf(R"("queued":5e12,"in":5e15,"out":5e18,"dropped":1e24)"),
            rowText("stopped", "  5000G   5000T   5000P 1000000000P"));
}

TEST(Answers, WatchSaysHowManyMessagesWereNotShown) {
  const FakeDrovane fake({R"({"ok":true,"roviks":[{"id":"x"},{"id":7},{"id":5,"name":"boiler"}]})",
                          std::string(kOk) + "\n{\"dropped\":17}\n" +
                              R"({"type":"MM_DATA","src":5,"key":"5_1_0","value_type":"int",)"
                              R"("value":3,"time":"2026-01-02T03:04:05.678+01:00"})"});
  const Finished done = fake.ask({"watch"});
  EXPECT_EQ(done.output,
            "(17 messages not shown: they came too fast)\n"
            "03:04:05.678 boiler(5) -> everybody data 5_1_0 = 3\n");
  EXPECT_EQ(done.status, 3);
  EXPECT_THAT(fake.requests(), ElementsAre(R"({"op":"status"})", R"({"op":"watch"})"));
}

}  // namespace
