// The arguments that the functions for scripts share: how many there are, and the destination.
#include <string_view>

#include "Drovane.h"
#include "LuaRovik.h"
#include "ScriptState.h"

// Refused calls leave one line at level 4; the script itself goes on and is told nothing.
void LuaRovik::refuse(const char* text) { trace("%s", text); }

bool LuaRovik::argumentCountIs(lua_State* L, int count) {
  if (lua_gettop(L) == count) return true;
  refuse("LUA: wrong number of arguments supplied to function call\n");
  return false;
}

// A number, also one written as text, is a rovik's number; "BC" is everybody; any other text is a
// name. `what` is what the log line says is sent.
bool LuaRovik::decodeDestination(lua_State* L, int index, RovikMessage& msg, const char* what,
                                 const DestinationLines& lines) {
  if (lua_isnumber(L, index)) {
    msg.dst = script::toUint32(L, index);
    Drovane::global.log(LOG_LEVEL_INFO, id, name, lines.to_number, what, static_cast<int>(msg.dst));
    return true;
  }
  const char* text = lua_tostring(L, index);
  if (text == nullptr) {
    refuse("LUA: could not decode destination id\n");
    return false;
  }
  if (std::string_view(text) == "BC") {
    Drovane::global.log(LOG_LEVEL_INFO, id, name, lines.broadcast, what);
    return true;
  }
  Drovane::global.log(LOG_LEVEL_INFO, id, name, lines.to_name, what, text);
  msg.dst = NO_DESTINATION;
  msg.dst_s = text;
  return true;
}
