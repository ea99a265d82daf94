// Tables of a script as messages, and messages as tables.
//
// Input: a script that calls the functions for messages (it begins with "--"), or else bytes that a
// table is made of. What such a table becomes has to survive the way into a table and back.
#include <fuzzer/FuzzedDataProvider.h>

#include <array>
#include <string>

#include "Owned.h"
#include "framework/MessageJson.h"
#include "support/FuzzedNet.h"
#include "support/Property.h"
#include "support/Script.h"

using drovane::Json;
using fuzzing::FuzzedNet;
using fuzzing::require;
using fuzzing::requireSame;

namespace {

constexpr int kDepth = 3;
constexpr std::size_t kMostFields = 24;

constexpr std::array kFields = {
    "type", "key",   "value_type", "value",   "seqnr",        "ident",       "flags",     "src",
    "cmd",  "rsp",   "msg",        "channel", "network_type", "from_tv_sec", "to_tv_sec", "req_op",
    "dst",  "dst_s", "tv_sec",     "tv_usec", "network_id",   "node_id",     "value_id",
};
constexpr std::array kTexts = {
    "MM_DATA",
    "MM_DATA_REQUEST",
    "MM_ACTUATOR_REQUEST",
    "MM_CMD_REQUEST",
    "MM_CMD_RESPONSE",
    "MM_MSG",
    "MM_EMPTY",
    "5_1_0",
    "-1_0_4294967295",
    "int",
    "float",
    "string",
    "1e300",
    "0x10",
    " 7 ",
    "nan",
};

void pushTable(lua_State* L, FuzzedDataProvider& bytes, int depth);

// Raises, answers with a table, or with a value.
int indexed(lua_State* L) {
  const auto kind = lua_tointeger(L, lua_upvalueindex(1)) % 4;
  if (kind == 0) return luaL_error(L, "no such field");
  if (kind == 1) lua_newtable(L);
  if (kind == 2)
    lua_pushstring(L, kTexts[static_cast<std::size_t>(lua_rawlen(L, 2)) % kTexts.size()]);
  if (kind == 3) lua_pushnumber(L, 1e10);
  return 1;
}

void pushValue(lua_State* L, FuzzedDataProvider& bytes, int depth) {
  switch (bytes.ConsumeIntegralInRange(0, 9)) {
    case 0:
      return lua_pushnil(L);
    case 1:
      return lua_pushboolean(L, bytes.ConsumeBool() ? 1 : 0);
    case 2:
      return lua_pushnumber(L, bytes.ConsumeFloatingPoint<double>());
    case 3:
      return lua_pushinteger(L, bytes.ConsumeIntegral<std::int32_t>());
    case 4: {
      const std::string text = bytes.ConsumeRandomLengthString(600);
      lua_pushlstring(L, text.data(), text.size());
      return;
    }
    case 5:
      return pushTable(L, bytes, depth - 1);
    case 6:
      return lua_pushcfunction(L, indexed);
    case 7:
      return lua_pushlightuserdata(L, L);
    default:
      lua_pushstring(L, kTexts[bytes.ConsumeIntegralInRange<std::size_t>(0, kTexts.size() - 1)]);
  }
}

void pushTable(lua_State* L, FuzzedDataProvider& bytes, int depth) {
  luaL_checkstack(L, 10, "no room for a table");
  lua_newtable(L);
  if (depth <= 0) return;
  for (std::size_t count = 0; count < kMostFields && bytes.remaining_bytes() > 0; ++count) {
    const auto field = bytes.ConsumeIntegralInRange<std::size_t>(0, kFields.size() + 1);
    if (field > kFields.size()) break;
    if (field == kFields.size()) {
      lua_newtable(L);
      lua_pushinteger(L, bytes.ConsumeIntegral<std::uint8_t>());
      lua_pushcclosure(L, indexed, 1);
      lua_setfield(L, -2, "__index");
      lua_setmetatable(L, -2);
      continue;
    }
    pushValue(L, bytes, depth);
    lua_setfield(L, -2, kFields[field]);
  }
}

std::string lineOf(RovikMessage& msg) {
  const Json json(msg.toJSON());
  return drovane::jsonLine(json.get());
}

// A table carries a text up to its first zero byte.
std::string cutAtZero(const std::string& text) { return text.c_str(); }

struct Conversion {
  FuzzedNet* net;
  FuzzedDataProvider* bytes;
};

// The message of a table at stack index 1, which survives the way into a table and back.
void convert(lua_State* L, FuzzedNet& net) {
  const int height = lua_gettop(L);
  const OwnedMessage<> first(net.processMM(L));
  require(lua_gettop(L) == height, "the stack is as high as before");
  if (first == nullptr) return;
  lua_settop(L, 0);
  require(net.pushRovikMessage(L, first.get()) == 0 && lua_gettop(L) == 1, "a message is a table");
  const OwnedMessage<> second(net.processMM(L));
  require(second != nullptr, "the table of a message is a message");
  require(first->type == second->type, "the kind survives");
  if (first->type == MM_DATA) {
    auto& one = static_cast<MMData&>(*first);
    auto& two = static_cast<MMData&>(*second);
    requireSame(one.getKey(), two.getKey(), "the key survives");
    require(one.value_type == two.value_type && one.value_i == two.value_i, "the value survives");
    requireSame(cutAtZero(one.value_s), two.value_s, "the text survives");
    require(one.seqnr == two.seqnr && one.ident == two.ident && one.flags == two.flags &&
                one.src == two.src,
            "the header survives");
  }
  lua_settop(L, 0);
  net.pushRovikMessage(L, second.get());
  const OwnedMessage<> third(net.processMM(L));
  require(third != nullptr, "the table of a message is a message, again");
  requireSame(lineOf(*second), lineOf(*third), "a message survives the way into a table and back");
}

int convertProtected(lua_State* L) {
  const Conversion what = *static_cast<Conversion*>(lua_touserdata(L, 1));
  lua_settop(L, 0);
  pushTable(L, *what.bytes, kDepth);
  convert(L, *what.net);
  return 0;
}

// As the functions for scripts do it: in a protected call, with the table at index 1.
void checkTable(FuzzedNet& net, const std::uint8_t* data, std::size_t size) {
  if (!net.openScript("")) return;
  FuzzedDataProvider bytes(data, size);
  Conversion what{&net, &bytes};
  const int height = lua_gettop(net.lua_state);
  lua_pushcfunction(net.lua_state, convertProtected);
  lua_pushlightuserdata(net.lua_state, &what);
  lua_pcall(net.lua_state, 1, 0, 0);
  lua_settop(net.lua_state, height);
}

// Every kind of message once; the answers stay on the stack, up to a bound.
void checkScript(FuzzedNet& net, std::string_view text) {
  if (!net.openScript(fuzzing::scriptOf(text))) return;
  for (const MessageTypes kind : {MM_EMPTY, MM_DATA, MM_DATA_REQUEST, MM_ACTUATOR_REQUEST,
                                  MM_CMD_REQUEST, MM_CMD_RESPONSE, MM_MSG}) {
    const OwnedMessage<> msg(RovikMessage::create(kind));
    net.selectMM(msg.get());
  }
  const std::string reply = net.command({"COMMAND", "one", "two"});
  require(!reply.empty(), "an open script answers every word");
  net.selectTI();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzzing::silenceLog();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const fuzzing::Balance balance;
  const std::string_view input = fuzzing::asText(data, size);
  {
    fuzzing::Inbox inbox;
    const auto net = FuzzedNet::make();
    // A link that cannot open.
    net->command({"mode", "tty"});
    if (input.starts_with("--"))
      checkScript(*net, input);
    else
      checkTable(*net, data, size);
    inbox.empty();
    net->farewell();
  }
  balance.check();
  return 0;
}
