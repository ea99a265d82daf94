// The arguments that describe a value: key, value type, value. Included by the functions for
// scripts; each works on the kinds of message that have these fields.
#pragma once

#include "Drovane.h"
#include "LuaRovik.h"
#include "ScriptState.h"

// Arguments 1 and 2.
template <typename Kind>
bool LuaRovik::decodeKeyAndType(lua_State* L, Kind& msg) {
  const char* key = lua_tostring(L, 1);
  if (key == nullptr || msg.setKey(key) < 0) {
    trace("LUA: could not decode key %s \n", key != nullptr ? key : "(null)");
    return false;
  }
  const char* type_name = lua_tostring(L, 2);
  if (type_name == nullptr || msg.setValueType(type_name) < 0) {
    trace("LUA: could not decode type %s \n", type_name != nullptr ? type_name : "(null)");
    return false;
  }
  return true;
}

// Argument 3, by the value type that argument 2 has set. Numbers written as text are numbers, and a
// number sent as a string is its text.
template <typename Kind>
bool LuaRovik::decodeValue(lua_State* L, Kind& msg, const ValueLines& lines) {
  const char* key = lua_tostring(L, 1);
  if (msg.value_type == VAL_INT && lua_isnumber(L, 3)) {
    msg.value_i = script::toUint32(L, 3);
    Drovane::global.log(LOG_LEVEL_INFO, id, name, lines.as_int, key, static_cast<int>(msg.value_i));
    return true;
  }
  if (msg.value_type == VAL_FLOAT && lua_isnumber(L, 3)) {
    msg.value_f = static_cast<float>(lua_tonumber(L, 3));
    Drovane::global.log(LOG_LEVEL_INFO, id, name, lines.as_float, key,
                        static_cast<double>(msg.value_f));
    return true;
  }
  if (msg.value_type == VAL_STRING && lua_isstring(L, 3)) {
    msg.value_s = lua_tostring(L, 3);
    Drovane::global.log(LOG_LEVEL_INFO, id, name, lines.as_string, key, msg.value_s.c_str());
    return true;
  }
  refuse("LUA: could not decode data\n");
  return false;
}
