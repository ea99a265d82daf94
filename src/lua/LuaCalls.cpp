// Calls into the script: event functions, the delay that they return, and commands.
#include <algorithm>
#include <limits>
#include <new>
#include <string>

#include "Drovane.h"
#include "LuaRovik.h"
#include "ScriptState.h"
#include "TimeValue.h"

namespace {

constexpr int kMicrosecondsPerSecond = 1'000'000;
constexpr int kDefaultDelay = 30;  // seconds
constexpr int kCommandArguments = 9;

// Above this height what earlier calls have left is dropped, all but the value at the bottom, the
// only one of them that is ever looked at. Nothing would stop the growth otherwise, and the
// interpreter's limit is a million.
constexpr int kHeightBound = 256;

// Enough for a function, its arguments and the steps that make them.
constexpr int kRoomForCall = 32;

// The height below a call; negative when the interpreter has no room left: the call has to fail
// like a script's own overflow.
int makeRoom(lua_State* L) {
  int height = lua_gettop(L);
  if (height > kHeightBound) {
    height = 1;
    lua_settop(L, height);
  }
  return lua_checkstack(L, kRoomForCall) != 0 ? height : -1;
}

// A delay in microseconds; beyond 32 bits it is still far above every bound.
int toDelay(lua_Number number, int otherwise) {
  if (number != number) return otherwise;
  if (number >= std::numeric_limits<int>::max()) return std::numeric_limits<int>::max();
  if (number <= std::numeric_limits<int>::min()) return std::numeric_limits<int>::min();
  return static_cast<int>(number);
}

}  // namespace

LuaRovik* LuaRovik::objectOf(lua_State* L) {
  LuaRovik* const owner = script::hostOf(L).owner;
  script::pushGlobal(L, "m_p");
  const bool stored = lua_islightuserdata(L, -1) && lua_touserdata(L, -1) == owner;
  lua_pop(L, 1);
  if (stored || owner == nullptr) return owner;
  Drovane::global.log(LOG_LEVEL_DEBUG, owner->id, owner->name,
                      "LUA: m_p is not what ROVIK_INIT was given, call refused\n");
  return nullptr;
}

void LuaRovik::raiseWith(const ScriptEvent& event, PushArguments push, void* context) {
  const int height = makeRoom(lua_state);
  if (height < 0) return report("lua function error: %s\n", "stack overflow");
  try {
    callEvent(height, event, push, context);
  } catch (const script::Panic&) {
    script::dropUnfinished(lua_state, height);
    report("lua function error: %s\n", script::panicText(lua_state).c_str());
  } catch (const std::bad_alloc&) {
    lua_settop(lua_state, std::min(height, lua_gettop(lua_state)));
    throw;
  }
}

void LuaRovik::callEvent(int height, const ScriptEvent& event, PushArguments push, void* context) {
  lua_State* const L = lua_state;
  bool good = script::pushGlobal(L, event.function);
  if (good) {
    const int arguments = push(L, context);
    if (arguments < 0) {
      lua_settop(L, height);
      return report("lua function error: push message\n");
    }
    good = lua_pcall(L, arguments, LUA_MULTRET, 0) == LUA_OK;
  }
  if (!good) return report("lua function error: %s\n", script::errorText(L).c_str());
  if (lua_gettop(L) - height == 1) {
    popTimer(L, kDefaultDelay);
  } else {
    trace("%s", event.no_timer);
  }
}

int LuaRovik::popTimer(lua_State* L, int seconds) {
  const int otherwise = seconds * kMicrosecondsPerSecond;
  int is_number = 0;
  const lua_Number number = lua_tonumberx(L, -1, &is_number);
  if (lua_isnumber(L, 1) == 0) {
    armTimer(otherwise, seconds);
  } else if (is_number != 0) {
    armTimer(toDelay(number, otherwise), seconds);
  } else {
    report("lua function error: bad argument #-1 (number expected, got %s)\n",
           luaL_typename(L, -1));
  }
  return 0;
}

void LuaRovik::armTimer(int microseconds, int seconds) {
  const int delay = std::min(microseconds, seconds * kMicrosecondsPerSecond);
  timer.set(TimeValue(delay / kMicrosecondsPerSecond, delay % kMicrosecondsPerSecond), false);
}

std::string LuaRovik::callCommand(char** arg) {
  const int height = makeRoom(lua_state);
  if (height < 0) {
    report("lua function error: %s\n", "stack overflow");
    return "ERROR (LUA FUNCTION ERROR)";
  }
  try {
    return runCommand(height, arg);
  } catch (const script::Panic&) {
    script::dropUnfinished(lua_state, height);
    report("lua function error: %s\n", script::panicText(lua_state).c_str());
    return "ERROR (LUA FUNCTION ERROR)";
  } catch (const std::bad_alloc&) {
    lua_settop(lua_state, std::min(height, lua_gettop(lua_state)));
    throw;
  }
}

std::string LuaRovik::runCommand(int height, char** arg) {
  lua_State* const L = lua_state;
  bool good = script::pushGlobal(L, arg[0]);
  if (good) {
    lua_newtable(L);
    for (int i = 1; i <= kCommandArguments; ++i) {
      lua_pushstring(L, ("arg" + std::to_string(i)).c_str());
      lua_pushstring(L, arg[i]);
      lua_settable(L, -3);
    }
    good = lua_pcall(L, 1, LUA_MULTRET, 0) == LUA_OK;
  }
  if (!good) {
    report("lua function error: %s\n", script::errorText(L).c_str());
    return "ERROR (LUA FUNCTION ERROR)";
  }
  const int results = lua_gettop(L) - height;
  if (results == 0) return "OK";
  // The bottom of the stack is asked, the top is the reply: what an earlier call left at the bottom
  // decides, and scripts rely on it.
  if (results != 1 || lua_isstring(L, 1) == 0) return "ERROR";
  const char* reply = lua_tostring(L, -1);
  return reply != nullptr ? std::string(reply) : "ERROR";
}
