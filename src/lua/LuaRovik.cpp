// Life of the interpreter: opening, closing, and the commands that do so.
#include "LuaRovik.h"

#include <array>
#include <cstdarg>
#include <cstdio>
#include <string_view>
#include <utility>

#include "Drovane.h"
#include "RovikUtil.h"
#include "ScriptState.h"

namespace {

constexpr std::size_t kPathSize = 512;  // with a terminator; what is longer is cut
const char kOk[] = "OK";
const char kError[] = "ERROR";

struct ScriptFunction {
  const char* name;
  lua_CFunction function;
};

constexpr ScriptFunction kFunctions[] = {
    {"print", LuaRovik::lua_print_dispatch},
    {"unescape", LuaRovik::lua_unescape_dispatch},
    {"escape", LuaRovik::lua_escape_dispatch},
    {"gettimeofday", LuaRovik::lua_gettimeofday_dispatch},
    {"getCMD", LuaRovik::lua_getCMD_dispatch},
    {"getDATA", LuaRovik::lua_getDATA_dispatch},
    {"sndDATA", LuaRovik::lua_sndDATA_dispatch},
    {"sndDATA_REQUEST", LuaRovik::lua_sndDATA_REQUEST_dispatch},
    {"sndACTUATOR_REQUEST", LuaRovik::lua_sndACTUATOR_REQUEST_dispatch},
    {"sndMSG", LuaRovik::lua_sndMSG_dispatch},
    {"sndCMD", LuaRovik::lua_sndCMD_dispatch},
    {"sndMM", LuaRovik::lua_sndMM_dispatch},
    {"getMM", LuaRovik::lua_getMM_dispatch},
};

std::string installationRoot() {
  std::array<char, kPathSize> root{};
  Drovane::global.getInstRoot(root.data(), static_cast<int>(root.size()));
  return root.data();
}

// The person knows the root; what counts is the file below it. Where a line is named the
// interpreter keeps only the end of a long path.
std::string withFile(std::string text, const std::string& path, const std::string& file) {
  static constexpr std::size_t kKept = LUA_IDSIZE - sizeof "...";
  const std::size_t cut = path.size() + 1 > LUA_IDSIZE - 1 ? path.size() - kKept : 0;
  const std::string named = cut > 0 ? "..." + path.substr(cut) : path;
  if (text.starts_with(named)) text.replace(0, named.size(), file);
  const std::size_t at = text.find(path);
  if (at != std::string::npos) text.replace(at, path.size(), file);
  return text;
}

std::string scriptPath(const std::string& root, const char* file) {
  return (root + "/lua/" + file).substr(0, kPathSize - 1);
}

}  // namespace

LuaRovik::LuaRovik() : lua_state(nullptr), luafile{}, script_host{scriptMemory(), this} {
  type = MT_LUA;
}

// A finalizer of the script may still call a function; the derived part of the rovik is gone by
// now, so such a call must not find it.
LuaRovik::~LuaRovik() {
  if (lua_state == nullptr) return;
  script_host.owner = nullptr;
  endInterpreter();
}

// Events that finalizers cause see a closed interpreter.
void LuaRovik::endInterpreter() { lua_close(std::exchange(lua_state, nullptr)); }

int LuaRovik::localPrepLua() { return 0; }

void LuaRovik::report(const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  const std::string text = RovikUtil::vformat(fmt, args);
  va_end(args);
  Drovane::global.log(LOG_LEVEL_ERROR, id, name, "%s", text.c_str());
  setWarning(text);
}

void LuaRovik::trace(const char* fmt, ...) const {
  if (!Drovane::global.logs(LOG_LEVEL_DEBUG)) return;
  va_list args;
  va_start(args, fmt);
  const std::string text = RovikUtil::vformat(fmt, args);
  va_end(args);
  Drovane::global.log(LOG_LEVEL_DEBUG, id, name, "%s", text.c_str());
}

int LuaRovik::abortOpening() {
  endInterpreter();
  return -1;
}

void LuaRovik::registerFunctions() {
  for (const ScriptFunction& entry : kFunctions) {
    lua_pushcclosure(lua_state, entry.function, 0);
    lua_setglobal(lua_state, entry.name);
  }
}

// Leaves the compiled script on the stack.
int LuaRovik::loadScript() {
  const std::string root = installationRoot();
  if (luaL_loadfilex(lua_state, scriptPath(root, luafile).c_str(), nullptr) != LUA_OK) {
    report("lua file load error: %s\n", script::errorText(lua_state).c_str());
    return abortOpening();
  }
  lua_pushstring(lua_state, root.c_str());
  lua_setglobal(lua_state, "INSTROOT");
  if (localPrepLua() < 0) {
    report("lua local prep error\n");
    return abortOpening();
  }
  return 0;
}

int LuaRovik::prepLua() {
  if (lua_state != nullptr) {
    trace("cannot prep lua as lua already open\n");
    return 1;
  }
  lua_state = script::newState(script_host);
  if (lua_state == nullptr) {
    // The same words as above, on purpose: whoever watches for them sees both.
    trace("cannot prep lua as lua already open\n");
    return -1;
  }
  script::guardAgainstPanic(lua_state);
  try {
    luaL_openlibs(lua_state);
    registerFunctions();
    return loadScript();
  } catch (const script::Panic&) {
    report("lua file load error: %s\n", script::panicText(lua_state).c_str());
    return abortOpening();
  }
}

int LuaRovik::initLua() {
  if (lua_state == nullptr) return -1;
  try {
    return runInit();
  } catch (const script::Panic&) {
    report("lua init error: %s\n", script::panicText(lua_state).c_str());
    return abortOpening();
  }
}

int LuaRovik::runInit() {
  if (lua_pcall(lua_state, 0, 0, 0) != LUA_OK) {
    report("lua error: %s\n", script::errorText(lua_state).c_str());
    return abortOpening();
  }
  bool good = script::pushGlobal(lua_state, "ROVIK_INIT");
  if (good) {
    lua_pushlightuserdata(lua_state, this);
    good = lua_pcall(lua_state, 1, 0, 0) == LUA_OK;
  }
  if (good) return 0;
  report("lua init error: %s\n", script::errorText(lua_state).c_str());
  return abortOpening();
}

int LuaRovik::openLua() {
  const int prepared = prepLua();
  if (prepared == 1) return 0;
  return prepared < 0 ? prepared : initLua();
}

int LuaRovik::closeLua() {
  if (lua_state == nullptr) {
    trace("cannot close lua as lua not open\n");
    return 0;
  }
  endInterpreter();
  return 0;
}

std::string LuaRovik::openOrComplain() {
  if (Drovane::global.checking()) return checkScript();
  if (openLua() >= 0) return kOk;
  Drovane::global.log(LOG_LEVEL_INFO, id, name, "opening lua with file lua/%s failed\n", luafile);
  closeLua();
  return kError;
}

// While a configuration is only being checked the script is compiled but not run.
std::string LuaRovik::checkScript() {
  script_checked = true;
  const std::string file = std::string("lua/") + luafile;
  const std::string path = scriptPath(installationRoot(), luafile);
  std::atomic<std::size_t> held{0};
  script::Host nobody{held, nullptr};
  lua_State* L = script::newState(nobody);
  if (L == nullptr) return "ERROR (not enough memory to check " + file + ")";
  std::string reply = kOk;
  if (luaL_loadfilex(L, path.c_str(), nullptr) != LUA_OK) {
    reply = "ERROR (" + withFile(script::errorText(L), path, file) + ")";
  }
  lua_close(L);
  return reply;
}

std::string LuaRovik::interpretCmd(char** arg) {
  if (arg[0] == nullptr) return "";
  const std::string_view word = arg[0];
  if (word == "luafile" && arg[1] != nullptr) {
    std::snprintf(luafile, sizeof luafile, "%s", arg[1]);
    Drovane::global.log(LOG_LEVEL_INFO, id, name, "lua file set to: %s\n", luafile);
    return kOk;
  }
  if (word == "luaopen") return openOrComplain();
  if (word == "luaclose") {
    closeLua();
    return kOk;
  }
  if (word == "luarestart") {
    closeLua();
    return openOrComplain();
  }
  if (script_checked) return kOk;
  return lua_state != nullptr ? callCommand(arg) : "";
}
