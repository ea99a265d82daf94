// Single operations of the control socket, without the socket.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <optional>
#include <string>
#include <vector>

#include "Drovane.h"
#include "faults/MemoryFaults.h"
#include "framework/Clock.h"
#include "framework/ControlOperations.h"
#include "framework/ControlWatch.h"
#include "framework/Router.h"
#include "support/Message.h"
#include "support/TempFolder.h"

namespace {

using drovane::ConfigFile;
using drovane::ControlOperations;
using drovane::ControlWatch;
using drovane::House;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr std::uint64_t kClient = 1;
constexpr std::uint64_t kOther = 2;

// Roviks 5 and 6 are made and do not run.
class ControlOperationsTest : public testing::Test {
 protected:
  ControlOperationsTest() {
    drovane::PluginLoader loader({DROVANE_TEST_PLUGINS});
    if (!house.make(loader)) throw std::runtime_error("the house cannot be made");
  }

  ConfigFile config() const {
    folder.write("house.conf", "rovik 5 boiler echo\nrovik 6 lamp echo\n");
    return ConfigFile::read(folder / "house.conf");
  }

  // The reply; "later" when it comes later.
  std::string perform(const std::string& line, std::uint64_t client = kClient) {
    return operations.perform(client, line).value_or("later");
  }
  // What has come in since, behind the number of its client.
  std::vector<std::string> collect() {
    std::vector<std::string> answers;
    operations.collect([&](std::uint64_t client, const std::string& line) {
      answers.push_back(std::to_string(client) + ' ' + line);
    });
    return answers;
  }
  // What reaches the command line's address.
  static void answerWith(const RovikMessage& msg) {
    drovane::Outbox outbox(
        std::make_shared<drovane::Mailbox>(7, "answerer", std::make_shared<drovane::Waker>()));
    EXPECT_EQ(outbox.sendNow(msg), 1);
  }

  const TempFolder folder;
  House house{config(), [](const std::string&) {}};
  const std::shared_ptr<drovane::Waker> waker = std::make_shared<drovane::Waker>();
  ControlWatch watch{waker};
  drovane::ControlTrace trace{waker, [](const std::string&, std::shared_ptr<drovane::LinkTap>) {}};
  ControlOperations operations{house, "1.2.3", watch, trace, waker};
};

std::string refusal(const std::string& error) { return R"({"ok":false,"error":")" + error + "\"}"; }

const char* const kSend = R"({"op":"send","key":"5_1_0","type":"int","value":"1"})";
const char* const kGet = R"({"op":"get","key":"5_1_0","type":"int","to":"boiler"})";

TEST_F(ControlOperationsTest, AMessageForWhichThereIsNoMemoryIsRefused) {
  const NoRecords gone(MM_DATA);
  EXPECT_EQ(perform(kSend), refusal("there is no memory for a message"));
}

TEST_F(ControlOperationsTest, AMessageThatCannotBeCopiedIsRefused) {
  NoRecords gone(MM_DATA);
  gone.spareOne();
  EXPECT_EQ(perform(kSend), refusal("the message could not be delivered"));
}

TEST_F(ControlOperationsTest, ARequestThatCannotBeCopiedIsRefusedAndNotWaitedFor) {
  {
    NoRecords gone(MM_DATA_REQUEST);
    gone.spareOne();
    EXPECT_EQ(perform(kGet), refusal("the request could not be delivered to rovik 5 boiler"));
  }
  EXPECT_FALSE(operations.nextDeadline().has_value());
}

TEST_F(ControlOperationsTest, ACommandForARovikThatDoesNotRunIsRefused) {
  EXPECT_EQ(perform(R"({"op":"cmd","rovik":"5","words":["say","x"]})"),
            refusal("rovik 5 boiler does not run; expected it to be started"));
  EXPECT_FALSE(operations.nextDeadline().has_value());
}

TEST_F(ControlOperationsTest, OnlyAnAnswerWithTheRequestsNumberAnswersIt) {
  EXPECT_EQ(perform(kGet), "later");
  ASSERT_TRUE(operations.nextDeadline().has_value());
  const std::uint32_t asked = drovane::Router::global().nextSeqnr() - 1;
  auto answer = to(drovane::kCommandLineId, newText("warm"));
  answer->setKey("5_1_0");
  answer->seqnr = asked + 1000;
  answerWith(*answer);
  auto note = to(drovane::kCommandLineId, newNote("warm"));
  note->seqnr = asked;
  answerWith(*note);
  EXPECT_TRUE(operations.waiting());
  EXPECT_THAT(collect(), IsEmpty());
  EXPECT_FALSE(operations.waiting());
  answer->seqnr = asked;
  answerWith(*answer);
  const auto answers = collect();
  ASSERT_EQ(answers.size(), 1U);
  EXPECT_THAT(answers[0], testing::StartsWith(R"(1 {"ok":true,"message":{"type":"MM_DATA",)"));
  EXPECT_FALSE(operations.nextDeadline().has_value());
}

TEST_F(ControlOperationsTest, EachRequestIsOverdueForItsOwnClient) {
  EXPECT_EQ(perform(kGet), "later");
  EXPECT_EQ(perform(kGet, kOther), "later");
  EXPECT_THAT(collect(), IsEmpty());
  operations.forget(kClient);
  drovane::Clock::skip(6 * drovane::Clock::kNanosecondsPerSecond);
  EXPECT_THAT(collect(),
              ElementsAre("2 " + refusal("rovik 5 boiler: no answer to the request within 5 s")));
  EXPECT_FALSE(operations.nextDeadline().has_value());
}

struct BadRequest {
  const char* name;
  const char* line;
  const char* error;
};

class BadOperation : public ControlOperationsTest,
                     public testing::WithParamInterface<BadRequest> {};

TEST_P(BadOperation, IsExplained) {
  EXPECT_EQ(perform(GetParam().line), refusal(GetParam().error));
}

INSTANTIATE_TEST_SUITE_P(
    ControlOperations, BadOperation,
    testing::Values(
        BadRequest{"KeyIsNone", R"({"op":"send","key":"5_1","type":"int","value":"1"})",
                   "key '5_1' is no key; expected three numbers joined by '_', such as 5_1_0"},
        BadRequest{"TypeIsNone", R"({"op":"send","key":"5_1_0","type":"bool","value":"1"})",
                   "type 'bool' is no value type; expected int, float or string"},
        BadRequest{"ValueIsNoInt", R"({"op":"send","key":"5_1_0","type":"int","value":"x"})",
                   "value 'x' does not fit the type; expected a whole number from -2147483648 to "
                   "2147483647"},
        BadRequest{"ValueIsNoFloat", R"({"op":"send","key":"5_1_0","type":"float","value":"x"})",
                   "value 'x' does not fit the type; expected a decimal number such as 21.5"},
        BadRequest{"ReceiverIsNobody",
                   R"({"op":"send","key":"5_1_0","type":"int","value":"1","to":"cellar"})",
                   "there is no rovik 'cellar'; expected a name or an id that 'drovane status' "
                   "shows"},
        BadRequest{"ReceiverIsANumber",
                   R"({"op":"send","key":"5_1_0","type":"int","value":"1","to":6})",
                   "'to' is no text; expected a text, or no such field"},
        BadRequest{"AWordIsANumber", R"({"op":"cmd","rovik":"5","words":["say",1]})",
                   R"(a word is no text; expected the words of a command, such as )"
                   R"([\"mode\",\"tcp\"])"}),
    [](const auto& each) { return each.param.name; });

TEST_F(ControlOperationsTest, ALogLevelThatIsNoneIsRefused) {
  EXPECT_EQ(
      perform(R"({"op":"log-level","level":"5"})"),
      refusal("unknown log level '5'; expected 2 (errors), 3 (events too) or 4 (everything)"));
  EXPECT_EQ(Drovane::global.logLevel(), LOG_LEVEL_INFO);
}

TEST_F(ControlOperationsTest, AFilterHasToBeOne) {
  EXPECT_EQ(perform(R"({"op":"watch","kinds":["MM_NONSENSE"]})"),
            refusal("unknown kind 'MM_NONSENSE'; expected a type such as MM_DATA"));
  EXPECT_EQ(perform(R"({"op":"watch","keys":"5_1_0"})"),
            refusal("'keys' is no list of texts; expected one, or no such field"));
  EXPECT_EQ(perform(R"({"op":"watch","roviks":[5]})"),
            refusal("'roviks' is no list of texts; expected one, or no such field"));
  EXPECT_EQ(perform(R"({"op":"watch","roviks":["nobody"]})"),
            refusal("there is no rovik 'nobody'; expected a name or an id that 'drovane status' "
                    "shows"));
  EXPECT_TRUE(watch.clients().empty());
}

TEST_F(ControlOperationsTest, StatusOfOneRovikHasOneRow) {
  const std::string reply = perform(R"({"op":"status","rovik":"lamp"})");
  EXPECT_NE(reply.find(R"("name":"lamp")"), std::string::npos);
  EXPECT_EQ(reply.find(R"("name":"boiler")"), std::string::npos);
}

TEST_F(ControlOperationsTest, BriefStatusLeavesOutTheDescriptionAndWhatIsFalseZeroOrEmpty) {
  const std::string reply = perform(R"({"op":"status","rovik":"lamp","brief":true})");
  EXPECT_THAT(reply, EndsWith(R"("roviks":[{"id":6,"name":"lamp","plug_in":"echo"}]})"));
  EXPECT_THAT(perform(R"({"op":"status","rovik":"lamp","brief":false})"),
              HasSubstr(R"("plug_in":"echo","type":0,"starting":false,)"));
  EXPECT_EQ(perform(R"({"op":"status","brief":1})"),
            refusal("'brief' is neither true nor false; expected one of them"));
}

// The library of JSON gets all it asks for but one block, and this process's own code everything.
class NoJsonMemory {
 public:
  explicit NoJsonMemory(int the_block) {
    left = the_block;
    cJSON_Hooks hooks{allocate, std::free};
    cJSON_InitHooks(&hooks);
  }
  ~NoJsonMemory() { cJSON_InitHooks(nullptr); }
  NoJsonMemory(const NoJsonMemory&) = delete;
  NoJsonMemory& operator=(const NoJsonMemory&) = delete;

  static bool struck() { return left < 0; }

 private:
  static void* allocate(std::size_t size) { return left-- == 0 ? nullptr : std::malloc(size); }

  static inline int left = 0;
};

std::string rowsOf(const std::string& reply) {
  const std::size_t at = reply.find(R"("roviks":)");
  return at != std::string::npos ? reply.substr(at) : "";
}

TEST_F(ControlOperationsTest, AStatusForWhichThereIsNoMemoryIsRefused) {
  const char* const request = R"({"op":"status"})";
  const std::string rows = rowsOf(perform(request));
  ASSERT_THAT(rows, HasSubstr("lamp"));
  int refused = 0;
  for (int block = 0;; ++block) {
    SCOPED_TRACE(block);
    std::string reply;
    {
      const NoJsonMemory gone(block);
      reply = perform(request);
      if (!NoJsonMemory::struck()) break;
    }
    if (reply == refusal("there is no memory for an answer; expected another try later")) {
      ++refused;
    } else if (reply.find(R"("ok":true)") != std::string::npos) {
      EXPECT_EQ(rowsOf(reply), rows);
    }
  }
  EXPECT_GT(refused, 0);
}

}  // namespace
