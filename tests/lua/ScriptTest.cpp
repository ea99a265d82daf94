#include "ScriptTest.h"

#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <filesystem>
#include <future>
#include <stdexcept>
#include <utility>

#include "Drovane.h"
#include "framework/Clock.h"
#include "framework/Identity.h"
#include "framework/RecordPool.h"
#include "framework/Router.h"
#include "framework/Words.h"
#include "support/Eventually.h"

std::unique_ptr<ScriptRovik> ScriptRovik::make(int its_id, const std::string& its_name) {
  const drovane::IdentityForConstruction identity(its_id, its_name);
  auto rovik = std::make_unique<ScriptRovik>();
  if (!rovik->host().enterRouter()) throw std::runtime_error("address is taken: " + its_name);
  return rovik;
}

ScriptRovik::~ScriptRovik() {
  stop();
  if (fd >= 0) ::close(fd);
}

void ScriptRovik::run() {
  if (host().start() != 0) throw std::runtime_error("thread does not start: " + name);
}

std::string ScriptRovik::command(std::vector<std::string> words) {
  const auto result = host().command(std::move(words));
  return result.answered ? result.text : "REFUSED: " + result.text;
}

int ScriptRovik::localPrepLua() { return refuses_prep ? -1 : GenericNet::localPrepLua(); }

void ScriptRovik::readLinkNow() {
  FD_ZERO(&readfds);
  if (fd >= 0) FD_SET(fd, &readfds);
  EXPECT_EQ(0, selectFD());
}

double ScriptRovik::delay() const {
  const auto expiry = timer.expiry();
  if (!expiry) return -1;
  return static_cast<double>(*expiry - drovane::Clock::now()) / 1e9;
}

bool ScriptRovik::lockIsFree() {
  auto other = std::async(std::launch::async, [this] { const MutexLock lock(luaLock); });
  return other.wait_for(kPatienceOfTests) == std::future_status::ready;
}

Scripts::Scripts() {
  std::array<char, 512> before{};
  Drovane::global.getInstRoot(before.data(), static_cast<int>(before.size()));
  root_before = before.data();
  std::filesystem::create_directory(folder / "lua");
  Drovane::global.setInstRoot(folder.path());
}

Scripts::~Scripts() { Drovane::global.setInstRoot(root_before); }

void Scripts::write(const std::string& name, std::string_view text) const {
  folder.write("lua/" + name, text);
}

std::string Scripts::path(const std::string& name) const { return folder / ("lua/" + name); }

Traffic::Traffic()
    : tap(std::make_shared<drovane::Mailbox>(0, "tap", std::make_shared<drovane::Waker>())) {
  drovane::Router::global().setTap(tap);
}

Traffic::~Traffic() {
  drovane::Router::global().setTap(nullptr);
  tap->close();
}

std::vector<Owned<RovikMessage>> Traffic::take() {
  std::vector<RovikMessage*> batch;
  tap->take(batch);
  std::vector<Owned<RovikMessage>> all;
  for (RovikMessage* msg : batch) {
    all.emplace_back(RovikMessage::create(msg));
    drovane::RecordPool::release(msg);
  }
  tap->left(0);
  return all;
}

std::string Traffic::textFor(RovikMessage& msg) {
  const std::string text = msg.toString();
  const std::string payload = text.substr(0, text.rfind(" from "));
  const std::string destination = text.substr(text.rfind(" to "));
  return payload + destination.substr(0, destination.rfind(" #"));
}

Texts Traffic::takeTexts() {
  Texts texts;
  for (const auto& msg : take()) texts.push_back(textFor(*msg));
  return texts;
}

ScriptTest::ScriptTest() { newLines(); }

ScriptTest::~ScriptTest() = default;

void ScriptTest::script(std::string_view text) {
  scripts.write("test.lua", std::string(kPlainScript) + std::string(text));
  ASSERT_EQ("OK", net->command({"luafile", "test.lua"}));
  ASSERT_EQ("OK", net->command({"luarestart"})) << warning();
  newLines();
}

std::string ScriptTest::lua(const std::string& chunk) {
  lua_State* const L = net->lua_state;
  const int before = lua_gettop(L);
  std::string results;
  if (luaL_loadbuffer(L, chunk.data(), chunk.size(), "=chunk") != LUA_OK ||
      lua_pcall(L, 0, LUA_MULTRET, 0) != LUA_OK) {
    const char* text = lua_tostring(L, -1);
    results = std::string("raised: ") + (text != nullptr ? text : luaL_typename(L, -1));
  } else {
    for (int i = before + 1; i <= lua_gettop(L); ++i) {
      std::size_t size = 0;
      const char* text = luaL_tolstring(L, i, &size);
      results += (i > before + 1 ? " " : "") + std::string(text, size);
      lua_pop(L, 1);
    }
  }
  lua_settop(L, before);
  return results;
}

Texts ScriptTest::newLines() {
  const auto lines = log.lines();
  Texts texts;
  for (; seen < lines.size(); ++seen) {
    if (lines[seen].id != 5) continue;
    texts.push_back(std::to_string(lines[seen].level) + " " + lines[seen].text);
  }
  return texts;
}

std::string ScriptTest::warning() const { return net->host().status().warning; }

void ScriptTest::openTo(TcpPeer& peer) {
  net->command({"host", "127.0.0.1"});
  net->command({"port", std::to_string(peer.port())});
  ASSERT_EQ("OK", net->command({"open"}));
  peer.accept();
}

void ScriptTest::feed(TcpPeer& peer, std::string_view bytes) {
  peer.send(bytes);
  const auto waiting = [this] {
    int count = 0;
    return ioctl(net->fd, FIONREAD, &count) == 0 ? count : -1;
  };
  ASSERT_TRUE(eventually([&] { return waiting() == static_cast<int>(bytes.size()); }));
  while (net->fd >= 0 && waiting() > 0) net->readLinkNow();
}
