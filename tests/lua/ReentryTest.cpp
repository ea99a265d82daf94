#include "ReentryTest.h"

#include <csignal>

namespace {

constexpr std::string_view kScript = R"(
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
  function ROVIK_RCVIO(text) on(text:sub(1, 1)) end
  function ROVIK_RCV() on("message") end
  function ROVIK_PERIODIC() on("tick") end
  actions = {
    write = function() sndIO("w") end,
    close = function() closeLink() end,
    open = function() openLink() end,
    reopen = function() closeLink() openLink() end,
    rewrite = function() closeLink() sndIO("w") end,
  })";

int call(lua_State* L, int (ScriptRovik::*operation)()) {
  auto* const rovik = static_cast<ScriptRovik*>(lua_touserdata(L, lua_upvalueindex(1)));
  EXPECT_EQ(0, (rovik->*operation)());
  return 0;
}

}  // namespace

std::ostream& operator<<(std::ostream& out, const Reentry& row) {
  return out << row.event << "/" << row.action;
}

std::string nameOf(const testing::TestParamInfo<Reentry>& row) {
  return std::string("In_") + row.param.event + "_" + row.param.action;
}

// Ignores the signal of a broken pipe, as the program does.
ReentryTest::ReentryTest(std::unique_ptr<ReentryPeer> its_peer)
    : pipe_signal_before(std::signal(SIGPIPE, SIG_IGN)), peer(std::move(its_peer)) {
  script(kScript);
  provide("closeLink", [](lua_State* L) { return call(L, &ScriptRovik::closeGeneric); });
  provide("openLink", [](lua_State* L) { return call(L, &ScriptRovik::openGeneric); });
  net->command({"chopeol", "on"});
  for (const auto& setting : peer->settings()) EXPECT_EQ("OK", net->command(setting));
}

ReentryTest::~ReentryTest() {
  net.reset();
  std::signal(SIGPIPE, pipe_signal_before);
}

void ReentryTest::provide(const char* function, lua_CFunction body) {
  lua_pushlightuserdata(net->lua_state, net.get());
  lua_pushcclosure(net->lua_state, body, 1);
  lua_setglobal(net->lua_state, function);
}

void ReentryTest::actOn(const Reentry& row) {
  net->persistent = std::string_view(row.action) != "write";
  lua(std::string("event_to_act_on = '") + row.event + "' act = actions." + row.action);
}

void ReentryTest::actEachTimeOn(const Reentry& row) {
  actOn(row);
  lua("every_time = true");
}

void ReentryTest::calmDown() {
  lua("event_to_act_on, trace = nil, ''");
  net->persistent = true;
  net->echo = false;
}

void ReentryTest::receive(const std::vector<std::string>& units) {
  if (net->fd >= 0) peer->send(*net, units);
}

void ReentryTest::peerLeaves() {
  if (net->fd >= 0) peer->leave(*net);
}

void ReentryTest::message() {
  auto note = newNote("hello");
  EXPECT_EQ(0, net->selectMM(note.get()));
}
