// Small steps on an interpreter's stack that must not harm the process, whatever the script did.
#pragma once

#include <cstdint>
#include <lua.hpp>
#include <string>

#include "ScriptHost.h"

namespace script {

// A new interpreter of this host, which outlives it; null when there is no memory. The host is the
// context of the allocator: whoever puts another allocator in its place keeps the context.
lua_State* newState(Host& host);
const Host& hostOf(lua_State* L);

// Thrown where an error is raised outside every protected call. See
// panicText.
struct Panic {};

// Installs the handler that throws Panic; without it the interpreter ends the process.
void guardAgainstPanic(lua_State* L);

// Pushes a global. Unlike lua_getglobal it does not call a metamethod of the global table outside a
// protected call: scripts that forbid undeclared globals have one that raises. An error leaves its
// value on the stack in place of the global and returns false.
bool pushGlobal(lua_State* L, const char* name);

// The error on top of the stack as text; never null.
std::string errorText(lua_State* L);
// The error of a Panic as text. Where memory is missing there is no value on the stack.
std::string panicText(lua_State* L);
// After a Panic for want of memory: drops what the step that failed has left above this height. It
// would be taken for a value of the script's later.
void dropUnfinished(lua_State* L, int height);

// A number as 32 bits, the same on every machine: what is behind the point is cut off, negative
// numbers are two's complement, larger ones keep their low 32 bits; what is no number of at most 63
// bits gives 0. (The interpreter's own conversion rounds on some 32-bit machines.)
std::uint32_t toUint32(lua_Number number);
std::uint32_t toUint32(lua_State* L, int index);

// Sets a field of the table on top of the stack, with lua_settable.
void setText(lua_State* L, const char* field, const char* text);
void setNumber(lua_State* L, const char* field, lua_Number number);

}  // namespace script
