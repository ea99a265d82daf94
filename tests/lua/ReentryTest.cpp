// A script that writes, closes or opens the link from inside each of its event functions.
#include <gtest/gtest.h>

#include <functional>

#include "ScriptTest.h"

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
      done = true
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

class Reentry : public ScriptTest, public testing::WithParamInterface<Row> {
 protected:
  Reentry() {
    script(kScript);
    provide("closeLink", [](lua_State* L) { return call(L, &ScriptRovik::closeGeneric); });
    provide("openLink", [](lua_State* L) { return call(L, &ScriptRovik::openGeneric); });
    net->command({"host", "127.0.0.1"});
    net->command({"port", std::to_string(peer.port())});
    net->command({"chopeol", "on"});
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

  // Takes the newest link at the peer's end.
  void meet() {
    while (peer.linkWaits()) peer.accept();
  }

  void receive(std::string_view bytes) {
    if (net->fd < 0) return;
    meet();
    feed(peer, bytes);
  }

  void message() {
    auto note = newNote("hello");
    EXPECT_EQ(0, net->selectMM(note.get()));
  }

  // The peer ends its link and the rovik notices.
  void peerLeaves() {
    if (net->fd < 0) return;
    meet();
    peer.close();
    net->readLinkNow();
  }

  std::string trace() { return lua("return trace"); }

  TcpPeer peer;
};

using ReentryInALink = Reentry;

TEST_P(ReentryInALink, LeavesTheLinkWhereTheLastCallPutIt) {
  actOn(GetParam());
  net->command({"open"});
  receive("a\nb\n");
  message();
  net->selectTI();
  receive("c\n");
  peerLeaves();
  EXPECT_EQ(GetParam().trace, trace());
  EXPECT_LT(net->fd, 0);
}

INSTANTIATE_TEST_SUITE_P(
    EveryPair, ReentryInALink,
    testing::Values(
        // A link that is not kept ends with the write, and with it what was read but not handed
        // over.
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
        Row{"message", "close", "open a b message close ! tick "},
        Row{"message", "open", "open a b message ! tick c close "},
        Row{"message", "reopen", "open a b message close open ! tick c close "},
        Row{"message", "rewrite", "open a b message close open ! tick c close "},
        Row{"tick", "write", "open a b message tick close ! "},
        Row{"tick", "close", "open a b message tick close ! "},
        Row{"tick", "open", "open a b message tick ! c close "},
        Row{"tick", "reopen", "open a b message tick close open ! c close "},
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

using ReentryInAFarewell = Reentry;

// The last unit of a peer that marks the end by leaving.
TEST_P(ReentryInAFarewell, EndsWithAClosedLink) {
  actOn(GetParam());
  net->command({"eolclose", "on"});
  net->command({"open"});
  receive("a");
  peerLeaves();
  EXPECT_EQ(GetParam().trace, trace());
  EXPECT_LT(net->fd, 0);
}

INSTANTIATE_TEST_SUITE_P(EveryAction, ReentryInAFarewell,
                         testing::Values(Row{"a", "write", "open a close ! "},
                                         Row{"a", "close", "open a close ! "},
                                         Row{"a", "open", "open a ! close "},
                                         // The report of the peer's leave closes what is open then.
                                         Row{"a", "reopen", "open a close open ! close "},
                                         Row{"a", "rewrite", "open a close open ! close "}),
                         [](const testing::TestParamInfo<Row>& row) {
                           return std::string("By_") + row.param.action;
                         });

using ReentryEveryTime = Reentry;

// The script does it whenever the event occurs, until the interpreter or the state ends it.
TEST_P(ReentryEveryTime, EndsAndLeavesARovikThatWorks) {
  actOn(GetParam());
  lua("setmetatable(_G, {__newindex = function(t, k, v) if k ~= 'done' then rawset(t, k, v) end "
      "end})"
      "done = nil");
  net->command({"echo", "on"});
  net->command({"open"});
  receive("a\nb\n");
  message();
  net->selectTI();
  lua("act = function() end");
  net->persistent = true;
  net->echo = false;
  EXPECT_EQ(0, net->openGeneric());
  lua("trace = ''");
  receive("z\n");
  EXPECT_EQ("z ", trace());
}

INSTANTIATE_TEST_SUITE_P(
    EveryPair, ReentryEveryTime, testing::ValuesIn([] {
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
