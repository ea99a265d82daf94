// What scripts call to ask: each function sends a request, waits for the answer and returns it as a
// table, or nothing. The rovik does nothing else meanwhile, and luaLock is held all the time.
#include <array>

#include "Drovane.h"
#include "LuaArguments.h"
#include "LuaRovik.h"
#include "Owned.h"
#include "ScriptState.h"

// Arguments: key, value type, destination.
int LuaRovik::getDATA(lua_State* L) {
  const MutexLock lock(luaLock);
  auto request = createOwned<MMDataRequest>(MM_DATA_REQUEST);
  if (request == nullptr) {
    refuse("LUA: could not create message\n");
    return 0;
  }
  if (!argumentCountIs(L, 3) || !decodeKeyAndType(L, *request)) return 0;
  RovikMessage* reply = nullptr;
  if (decodeDestination(L, 3, *request, lua_tostring(L, 1), kDataRequestLines))
    reply = messageSndBlock(request.get());
  request.reset();
  return answer(L, reply, MM_DATA, "got a reply message but no valid data\n");
}

// Arguments: command text, destination.
int LuaRovik::getCMD(lua_State* L) {
  const MutexLock lock(luaLock);
  auto request = createOwned<MMCmdRequest>(MM_CMD_REQUEST);
  if (request == nullptr) {
    refuse("LUA: could not create message\n");
    return 0;
  }
  if (!argumentCountIs(L, 2) || !decodeCommand(L, *request)) return 0;
  RovikMessage* reply = nullptr;
  if (decodeDestination(L, 2, *request, request->cmd.c_str(), kCmdRequestLines))
    reply = messageSndBlock(request.get());
  request.reset();
  return answer(L, reply, MM_CMD_RESPONSE, "got a reply message but no valid cmd reply\n");
}

// Arguments: message table, destination. Only data counts as an answer, also to a command: callers
// rely on a command response being turned away.
int LuaRovik::getMM(lua_State* L) {
  const MutexLock lock(luaLock);
  OwnedMessage<> request(messageArgument(L));
  if (request == nullptr) return 0;
  if (request->type != MM_DATA_REQUEST && request->type != MM_CMD_REQUEST) {
    refuse("LUA: getMM is only valid for MM_DATA_REQUEST or MM_CMD_REQUEST\n");
    return 0;
  }
  std::array<char, kMessageTextSize> text{};
  request->toString(text.data(), kMessageTextSize);
  RovikMessage* reply = nullptr;
  if (decodeDestination(L, 2, *request, text.data(), kMessageLines))
    reply = messageSndBlock(request.get());
  request.reset();
  return answer(L, reply, MM_DATA, "got a reply message but no valid data\n");
}

// Takes over the reply. The good news has the level of the bad: what a script asked is a trace.
int LuaRovik::answer(lua_State* L, RovikMessage* reply, MessageTypes expected,
                     const char* wrong_kind) {
  const OwnedMessage<> owned(reply);
  if (owned == nullptr) {
    refuse("got no reply message!\n");
    return 0;
  }
  if (owned->type != expected) {
    refuse(wrong_kind);
    return 0;
  }
  refuse("got a reply message!\n");
  return pushRovikMessage(L, owned.get()) < 0 ? 0 : 1;
}
