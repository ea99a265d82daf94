#include "LuaRovik.h"

#include <cstdarg>

#include "Drovane.h"
#include "RovikUtil.h"

LuaRovik::LuaRovik() : lua_state(nullptr), luafile{} { type = MT_LUA; }

LuaRovik::~LuaRovik() = default;

std::string LuaRovik::interpretCmd(char**) { return ""; }

int LuaRovik::localPrepLua() { return 0; }

void LuaRovik::report(const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  const std::string text = RovikUtil::vformat(fmt, args);
  va_end(args);
  Drovane::global.log(LOG_LEVEL_ERROR, id, name, "%s", text.c_str());
  setWarning(text);
}
