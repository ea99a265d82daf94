#include "support/FuzzedNet.h"

#include <poll.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <utility>

#include "Drovane.h"
#include "framework/Identity.h"
#include "framework/MessageJson.h"
#include "framework/RecordPool.h"
#include "framework/Router.h"
#include "framework/RovikHost.h"
#include "framework/Words.h"
#include "support/Property.h"
#include "support/Wait.h"

namespace fuzzing {
namespace {

constexpr int kNetId = 5;
constexpr int kInboxId = 90;
constexpr int kMostReads = 64;
constexpr int kMostWrites = 24;

// They name a host, a device or a file.
constexpr std::array<std::string_view, 5> kForbidden = {"host", "port", "tty", "wol", "luafile"};

// Nobody would answer the handshake of "mode ssl".
bool allowed(const std::vector<std::string>& words) {
  if (words.empty() || (words[0] == "mode" && words.size() > 1 && words[1] == "ssl")) return false;
  return std::find(kForbidden.begin(), kForbidden.end(), words[0]) == kForbidden.end();
}

}  // namespace

std::unique_ptr<FuzzedNet> FuzzedNet::make() {
  Drovane::global.setInstRoot(DROVANE_FUZZ_DIR);
  const drovane::IdentityForConstruction identity(kNetId, "net");
  auto net = std::make_unique<FuzzedNet>();
  require(drovane::RovikHost::of(*net).enterRouter(), "the rovik gets its address");
  drovane::RovikHost::of(*net).askToStop();
  return net;
}

bool FuzzedNet::openScript(std::string text) {
  script = "function ROVIK_INIT(me) m_p = me end " + std::move(text);
  command({"luafile", "any.lua"});
  return command({"luaopen"}) == "OK";
}

void FuzzedNet::commandLine(std::string_view line) {
  auto split = drovane::splitWords(line);
  if (allowed(split.words)) command(std::move(split.words));
}

std::string FuzzedNet::command(std::vector<std::string> words) {
  drovane::CommandVector vector(std::move(words));
  return interpretCmd(vector.get());
}

void FuzzedNet::farewell() {
  if (fd >= 0) command({"close"});
  command({"luaclose"});
  require(fd < 0 && lua_state == nullptr, "after the farewell everything is closed");
}

bool FuzzedNet::readable(int milliseconds) const {
  return fd >= 0 && await(fd, POLLIN, milliseconds);
}

void FuzzedNet::readLinkNow() {
  FD_ZERO(&readfds);
  if (fd >= 0) FD_SET(fd, &readfds);
  require(selectFD() == 0, "selectFD has handled the event");
}

void FuzzedNet::readAll() {
  for (int i = 0; i < kMostReads && readable(); ++i) {
    readLinkNow();
    checkState();
  }
}

void FuzzedNet::checkState() const {
  require(inbufpos >= 0 && inbufpos < kBufferSize, "the buffer has room");
  static constexpr char kZeros[kBufferSize] = {};
  const auto room = static_cast<std::size_t>(kBufferSize - inbufpos);
  require(std::memcmp(inbuf + inbufpos, kZeros, room) == 0,
          "the buffer is zero behind what it holds");
  require(fd >= 0 || inbufpos == 0, "a closed link holds no bytes");
  require(commode == COM_SSL || (ssl == nullptr && sslctx == nullptr), "no session without TLS");
  require(fd >= 0 || (ssl == nullptr && sslctx == nullptr), "a closed link holds no session");
}

// The script that was read from the file is on the stack; what it stands for takes its place.
int FuzzedNet::localPrepLua() {
  if (GenericNet::localPrepLua() < 0) return -1;
  lua_settop(lua_state, 0);
  lua_pushcfunction(lua_state, writeInBounds);
  lua_setglobal(lua_state, "sndIO");
  sandbox.apply(lua_state);
  const int loaded = luaL_loadbufferx(lua_state, script.data(), script.size(), "=script", "t");
  return loaded == LUA_OK ? 0 : -1;
}

// A peer reads nothing while a script writes on and on.
int FuzzedNet::writeInBounds(lua_State* L) {
  auto* const net = static_cast<FuzzedNet*>(objectOf(L));
  if (net == nullptr) return 0;
  if (++net->writes > kMostWrites) return luaL_error(L, "enough written");
  if (net->before_write != nullptr) net->before_write(net->before_write_context);
  return lua_sndIO_dispatch(L);
}

Inbox::Inbox()
    : mailbox(std::make_shared<drovane::Mailbox>(kInboxId, "inbox",
                                                 std::make_shared<drovane::Waker>())) {
  require(drovane::Router::global().add(mailbox), "the inbox gets its address");
}

Inbox::~Inbox() {
  drovane::Router::global().remove(*mailbox);
  mailbox->close();
}

void Inbox::empty() {
  const auto addresses = drovane::Router::global().table();
  for (const auto& each : addresses->all()) {
    std::vector<RovikMessage*> batch;
    each->take(batch);
    for (RovikMessage* msg : batch) {
      if (each == mailbox && msg->type == MM_DATA) {
        auto& data = static_cast<MMData&>(*msg);
        if (data.node_id == 0 && data.value_id == 0) units.push_back(data.value_s);
      }
      drovane::RecordPool::release(msg);
    }
    each->left(0);
  }
}

std::vector<std::string> Inbox::takeUnits() {
  empty();
  return std::exchange(units, {});
}

}  // namespace fuzzing
