// A script that writes, closes or opens a TLS link from inside each of its event functions, also in
// the middle of a record.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/ioctl.h>

#include <atomic>
#include <csignal>
#include <exception>
#include <mutex>
#include <thread>

#include "ScriptTest.h"
#include "support/Eventually.h"
#include "support/PeerTls.h"

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

// A unit that is a long one shows up as its first character.
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

// Shakes hands with whoever comes, on a thread of its own, since an opening waits for that.
class Doorman {
 public:
  Doorman() : worker([this] { work(); }) {}
  ~Doorman() {
    over = true;
    worker.join();
  }
  Doorman(const Doorman&) = delete;
  Doorman& operator=(const Doorman&) = delete;

  // Runs with the newest link whose handshake is done.
  template <typename Work>
  void with(Work run) {
    const std::lock_guard guard(lock);
    run(peer);
  }

  int port() const { return peer.port(); }

 private:
  void work() {
    while (!over) {
      {
        const std::lock_guard guard(lock);
        try {
          if (peer.link().linkWaits()) peer.accept();
        } catch (const std::exception&) {
          // The other side has gone in the meantime.
        }
      }
      poll(nullptr, 0, 1);
    }
  }

  TlsPeer peer{selfSigned()};
  std::mutex lock;
  std::atomic<bool> over{false};
  std::thread worker;
};

class ReentryTls : public ScriptTest, public testing::WithParamInterface<Row> {
 protected:
  ReentryTls() : pipe_signal_before(std::signal(SIGPIPE, SIG_IGN)) {
    script(kScript);
    provide("closeLink", [](lua_State* L) { return call(L, &ScriptRovik::closeGeneric); });
    provide("openLink", [](lua_State* L) { return call(L, &ScriptRovik::openGeneric); });
    net->command({"mode", "ssl"});
    net->command({"accept_self_cert", "on"});
    net->command({"host", "127.0.0.1"});
    net->command({"port", std::to_string(door.port())});
    net->command({"chopeol", "on"});
  }
  ~ReentryTls() override {
    net.reset();
    std::signal(SIGPIPE, pipe_signal_before);
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

  int waiting() const {
    int count = 0;
    return ioctl(net->fd, FIONREAD, &count) == 0 ? count : -1;
  }

  // One record for each text; all wait before the first one is read.
  void receive(const std::vector<std::string>& texts) {
    if (net->fd < 0) return;
    std::string records;
    door.with([&](TlsPeer& peer) {
      for (const auto& text : texts) records += peer.seal(text);
      peer.link().send(records);
    });
    ASSERT_TRUE(eventually([&] { return waiting() == static_cast<int>(records.size()); }));
    for (int i = 0; i < 10 && net->fd >= 0 && waiting() > 0; ++i) net->readLinkNow();
  }

  void message() {
    auto note = newNote("hello");
    EXPECT_EQ(0, net->selectMM(note.get()));
  }

  void peerLeaves() {
    if (net->fd < 0) return;
    door.with([](TlsPeer& peer) {
      peer.sendCloseNotify();
      peer.link().close();
    });
    ASSERT_TRUE(eventually([&] { return net->readLinkNow(), net->fd < 0; }));
  }

  std::string trace() { return lua("return trace"); }

  void (*const pipe_signal_before)(int);
  Doorman door;
};

TEST_P(ReentryTls, LeavesTheLinkWhereTheLastCallPutIt) {
  actOn(GetParam());
  net->command({"open"});
  receive({"a\nb\n"});
  message();
  net->selectTI();
  receive({"c\n"});
  peerLeaves();
  EXPECT_EQ(GetParam().trace, trace());
  EXPECT_LT(net->fd, 0);
}

const Row kRows[] = {Row{"open", "write", "open close ! message tick "},
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
                     Row{"close", "write", "open a b message tick c close ! "},
                     Row{"close", "close", "open a b message tick c close ! "},
                     Row{"close", "open", "open a b message tick c close ! "},
                     Row{"close", "reopen", "open a b message tick c close ! "},
                     Row{"close", "rewrite", "open a b message tick c close ! "}};

std::string nameOf(const testing::TestParamInfo<Row>& row) {
  return std::string("In_") + row.param.event + "_" + row.param.action;
}

INSTANTIATE_TEST_SUITE_P(EveryPair, ReentryTls, testing::ValuesIn(kRows), nameOf);

// The link changes while the session still holds, or the socket still has, what came on the old
// one.
using ReentryTlsInARecord = ReentryTls;

TEST_P(ReentryTlsInARecord, DropsWhatIsLeftOfAnOldLink) {
  actOn(GetParam());
  net->command({"raw", "on"});
  net->command({"open"});
  receive({std::string(4096, 'a') + std::string(4096, 'b') + std::string(100, 'c'), "d"});
  receive({"z"});
  peerLeaves();
  EXPECT_EQ(GetParam().trace, trace());
  EXPECT_LT(net->fd, 0);
}

INSTANTIATE_TEST_SUITE_P(EveryPair, ReentryTlsInARecord,
                         testing::Values(Row{"a", "write", "open a close ! "},
                                         Row{"a", "close", "open a close ! "},
                                         Row{"a", "open", "open a ! b c d z close "},
                                         Row{"a", "reopen", "open a close open ! z close "},
                                         Row{"a", "rewrite", "open a close open ! z close "},
                                         Row{"b", "write", "open a b close ! "},
                                         Row{"b", "reopen", "open a b close open ! z close "},
                                         Row{"c", "reopen", "open a b c close open ! z close "},
                                         Row{"d", "rewrite", "open a b c d close open ! z close "}),
                         nameOf);

using ReentryTlsInAFarewell = ReentryTls;

TEST_P(ReentryTlsInAFarewell, EndsWithAClosedLink) {
  actOn(GetParam());
  net->command({"eolclose", "on"});
  net->command({"open"});
  receive({"a"});
  peerLeaves();
  EXPECT_EQ(GetParam().trace, trace());
  EXPECT_LT(net->fd, 0);
}

INSTANTIATE_TEST_SUITE_P(EveryAction, ReentryTlsInAFarewell,
                         testing::Values(Row{"a", "write", "open a close ! "},
                                         Row{"a", "close", "open a close ! "},
                                         Row{"a", "open", "open a ! close "},
                                         // The report of the peer's leave closes what is open then.
                                         Row{"a", "reopen", "open a close open ! close "},
                                         Row{"a", "rewrite", "open a close open ! close "}),
                         nameOf);

using ReentryTlsEveryTime = ReentryTls;

// The script does it whenever the event occurs, until the interpreter or the state ends it.
TEST_P(ReentryTlsEveryTime, EndsAndLeavesARovikThatWorks) {
  actOn(GetParam());
  lua("every_time = true");
  net->command({"echo", "on"});
  net->command({"open"});
  receive({"a\nb\n"});
  message();
  net->selectTI();
  lua("act = function() end");
  net->persistent = true;
  net->echo = false;
  EXPECT_EQ(0, net->openGeneric());
  lua("trace = ''");
  receive({"z\n"});
  EXPECT_EQ("z ", trace());
}

INSTANTIATE_TEST_SUITE_P(
    EveryPair, ReentryTlsEveryTime, testing::ValuesIn([] {
      static const char* const kEvents[] = {"open", "close", "a", "w", "message", "tick"};
      static const char* const kActions[] = {"write", "close", "open", "reopen", "rewrite"};
      std::vector<Row> rows;
      for (const char* event : kEvents)
        for (const char* action : kActions) rows.push_back({event, action, ""});
      return rows;
    }()),
    nameOf);

}  // namespace
