// Messages as tables and back. The two directions are not symmetric: the table that a script gets
// carries fields that are ignored when it comes back, and the other way round.
#include <algorithm>
#include <array>
#include <cstdint>
#include <iterator>
#include <string>
#include <string_view>

#include "Drovane.h"
#include "LuaRovik.h"
#include "Owned.h"
#include "ScriptState.h"
#include "TimeValue.h"

namespace {

using script::setNumber;
using script::setText;
using script::toUint32;

constexpr int kTextSize = 512;
constexpr std::uint32_t kSecondsPerDay = 86400;
constexpr std::uint32_t kFlagHistory = 1;  // set on a request for recorded values

// Keys, values and channels are 32-bit two's complement; header numbers and times are not negative.
lua_Number signedNumber(std::uint32_t number) { return static_cast<std::int32_t>(number); }

template <typename Record>
void setKeyFields(lua_State* L, Record& record) {
  std::array<char, kTextSize> key{};
  record.getKey(key.data(), kTextSize);
  setText(L, "key", key.data());
  setNumber(L, "network_id", signedNumber(record.network_id));
  setNumber(L, "node_id", signedNumber(record.node_id));
  setNumber(L, "value_id", signedNumber(record.value_id));
}

template <typename Record>
void setValueType(lua_State* L, Record& record) {
  std::array<char, kTextSize> value_type{};
  record.getValueType(value_type.data(), kTextSize);
  setText(L, "value_type", value_type.data());
}

template <typename Record>
void setValue(lua_State* L, const Record& record) {
  if (record.value_type == VAL_INT) setNumber(L, "value", signedNumber(record.value_i));
  if (record.value_type == VAL_FLOAT) setNumber(L, "value", record.value_f);
  if (record.value_type == VAL_STRING) setText(L, "value", record.value_s.c_str());
}

void push(lua_State* L, MMData& data) {
  setText(L, "type", "MM_DATA");
  setKeyFields(L, data);
  setNumber(L, "seqnr", data.seqnr);
  setNumber(L, "src", data.src);
  setNumber(L, "ident", data.ident);
  setNumber(L, "flags", data.flags);
  setValueType(L, data);
  setValue(L, data);
  setNumber(L, "tv_sec", data.tv_sec);
  setNumber(L, "tv_usec", data.tv_usec);
}

template <typename Record>
void pushRequest(lua_State* L, const char* type_name, Record& request) {
  setText(L, "type", type_name);
  setKeyFields(L, request);
  setNumber(L, "seqnr", request.seqnr);
  setNumber(L, "ident", request.ident);
  setNumber(L, "flags", request.flags);
  setNumber(L, "src", request.src);
  setValueType(L, request);
}

void pushHeader(lua_State* L, const char* type_name, const RovikMessage& msg) {
  setText(L, "type", type_name);
  setNumber(L, "seqnr", msg.seqnr);
  setNumber(L, "src", msg.src);
  setNumber(L, "ident", msg.ident);
  setNumber(L, "flags", msg.flags);
}

void push(lua_State* L, MMDataRequest& request) { pushRequest(L, "MM_DATA_REQUEST", request); }

void push(lua_State* L, MMActuatorRequest& request) {
  pushRequest(L, "MM_ACTUATOR_REQUEST", request);
  setValue(L, request);
}

void push(lua_State* L, MMCmdRequest& request) {
  pushHeader(L, "MM_CMD_REQUEST", request);
  setText(L, "cmd", request.cmd.c_str());
}

void push(lua_State* L, MMCmdResponse& response) {
  pushHeader(L, "MM_CMD_RESPONSE", response);
  setText(L, "rsp", response.rsp.c_str());
}

void push(lua_State* L, MMMsg& text) {
  pushHeader(L, "MM_MSG", text);
  setNumber(L, "channel", signedNumber(text.channel));
  setText(L, "msg", text.msg.c_str());
}

// Pushes field `name` of the table at stack index 1.
void getField(lua_State* L, const char* name) {
  lua_pushstring(L, name);
  lua_gettable(L, 1);
}

void readNumber(lua_State* L, const char* name, std::uint32_t& number) {
  getField(L, name);
  if (lua_isnumber(L, -1)) number = toUint32(L, -1);
  lua_pop(L, 1);
}

void readText(lua_State* L, const char* name, std::string& text) {
  getField(L, name);
  std::size_t length = 0;
  const char* bytes = lua_tolstring(L, -1, &length);
  if (bytes != nullptr) text.assign(bytes, length);
  lua_pop(L, 1);
}

// Completes a request for recorded values: without an end it ends now, without a beginning it
// begins a day before its end.
void readHistory(lua_State* L, MMDataRequest& request) {
  readNumber(L, "req_op", request.req_op);
  if (request.req_op == 0) return;
  timeval now{};
  TimeValue::getCurrentSystemTime(now);
  request.flags |= kFlagHistory;
  readNumber(L, "from_tv_sec", request.from_tv_sec);
  readNumber(L, "to_tv_sec", request.to_tv_sec);
  if (request.to_tv_sec == 0) request.to_tv_sec = static_cast<std::uint32_t>(now.tv_sec);
  if (request.from_tv_sec == 0) request.from_tv_sec = request.to_tv_sec - kSecondsPerDay;
}

struct KindName {
  std::string_view name;
  MessageTypes type;
};
constexpr KindName kKinds[] = {
    {"MM_DATA", MM_DATA},
    {"MM_DATA_REQUEST", MM_DATA_REQUEST},
    {"MM_ACTUATOR_REQUEST", MM_ACTUATOR_REQUEST},
    {"MM_CMD_REQUEST", MM_CMD_REQUEST},
    {"MM_CMD_RESPONSE", MM_CMD_RESPONSE},
    {"MM_MSG", MM_MSG},
};

}  // namespace

int LuaRovik::pushRovikMessage(lua_State* L, RovikMessage* msg) {
  if (L == nullptr) {
    trace("LUA: lua state invalid\n");
    return -1;
  }
  if (msg == nullptr || msg->type < MM_DATA || msg->type > MM_MSG) return -1;
  lua_newtable(L);
  switch (msg->type) {
    case MM_DATA:
      push(L, static_cast<MMData&>(*msg));
      break;
    case MM_DATA_REQUEST:
      push(L, static_cast<MMDataRequest&>(*msg));
      break;
    case MM_ACTUATOR_REQUEST:
      push(L, static_cast<MMActuatorRequest&>(*msg));
      break;
    case MM_CMD_REQUEST:
      push(L, static_cast<MMCmdRequest&>(*msg));
      break;
    case MM_CMD_RESPONSE:
      push(L, static_cast<MMCmdResponse&>(*msg));
      break;
    default:
      push(L, static_cast<MMMsg&>(*msg));
  }
  return 0;
}

RovikMessage* LuaRovik::processMM(lua_State* L) {
  getField(L, "type");
  const char* type_name = lua_tostring(L, -1);
  if (type_name == nullptr) {
    refuse("LUA: could not create message from lua table (type=?)\n");
    lua_pop(L, 1);
    return nullptr;
  }
  const auto* kind = std::find_if(std::begin(kKinds), std::end(kKinds),
                                  [&](const KindName& entry) { return entry.name == type_name; });
  lua_pop(L, 1);
  if (kind == std::end(kKinds)) {
    refuse("LUA: unknown message type\n");
    return nullptr;
  }
  // Owned while the fields are read: a metamethod of the table may raise.
  OwnedMessage<> msg(RovikMessage::create(kind->type));
  return msg != nullptr && fillMessage(*msg, L) ? msg.release() : nullptr;
}

bool LuaRovik::fillMessage(RovikMessage& msg, lua_State* L) {
  switch (msg.type) {
    case MM_DATA:
      readNumber(L, "network_type", static_cast<MMData&>(msg).network_type);
      return fillValueMessage(msg, L);
    case MM_ACTUATOR_REQUEST:
      return fillValueMessage(msg, L);
    case MM_DATA_REQUEST:
      return fillDataRequest(static_cast<MMDataRequest&>(msg), L);
    case MM_CMD_REQUEST:
      readText(L, "cmd", static_cast<MMCmdRequest&>(msg).cmd);
      return true;
    case MM_CMD_RESPONSE:
      readText(L, "rsp", static_cast<MMCmdResponse&>(msg).rsp);
      return true;
    default:
      readNumber(L, "channel", static_cast<MMMsg&>(msg).channel);
      readText(L, "msg", static_cast<MMMsg&>(msg).msg);
      return true;
  }
}

bool LuaRovik::fillValueMessage(RovikMessage& msg, lua_State* L) {
  if (processMM_HEADER(&msg, L) == 0 && processMM_KEY(&msg, L) == 0 &&
      processMM_VALUETYPE(&msg, L) == 0 && processMM_VALUE(&msg, L) == 0)
    return true;
  refuse("LUA: could not create message from lua table (key=?, value_type=?, value=?)\n");
  return false;
}

bool LuaRovik::fillDataRequest(MMDataRequest& request, lua_State* L) {
  if (processMM_HEADER(&request, L) == 0 && processMM_KEY(&request, L) == 0 &&
      processMM_VALUETYPE(&request, L) == 0) {
    readHistory(L, request);
    return true;
  }
  refuse("LUA: could not create message from lua table (key=?, value_type=?)\n");
  return false;
}

int LuaRovik::processMM_HEADER(RovikMessage* msg, lua_State* L) {
  readNumber(L, "seqnr", msg->seqnr);
  readNumber(L, "ident", msg->ident);
  readNumber(L, "flags", msg->flags);
  readNumber(L, "src", msg->src);
  return 0;
}

int LuaRovik::processMM_KEY(RovikMessage* msg, lua_State* L) {
  getField(L, "key");
  const char* text = lua_tostring(L, -1);
  int result = -1;
  if (text != nullptr) {
    if (msg->type == MM_DATA) result = static_cast<MMData*>(msg)->setKey(text);
    if (msg->type == MM_DATA_REQUEST) result = static_cast<MMDataRequest*>(msg)->setKey(text);
    if (msg->type == MM_ACTUATOR_REQUEST)
      result = static_cast<MMActuatorRequest*>(msg)->setKey(text);
  }
  lua_pop(L, 1);
  return result < 0 ? -1 : 0;
}

int LuaRovik::processMM_VALUETYPE(RovikMessage* msg, lua_State* L) {
  getField(L, "value_type");
  const char* text = lua_tostring(L, -1);
  int result = -1;
  if (text != nullptr) {
    if (msg->type == MM_DATA) result = static_cast<MMData*>(msg)->setValueType(text);
    if (msg->type == MM_DATA_REQUEST) result = static_cast<MMDataRequest*>(msg)->setValueType(text);
    if (msg->type == MM_ACTUATOR_REQUEST)
      result = static_cast<MMActuatorRequest*>(msg)->setValueType(text);
  }
  lua_pop(L, 1);
  return result < 0 ? -1 : 0;
}

namespace {

// Stores the value on top of the stack if it fits the record's value type.
template <typename Record>
bool storeValue(lua_State* L, Record& record) {
  if (record.value_type == VAL_STRING && lua_isstring(L, -1)) {
    std::size_t length = 0;
    const char* bytes = lua_tolstring(L, -1, &length);
    record.value_s.assign(bytes, length);
    return true;
  }
  if (!lua_isnumber(L, -1)) return false;
  if (record.value_type == VAL_INT) record.value_i = toUint32(L, -1);
  if (record.value_type == VAL_FLOAT) record.value_f = static_cast<float>(lua_tonumber(L, -1));
  return record.value_type == VAL_INT || record.value_type == VAL_FLOAT;
}

}  // namespace

int LuaRovik::processMM_VALUE(RovikMessage* msg, lua_State* L) {
  getField(L, "value");
  bool stored = false;
  if (msg->type == MM_DATA) stored = storeValue(L, static_cast<MMData&>(*msg));
  if (msg->type == MM_ACTUATOR_REQUEST)
    stored = storeValue(L, static_cast<MMActuatorRequest&>(*msg));
  lua_pop(L, 1);
  return stored ? 0 : -1;
}
