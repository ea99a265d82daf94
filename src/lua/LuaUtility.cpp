// What scripts call for the log, for escapes and for the clock; and the way of every call from the
// interpreter to the rovik.
#include <climits>

#include "Drovane.h"
#include "LuaRovik.h"
#include "Owned.h"
#include "RovikUtil.h"
#include "ScriptState.h"
#include "TimeValue.h"

// Argument: text, up to its first zero byte. What is no text raises the library's own error.
int LuaRovik::print(lua_State* L) {
  const MutexLock lock(luaLock);
  Drovane::global.log(LOG_LEVEL_INFO, id, name, "LUA: %s\n", luaL_checkstring(L, 1));
  return 0;
}

// Argument: bytes. Result: their text, or nothing when the argument is no string.
int LuaRovik::escape(lua_State* L) {
  const MutexLock lock(luaLock);
  std::size_t length = 0;
  const char* data = lua_tolstring(L, 1, &length);
  if (data == nullptr || length > INT_MAX) return 0;
  char* text = nullptr;
  const int size = RovikUtil::escape(&text, data, static_cast<int>(length), 0);
  const OwnedText owned(text);
  if (size < 0) return 0;
  lua_pushlstring(L, owned.get(), static_cast<std::size_t>(size));
  return 1;
}

// Argument: escaped text, up to its first zero byte. Result: the bytes. Unlike escape it raises the
// library's own error for what is no text; scripts rely on the difference.
int LuaRovik::unescape(lua_State* L) {
  const MutexLock lock(luaLock);
  char* bytes = nullptr;
  const int size = RovikUtil::unescape(&bytes, luaL_checkstring(L, 1));
  const OwnedText owned(bytes);
  if (size < 0) return 0;
  lua_pushlstring(L, owned.get(), static_cast<std::size_t>(size));
  return 1;
}

// Result: a new table with the wall-clock time.
int LuaRovik::gettimeofday(lua_State* L) {
  const MutexLock lock(luaLock);
  TimeValue now(0, 0);
  TimeValue::getCurrentSystemTime(now);
  lua_newtable(L);
  script::setNumber(L, "sec", static_cast<lua_Number>(now.tv_sec));
  script::setNumber(L, "usec", static_cast<lua_Number>(now.tv_usec));
  return 1;
}

// A call whose rovik cannot be found returns nothing.
template <int (LuaRovik::*Member)(lua_State*)>
int LuaRovik::dispatch(lua_State* L) {
  LuaRovik* const rovik = objectOf(L);
  return rovik != nullptr ? (rovik->*Member)(L) : 0;
}

int LuaRovik::lua_print_dispatch(lua_State* L) { return dispatch<&LuaRovik::print>(L); }
int LuaRovik::lua_unescape_dispatch(lua_State* L) { return dispatch<&LuaRovik::unescape>(L); }
int LuaRovik::lua_escape_dispatch(lua_State* L) { return dispatch<&LuaRovik::escape>(L); }
int LuaRovik::lua_gettimeofday_dispatch(lua_State* L) {
  return dispatch<&LuaRovik::gettimeofday>(L);
}
int LuaRovik::lua_getCMD_dispatch(lua_State* L) { return dispatch<&LuaRovik::getCMD>(L); }
int LuaRovik::lua_getDATA_dispatch(lua_State* L) { return dispatch<&LuaRovik::getDATA>(L); }
int LuaRovik::lua_sndDATA_dispatch(lua_State* L) { return dispatch<&LuaRovik::sndDATA>(L); }
int LuaRovik::lua_sndDATA_REQUEST_dispatch(lua_State* L) {
  return dispatch<&LuaRovik::sndDATA_REQUEST>(L);
}
int LuaRovik::lua_sndACTUATOR_REQUEST_dispatch(lua_State* L) {
  return dispatch<&LuaRovik::sndACTUATOR_REQUEST>(L);
}
int LuaRovik::lua_sndMSG_dispatch(lua_State* L) { return dispatch<&LuaRovik::sndMSG>(L); }
int LuaRovik::lua_sndCMD_dispatch(lua_State* L) { return dispatch<&LuaRovik::sndCMD>(L); }
int LuaRovik::lua_sndMM_dispatch(lua_State* L) { return dispatch<&LuaRovik::sndMM>(L); }
int LuaRovik::lua_getMM_dispatch(lua_State* L) { return dispatch<&LuaRovik::getMM>(L); }
