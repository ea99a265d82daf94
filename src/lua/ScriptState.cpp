#include "ScriptState.h"

#include <cmath>
#include <cstdlib>

namespace script {
namespace {

int throwPanic(lua_State*) { throw Panic(); }

// Argument 1: the name. Runs in a protected call, metamethods and all.
int globalOfName(lua_State* L) {
  lua_pushglobaltable(L);
  lua_pushvalue(L, 1);
  lua_gettable(L, -2);
  return 1;
}

// The interpreter's allocator, lua_Alloc. `had` tells no size while there is no block.
void* allocate(void* host, void* block, std::size_t had, std::size_t wanted) {
  auto& count = static_cast<Host*>(host)->held;
  const std::size_t size = block != nullptr ? had : 0;
  void* const made = wanted > 0 ? std::realloc(block, wanted) : nullptr;
  if (wanted == 0) std::free(block);
  if (made != nullptr || wanted == 0)
    count.store(count.load(std::memory_order_relaxed) - size + wanted, std::memory_order_relaxed);
  return made;
}

}  // namespace

lua_State* newState(Host& host) { return lua_newstate(allocate, &host); }

const Host& hostOf(lua_State* L) {
  void* host = nullptr;
  lua_getallocf(L, &host);
  return *static_cast<const Host*>(host);
}

void guardAgainstPanic(lua_State* L) { lua_atpanic(L, throwPanic); }

bool pushGlobal(lua_State* L, const char* name) {
  lua_pushglobaltable(L);
  if (lua_istable(L, -1)) {  // unless a script has put something else in its place
    lua_pushstring(L, name);
    lua_rawget(L, -2);
    const bool plain = !lua_isnil(L, -1) || !lua_getmetatable(L, -2);
    if (plain) {
      lua_remove(L, -2);
      return true;
    }
    lua_pop(L, 2);
  }
  lua_pop(L, 1);
  lua_pushcfunction(L, globalOfName);
  lua_pushstring(L, name);
  return lua_pcall(L, 1, 1, 0) == LUA_OK;
}

std::string errorText(lua_State* L) {
  const char* text = lua_tostring(L, -1);
  if (text != nullptr) return text;
  return std::string("(error is a ") + luaL_typename(L, -1) + " value)";
}

std::string panicText(lua_State* L) {
  return lua_status(L) == LUA_ERRMEM ? "not enough memory" : errorText(L);
}

void dropUnfinished(lua_State* L, int height) {
  if (lua_status(L) == LUA_ERRMEM && lua_gettop(L) > height) lua_settop(L, height);
}

std::uint32_t toUint32(lua_Number number) {
  constexpr lua_Number kLimit = 9223372036854775808.0;  // 2^63
  if (!(std::abs(number) < kLimit)) return 0;
  return static_cast<std::uint32_t>(static_cast<std::int64_t>(number));
}

std::uint32_t toUint32(lua_State* L, int index) { return toUint32(lua_tonumber(L, index)); }

void setText(lua_State* L, const char* field, const char* text) {
  lua_pushstring(L, field);
  lua_pushstring(L, text);
  lua_settable(L, -3);
}

void setNumber(lua_State* L, const char* field, lua_Number number) {
  lua_pushstring(L, field);
  lua_pushnumber(L, number);
  lua_settable(L, -3);
}

}  // namespace script
