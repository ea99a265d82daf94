// What scripts call to send. Each function builds one message from its arguments, takes the
// destination from one of them, and sends; none returns anything to the script.
#include <array>

#include "Drovane.h"
#include "LuaArguments.h"
#include "LuaRovik.h"
#include "Owned.h"
#include "ScriptState.h"

// Arguments: key, value type, value, destination.
template <typename Kind>
int LuaRovik::sendValue(lua_State* L, MessageTypes kind, const ValueLines& lines) {
  const auto msg = createOwned<Kind>(kind);
  if (msg == nullptr) {
    refuse("LUA: could not create message\n");
    return 0;
  }
  if (argumentCountIs(L, 4) && decodeKeyAndType(L, *msg) && decodeValue(L, *msg, lines) &&
      decodeDestination(L, 4, *msg, lua_tostring(L, 1), lines.destination))
    messageSnd(msg.get());
  return 0;
}

int LuaRovik::sndDATA(lua_State* L) {
  static constexpr ValueLines kLines = {
      "LUA: DATA %s = %d\n",
      "LUA: DATA %s = %f\n",
      "LUA: DATA %s = %s\n",
      {"LUA: DATA %s to %d\n", "LUA: DATA %s as broadcast\n", "LUA: DATA %s to %s\n"}};
  const MutexLock lock(luaLock);
  return sendValue<MMData>(L, MM_DATA, kLines);
}

int LuaRovik::sndACTUATOR_REQUEST(lua_State* L) {
  static constexpr ValueLines kLines = {
      "LUA: ACTUATOR_REQUEST %s = %d\n",
      "LUA: ACTUATOR_REQUEST %s = %f\n",
      "LUA: ACTUATOR_REQUEST %s = %s\n",
      {"LUA: ACTUATOR_REQUEST %s to %d\n", "LUA: ACTUATOR_REQUEST %s as broadcast\n",
       "LUA: ACTUATOR_REQUEST %s to %s\n"}};
  const MutexLock lock(luaLock);
  return sendValue<MMActuatorRequest>(L, MM_ACTUATOR_REQUEST, kLines);
}

// Arguments: key, value type, destination.
int LuaRovik::sndDATA_REQUEST(lua_State* L) {
  const MutexLock lock(luaLock);
  const auto msg = createOwned<MMDataRequest>(MM_DATA_REQUEST);
  if (msg == nullptr) {
    refuse("LUA: could not create message\n");
    return 0;
  }
  if (argumentCountIs(L, 3) && decodeKeyAndType(L, *msg) &&
      decodeDestination(L, 3, *msg, lua_tostring(L, 1), kDataRequestLines))
    messageSnd(msg.get());
  return 0;
}

// Arguments: command text, destination.
int LuaRovik::sndCMD(lua_State* L) {
  const MutexLock lock(luaLock);
  const auto msg = createOwned<MMCmdRequest>(MM_CMD_REQUEST);
  if (msg == nullptr) {
    refuse("LUA: could not create message\n");
    return 0;
  }
  if (argumentCountIs(L, 2) && decodeCommand(L, *msg) &&
      decodeDestination(L, 2, *msg, msg->cmd.c_str(), kCmdRequestLines))
    messageSnd(msg.get());
  return 0;
}

// Arguments: channel, text. The destination is looked for at position 3, where the count of two
// leaves nothing: every call ends there and nothing is ever sent. Scripts rely on being refused.
int LuaRovik::sndMSG(lua_State* L) {
  static constexpr DestinationLines kLines = {
      "LUA: MM_MSG %s to %d\n", "LUA: MM_MSG %s as broadcast\n", "LUA: MM_MSG %s to %s\n"};
  const MutexLock lock(luaLock);
  const auto msg = createOwned<MMMsg>(MM_MSG);
  if (msg == nullptr) {
    refuse("LUA: could not create message\n");
    return 0;
  }
  if (!argumentCountIs(L, 2)) return 0;
  if (!lua_isnumber(L, 1)) {
    refuse("LUA: could not decode channel\n");
    return 0;
  }
  msg->channel = script::toUint32(L, 1);
  const char* text = lua_tostring(L, 2);
  if (text == nullptr) {
    refuse("LUA: could not decode msg\n");
    return 0;
  }
  msg->msg = text;
  if (decodeDestination(L, 3, *msg, msg->msg.c_str(), kLines)) messageSnd(msg.get());
  return 0;
}

// Arguments: message table, destination.
int LuaRovik::sndMM(lua_State* L) {
  const MutexLock lock(luaLock);
  const OwnedMessage<> msg(messageArgument(L));
  if (msg == nullptr) return 0;
  std::array<char, kMessageTextSize> text{};
  msg->toString(text.data(), kMessageTextSize);
  if (decodeDestination(L, 2, *msg, text.data(), kMessageLines)) messageSnd(msg.get());
  return 0;
}

// Argument 2 must be there as well: the count of the functions that take a table.
RovikMessage* LuaRovik::messageArgument(lua_State* L) {
  if (!argumentCountIs(L, 2)) return nullptr;
  if (lua_type(L, 1) != LUA_TTABLE) {
    refuse("LUA: could not decode mm object\n");
    return nullptr;
  }
  RovikMessage* msg = processMM(L);
  if (msg == nullptr) refuse("LUA: could not create message\n");
  return msg;
}

bool LuaRovik::decodeCommand(lua_State* L, MMCmdRequest& msg) {
  const char* text = lua_tostring(L, 1);
  if (text == nullptr) {
    refuse("LUA: could not decode cmd \n");
    return false;
  }
  msg.cmd = text;
  return true;
}
