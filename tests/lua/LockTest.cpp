// The lock around what scripts call: who holds it, how long, and who does not need it.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <future>
#include <iterator>
#include <utility>

#include "ScriptTest.h"
#include "support/Eventually.h"
#include "support/TestRovik.h"

namespace {

using testing::IsEmpty;

bool isDone(const std::future<std::string>& result) {
  return result.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
}

// One call on a thread of its own.
class Caller {
 public:
  explicit Caller(std::function<std::string()> call)
      : result(std::async(std::launch::async, [this, call = std::move(call)] {
          thread = ::gettid();
          return call();
        })) {}

  // True when the call is held up; false when it comes to its end instead.
  bool isHeldUp() const {
    EXPECT_TRUE(eventually([this] { return isDone(result) || sleeps(); }));
    return !isDone(result);
  }
  std::string get() { return result.get(); }

 private:
  bool sleeps() const {
    std::ifstream file("/proc/self/task/" + std::to_string(thread) + "/stat");
    const std::string facts{std::istreambuf_iterator<char>(file), {}};
    const std::size_t state = facts.rfind(") ");
    return state != std::string::npos && facts.compare(state + 2, 1, "S") == 0;
  }

  std::atomic<pid_t> thread{0};
  std::future<std::string> result;
};

struct Call {
  const char* function;
  const char* arguments;
  const char* results;
  const char* line;  // the last one that it logs; "" for none
};

class EachFunction : public ScriptTest, public testing::WithParamInterface<Call> {};

TEST_P(EachFunction, WaitsUntilTheLockIsFreeAndFreesItAgain) {
  script("");
  std::unique_ptr<Caller> caller;
  {
    const MutexLock lock(net->luaLock);
    caller = std::make_unique<Caller>([this] {
      return lua("return tostring((" + std::string(GetParam().function) + GetParam().arguments +
                 "))");
    });
    EXPECT_TRUE(caller->isHeldUp());
    EXPECT_THAT(newLines(), IsEmpty());
  }
  EXPECT_EQ(GetParam().results, caller->get());
  const Texts lines = newLines();
  EXPECT_EQ(GetParam().line, lines.empty() ? "" : lines.back());
  EXPECT_TRUE(net->lockIsFree());
}

const char kNoDestination[] = "4 LUA: could not decode destination id";
const char kNoReply[] = "4 got no reply message!";

INSTANTIATE_TEST_SUITE_P(
    Lock, EachFunction,
    testing::Values(Call{"print", "('x')", "nil", "3 LUA: x"}, Call{"escape", "('\\n')", "\\n", ""},
                    Call{"unescape", "('x')", "x", ""}, Call{"gettimeofday", "().none", "nil", ""},
                    Call{"sndDATA", "('5_1_0', 'int', 1, 'BC')", "nil",
                         "3 LUA: DATA 5_1_0 as broadcast"},
                    Call{"sndDATA_REQUEST", "('5_1_0', 'int', 'BC')", "nil",
                         "3 LUA: DATA_REQUEST 5_1_0 as broadcast"},
                    Call{"sndACTUATOR_REQUEST", "('5_1_0', 'int', 1, 'BC')", "nil",
                         "3 LUA: ACTUATOR_REQUEST 5_1_0 as broadcast"},
                    Call{"sndMSG", "(1, 'x')", "nil", kNoDestination},
                    Call{"sndCMD", "('x', {})", "nil", kNoDestination},
                    Call{"sndMM", "({type='MM_MSG'}, {})", "nil", kNoDestination},
                    Call{"getDATA", "('5_1_0', 'int', {})", "nil", kNoReply},
                    Call{"getCMD", "('x', {})", "nil", kNoReply},
                    Call{"getMM", "({type='MM_CMD_REQUEST'}, {})", "nil", kNoReply}),
    [](const auto& each) { return std::string(each.param.function); });

class Lock : public ScriptTest {};

TEST_F(Lock, IsHeldAsLongAsARequestWaitsForItsAnswer) {
  script("function ask() return getDATA('9_1_0', 'string', 9).value end");
  const auto meter = TestRovik::make(9, "meter");
  Gate gate;
  meter->on_message = [&](RovikMessage* msg) {
    gate.pass();
    const auto answer = to(msg->src, newText("21.5"));
    answer->seqnr = msg->seqnr;
    meter->messageSnd(answer.get());
  };
  meter->run();
  net->run();
  auto asking = std::async(std::launch::async, [this] { return net->command({"ask"}); });
  ASSERT_TRUE(gate.waitForVisitor());
  Caller other([this] {
    const MutexLock lock(net->luaLock);
    return "had it";
  });
  EXPECT_TRUE(other.isHeldUp());
  EXPECT_FALSE(isDone(asking));
  gate.open();
  EXPECT_EQ("21.5", asking.get());
  EXPECT_EQ("had it", other.get());
}

TEST_F(Lock, IsNotNeededByEventsCommandsAndTheLifeOfTheScript) {
  script(
      "function ROVIK_RCV() return 1000000 end ROVIK_RCVIO, ROVIK_PERIODIC = ROVIK_RCV, ROVIK_RCV "
      "ROVIK_RCVOPEN, ROVIK_RCVCLOSE = ROVIK_RCV, ROVIK_RCV function word() return 'done' end");
  TcpPeer peer;
  const MutexLock lock(net->luaLock);
  auto other = std::async(std::launch::async, [&] {
    openTo(peer);
    net->selectMM(newNote("x").get());
    char line[] = "x";
    net->rcvData(line, 1);
    net->selectTI();
    net->closeGeneric();
    lua_settop(net->lua_state, 0);
    const std::string reply = net->command({"word"});
    return reply + ' ' + net->command({"luarestart"}) + ' ' + net->command({"luaclose"});
  });
  ASSERT_EQ(std::future_status::ready, other.wait_for(kPatienceOfTests));
  EXPECT_EQ("done OK OK", other.get());
}

}  // namespace
