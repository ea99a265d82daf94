// A script that writes, closes or opens a UDP link from inside each of its event functions.
#include <gtest/gtest.h>
#include <poll.h>

#include <chrono>

#include "ScriptTest.h"
#include "support/Eventually.h"
#include "support/PeerUdp.h"

namespace {

// What the script does, once, when `event` occurs, and what the events then are. A "!" stands where
// the script has done it.
struct Row {
  const char* event;
  const char* action;
  const char* trace;
};

std::ostream& operator<<(std::ostream& out, const Row& row) {
  return out << row.event << "/" << row.action;
}

const char kScript[] = R"(
  trace, done = "", false
  local function on(event)
    trace = trace .. event .. " "
    if event == event_to_act_on and not done then
      done = not every_time
      act()
      trace = trace .. "! "
    end
  end
  function ROVIK_RCVOPEN() on("open") end
  function ROVIK_RCVCLOSE() on("close") end
  function ROVIK_RCVIO(text) on(text) end
  function ROVIK_RCV() on("message") end
  function ROVIK_PERIODIC() on("tick") end
  actions = {
    write = function() sndIO("w") end,
    close = function() closeLink() end,
    open = function() openLink() end,
    reopen = function() closeLink() openLink() end,
    rewrite = function() closeLink() sndIO("w") end,
  })";

class ReentryUdp : public ScriptTest, public testing::WithParamInterface<Row> {
 protected:
  ReentryUdp() {
    script(kScript);
    provide("closeLink", [](lua_State* L) { return call(L, &ScriptRovik::closeGeneric); });
    provide("openLink", [](lua_State* L) { return call(L, &ScriptRovik::openGeneric); });
    net->command({"mode", "udp"});
    net->command({"host", peer.address()});
    net->command({"port", std::to_string(peer.port())});
  }

  static int call(lua_State* L, int (ScriptRovik::*operation)()) {
    auto* const rovik = static_cast<ScriptRovik*>(lua_touserdata(L, lua_upvalueindex(1)));
    EXPECT_EQ(0, (rovik->*operation)());
    return 0;
  }

  void provide(const char* function, lua_CFunction body) {
    lua_pushlightuserdata(net->lua_state, net.get());
    lua_pushcclosure(net->lua_state, body, 1);
    lua_setglobal(net->lua_state, function);
  }

  void actOn(const Row& row) {
    net->persistent = std::string_view(row.action) != "write";
    lua(std::string("event_to_act_on = '") + row.event + "' act = actions." + row.action);
  }

  // All datagrams wait before the first one is read.
  void receive(const std::vector<std::string>& datagrams) {
    if (net->fd < 0) return;
    for (const auto& bytes : datagrams) peer.send(bytes, "127.0.0.1", localPortOf(net->fd));
    for (std::size_t i = 0; i < datagrams.size(); ++i) {
      pollfd watched{net->fd, POLLIN, 0};
      if (i == 0) {
        ASSERT_EQ(1, poll(&watched, 1, kPatience));
      }
      net->readLinkNow();
    }
  }

  void message() {
    auto note = newNote("hello");
    EXPECT_EQ(0, net->selectMM(note.get()));
  }

  std::string trace() { return lua("return trace"); }

  static constexpr int kPatience =
      static_cast<int>(std::chrono::milliseconds(kPatienceOfTests).count());
  // Up to this port the link has a port of its own choice here.
  const UdpPeer peer = UdpPeer::foreign(1024);
};

TEST_P(ReentryUdp, LeavesTheLinkWhereTheLastCallPutIt) {
  actOn(GetParam());
  net->command({"open"});
  receive({"a", "b"});
  message();
  net->selectTI();
  receive({"c"});
  receive({""});
  EXPECT_EQ(GetParam().trace, trace());
  EXPECT_LT(net->fd, 0);
}

INSTANTIATE_TEST_SUITE_P(
    EveryPair, ReentryUdp,
    testing::Values(
        // What waits on a link that is closed is lost with it.
        Row{"open", "write", "open close ! message tick "},
        Row{"open", "close", "open close ! message tick "},
        Row{"open", "open", "open ! a b message tick c close "},
        Row{"open", "reopen", "open close open ! a b message tick c close "},
        Row{"open", "rewrite", "open close open ! a b message tick c close "},
        Row{"a", "write", "open a close ! message tick "},
        Row{"a", "close", "open a close ! message tick "},
        Row{"a", "open", "open a ! b message tick c close "},
        Row{"a", "reopen", "open a close open ! message tick c close "},
        Row{"a", "rewrite", "open a close open ! message tick c close "},
        Row{"b", "reopen", "open a b close open ! message tick c close "},
        Row{"message", "write", "open a b message close ! tick "},
        Row{"message", "reopen", "open a b message close open ! tick c close "},
        Row{"tick", "write", "open a b message tick close ! "},
        Row{"tick", "rewrite", "open a b message tick close open ! c close "},
        // A link that is being closed is still open, and its close is not begun anew.
        Row{"close", "write", "open a b message tick c close ! "},
        Row{"close", "close", "open a b message tick c close ! "},
        Row{"close", "open", "open a b message tick c close ! "},
        Row{"close", "reopen", "open a b message tick c close ! "},
        Row{"close", "rewrite", "open a b message tick c close ! "}),
    [](const testing::TestParamInfo<Row>& row) {
      return std::string("In_") + row.param.event + "_" + row.param.action;
    });

using ReentryUdpEveryTime = ReentryUdp;

// The script does it whenever the event occurs, until the interpreter or the state ends it.
TEST_P(ReentryUdpEveryTime, EndsAndLeavesARovikThatWorks) {
  actOn(GetParam());
  lua("every_time = true");
  net->command({"echo", "on"});
  net->command({"open"});
  receive({"a", "b"});
  message();
  net->selectTI();
  lua("act = function() end");
  net->persistent = true;
  net->echo = false;
  EXPECT_EQ(0, net->openGeneric());
  lua("trace = ''");
  receive({"z"});
  EXPECT_EQ("z ", trace());
}

INSTANTIATE_TEST_SUITE_P(
    EveryPair, ReentryUdpEveryTime, testing::ValuesIn([] {
      static const char* const kEvents[] = {"open", "close", "a", "w", "message", "tick"};
      static const char* const kActions[] = {"write", "close", "open", "reopen", "rewrite"};
      std::vector<Row> rows;
      for (const char* event : kEvents)
        for (const char* action : kActions) rows.push_back({event, action, ""});
      return rows;
    }()),
    [](const testing::TestParamInfo<Row>& row) {
      return std::string("In_") + row.param.event + "_" + row.param.action;
    });

}  // namespace
