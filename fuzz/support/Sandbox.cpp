#include "support/Sandbox.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <string_view>

namespace fuzzing {
namespace {

void removeGlobal(lua_State* L, const char* name) {
  lua_pushnil(L);
  lua_setglobal(L, name);
}

void removeField(lua_State* L, const char* table, const char* name) {
  lua_getglobal(L, table);
  lua_pushnil(L);
  lua_setfield(L, -2, name);
  lua_pop(L, 1);
}

void chargeGlobal(lua_State* L, const char* name) {
  lua_getglobal(L, name);
  Sandbox::makeCharged(L);
  lua_setglobal(L, name);
}

void chargeField(lua_State* L, const char* table, const char* name) {
  lua_getglobal(L, table);
  lua_getfield(L, -1, name);
  Sandbox::makeCharged(L);
  lua_setfield(L, -2, name);
  lua_pop(L, 1);
}

std::string_view textAt(lua_State* L, int index) {
  std::size_t length = 0;
  const char* text = lua_type(L, index) == LUA_TSTRING ? lua_tolstring(L, index, &length) : "";
  return {text, length};
}

// What the bytes of the arguments do not tell: string.rep makes many of few, and the library's
// matcher tries again and again, in a time that grows with the power of the number of repetitions.
double workOfText(lua_State* L) {
  const std::string_view text = textAt(L, 1);
  if (lua_type(L, 2) == LUA_TNUMBER) return lua_tonumber(L, 2) * static_cast<double>(text.size());
  const std::string_view pattern = textAt(L, 2);
  const auto repetitions = std::count_if(pattern.begin(), pattern.end(), [](char byte) {
    return std::string_view("*+-?").find(byte) != std::string_view::npos;
  });
  constexpr double kStepsPerByte = 1000;
  return std::pow(static_cast<double>(text.size() + 1), static_cast<double>(repetitions + 1)) /
         kStepsPerByte;
}

// table.insert at the end and table.remove of what is there: the library walks from any number that
// it is given.
int insertAtEnd(lua_State* L) {
  luaL_checktype(L, 1, LUA_TTABLE);
  lua_settop(L, 2);
  lua_rawseti(L, 1, static_cast<int>(lua_rawlen(L, 1)) + 1);
  return 0;
}

int removeWithin(lua_State* L) {
  luaL_checktype(L, 1, LUA_TTABLE);
  const auto size = static_cast<int>(lua_rawlen(L, 1));
  const int place = luaL_optint(L, 2, size);
  if (place < 1 || place > size) return 0;
  lua_rawgeti(L, 1, place);
  for (int i = place; i < size; ++i) {
    lua_rawgeti(L, 1, i + 1);
    lua_rawseti(L, 1, i);
  }
  lua_pushnil(L);
  lua_rawseti(L, 1, size);
  return 1;
}

void setField(lua_State* L, const char* table, const char* name, lua_CFunction function) {
  lua_getglobal(L, table);
  lua_pushcfunction(L, function);
  Sandbox::makeCharged(L);
  lua_setfield(L, -2, name);
  lua_pop(L, 1);
}

}  // namespace

Sandbox* Sandbox::current = nullptr;

void Sandbox::apply(lua_State* L) {
  current = this;
  memory = 0;
  for (const char* name : {"os", "io", "package", "require", "dofile", "loadfile", "load",
                           "loadstring", "debug", "collectgarbage"})
    removeGlobal(L, name);
  removeField(L, "string", "dump");
  removeField(L, "math", "random");
  removeField(L, "math", "randomseed");
  setField(L, "table", "insert", insertAtEnd);
  setField(L, "table", "remove", removeWithin);
  for (const char* name : {"rep", "find", "match", "gmatch", "gsub", "format", "upper", "lower",
                           "reverse", "byte", "char", "len", "sub"})
    chargeField(L, "string", name);
  for (const char* name : {"concat", "sort", "pack", "unpack"}) chargeField(L, "table", name);
  for (const char* name :
       {"print", "unescape", "escape", "gettimeofday", "getCMD", "getDATA", "sndDATA",
        "sndDATA_REQUEST", "sndACTUATOR_REQUEST", "sndMSG", "sndCMD", "sndMM", "getMM", "tostring"})
    chargeGlobal(L, name);
  lua_getglobal(L, "setmetatable");
  lua_pushcclosure(L, setMetatable, 1);
  lua_setglobal(L, "setmetatable");
  lua_sethook(L, countStep, LUA_MASKCOUNT, kStep);
  // The rovik is found by the allocator's context.
  void* host = nullptr;
  lua_getallocf(L, &host);
  lua_setallocf(L, allocate, host);
}

// What is made smaller always is.
void* Sandbox::allocate(void*, void* block, std::size_t before, std::size_t after) {
  auto& box = *current;
  if (block == nullptr) before = 0;  // a kind of object then, no size
  if (after > before && box.memory + (after - before) > kMemory) return nullptr;
  // Blocks from before the sandbox are given back too.
  box.memory = box.memory + after > before ? box.memory + after - before : 0;
  if (after > 0) return std::realloc(block, after);
  std::free(block);
  return nullptr;
}

// Once it is over every instruction meets the error, also behind a pcall.
void Sandbox::exhaust(lua_State* L) {
  lua_sethook(L, countStep, LUA_MASKCOUNT, 1);
  steps = kSteps;
  work_done = kWork;
  luaL_error(L, "enough");
}

void Sandbox::countStep(lua_State* L, lua_Debug*) {
  if (++current->steps > kSteps) current->exhaust(L);
}

void Sandbox::charge(lua_State* L, std::size_t work) {
  work_done += work;
  if (work_done > kWork) exhaust(L);
}

void Sandbox::makeCharged(lua_State* L) { lua_pushcclosure(L, charged, 1); }

int Sandbox::charged(lua_State* L) {
  constexpr std::size_t kCall = 64;
  std::size_t work = kCall;
  const int arguments = lua_gettop(L);
  for (int i = 1; i <= arguments; ++i)
    if (lua_type(L, i) == LUA_TSTRING) work += lua_rawlen(L, i);
  const double more = workOfText(L);
  current->charge(L,
                  more < kWork ? work + static_cast<std::size_t>(std::max(more, 0.0)) : kWork + 1);
  lua_pushvalue(L, lua_upvalueindex(1));
  lua_insert(L, 1);
  lua_call(L, arguments, LUA_MULTRET);
  return lua_gettop(L);
}

// Nothing can interrupt a finalizer.
int Sandbox::setMetatable(lua_State* L) {
  if (lua_istable(L, 2)) {
    lua_pushliteral(L, "__gc");
    lua_rawget(L, 2);
    if (!lua_isnil(L, -1)) return luaL_error(L, "no finalizers");
    lua_pop(L, 1);
  }
  const int arguments = lua_gettop(L);
  lua_pushvalue(L, lua_upvalueindex(1));
  lua_insert(L, 1);
  lua_call(L, arguments, LUA_MULTRET);
  return lua_gettop(L);
}

}  // namespace fuzzing
