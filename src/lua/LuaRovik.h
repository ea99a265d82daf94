// The layer between the framework's base class and a transport: one embedded Lua 5.2 interpreter
// per rovik.
//
//   closed --"luaopen"--> open --"luaclose"--> closed
//
// Opening loads lua/<luafile> under the installation root, runs it and calls its ROVIK_INIT with
// the rovik itself as a light userdata, which the script keeps in the global m_p. While the
// interpreter is open the rovik's events call functions of the script, and configuration words that
// nothing else handles call the script's function of that name. See docs/lua.md.
//
// The interpreter is the C++ build of Lua: an error in a script unwinds as a C++ exception, so
// locks and messages that live in a scope are released.
//
// The stack of the interpreter. What an event function or a command returns, and what it raises,
// stays on the stack; the value at the bottom decides what a later return value may do, so scripts
// see a difference. When the stack grows high everything but the bottom value is dropped.
#pragma once

#include <string>

#include "Mutex.h"
#include "Rovik.h"
#include "ScriptHost.h"

struct lua_State;

class LuaRovik : public Rovik {
 public:
  LuaRovik();
  ~LuaRovik() override;

  // "luafile", "luaopen", "luaclose", "luarestart"; any other word is a function of the script.
  // Without an open interpreter such a word is not handled: the reply is "".
  std::string interpretCmd(char** arg) override;

  // Called once per opening, after the script is loaded and before it runs, so that a derived class
  // can add globals and functions of its own. A negative result aborts the opening.
  virtual int localPrepLua();

  // What scripts call. Each finds the rovik through m_p and runs the member of the same name.
  static int lua_print_dispatch(lua_State* L);
  static int lua_unescape_dispatch(lua_State* L);
  static int lua_escape_dispatch(lua_State* L);
  static int lua_gettimeofday_dispatch(lua_State* L);
  static int lua_getCMD_dispatch(lua_State* L);
  static int lua_getDATA_dispatch(lua_State* L);
  static int lua_sndDATA_dispatch(lua_State* L);
  static int lua_sndDATA_REQUEST_dispatch(lua_State* L);
  static int lua_sndACTUATOR_REQUEST_dispatch(lua_State* L);
  static int lua_sndMSG_dispatch(lua_State* L);
  static int lua_sndCMD_dispatch(lua_State* L);
  static int lua_sndMM_dispatch(lua_State* L);
  static int lua_getMM_dispatch(lua_State* L);

 protected:
  // An event function of the script, and what is logged when it returns no delay.
  struct ScriptEvent {
    const char* function;
    const char* no_timer;
  };

  // Logs an error at level 2 and makes the same text the rovik's warning.
  void report(const char* fmt, ...) __attribute__((format(printf, 2, 3)));

  // Logs at level 4. Costs a look when such lines are not written, but for making the arguments.
  void trace(const char* fmt, ...) const __attribute__((format(printf, 2, 3)));

  // 0 when a new interpreter was made and the script loaded, 1 when one was open already, -1 on
  // failure (the interpreter is closed).
  int prepLua();
  // Runs the loaded script and then ROVIK_INIT. 0, or -1 (the interpreter is closed).
  int initLua();
  int openLua();
  // Always 0; logs when nothing is open.
  int closeLua();

  // Calls an event function with the arguments that `push` puts on the stack; a negative number
  // from it means that they could not be made: the call is skipped. One returned value is the delay
  // until the next timer call in microseconds (popTimer); an error is reported and leaves the timer
  // alone. Needs an open interpreter.
  template <typename Push>
  void raise(const ScriptEvent& event, Push push) {
    raiseWith(
        event, [](lua_State* L, void* context) { return (*static_cast<Push*>(context))(L); },
        &push);
  }

  // Re-arms the timer with the value at the top of the stack, in microseconds, at most `seconds`;
  // with `seconds` itself when the value at the bottom is no number. With a number at the bottom
  // and none at the top there is no delay to read: that is reported like a script's error and the
  // timer stays as it is. It is not raised: a callback may run inside a function that another one
  // called, where an error would unwind through a link that is being opened or closed. 0.
  int popTimer(lua_State* L, int seconds);

  // The rovik that a function called by a script belongs to: the script's m_p. Null, after one
  // level-4 line, when the script never stored it or stored something else. Leaves the stack as it
  // was.
  static LuaRovik* objectOf(lua_State* L);

  // --- Messages and tables (LuaMessages.cpp) ---

  // Pushes a message as a new table. 0, or -1 with nothing pushed for an unknown kind.
  int pushRovikMessage(lua_State* L, RovikMessage* msg);
  // A new message from the table at stack index 1, the caller's; null when the table describes
  // none. Leaves the stack as it was.
  RovikMessage* processMM(lua_State* L);
  // Fill one group of fields from the table at stack index 1. 0 or -1.
  int processMM_HEADER(RovikMessage* msg, lua_State* L);
  int processMM_KEY(RovikMessage* msg, lua_State* L);
  int processMM_VALUETYPE(RovikMessage* msg, lua_State* L);
  int processMM_VALUE(RovikMessage* msg, lua_State* L);

  // --- Functions for scripts: arguments from stack index 1, result the number of results ---

  int print(lua_State* L);
  int unescape(lua_State* L);
  int escape(lua_State* L);
  int gettimeofday(lua_State* L);
  int getCMD(lua_State* L);
  int getDATA(lua_State* L);
  int sndDATA(lua_State* L);
  int sndDATA_REQUEST(lua_State* L);
  int sndACTUATOR_REQUEST(lua_State* L);
  int sndMSG(lua_State* L);
  int sndCMD(lua_State* L);
  int sndMM(lua_State* L);
  int getMM(lua_State* L);

  Mutex luaLock;         // held by each function that a script calls, for its whole run
  lua_State* lua_state;  // null while the interpreter is closed
  char luafile[513];     // 512 characters and a terminator of its own

 private:
  // Logs one line for a destination, one text for each form of it.
  struct DestinationLines {
    const char* to_number;  // "%s to %d"
    const char* broadcast;  // "%s"
    const char* to_name;    // "%s to %s"
  };
  // What a function that sends a value logs.
  struct ValueLines {
    const char* as_int;     // "%s = %d"
    const char* as_float;   // "%s = %f"
    const char* as_string;  // "%s = %s"
    DestinationLines destination;
  };

  using PushArguments = int (*)(lua_State* L, void* context);
  void raiseWith(const ScriptEvent& event, PushArguments push, void* context);
  void callEvent(int height, const ScriptEvent& event, PushArguments push, void* context);
  void armTimer(int microseconds, int seconds);

  void endInterpreter();
  int abortOpening();
  int loadScript();
  int runInit();
  void registerFunctions();
  std::string callCommand(char** arg);
  std::string runCommand(int height, char** arg);
  std::string checkScript();
  std::string openOrComplain();

  script::Host script_host;  // against its owner a script's m_p is held

  static constexpr int kMessageTextSize = 512;
  static constexpr DestinationLines kDataRequestLines = {"LUA: DATA_REQUEST %s to %d\n",
                                                         "LUA: DATA_REQUEST %s as broadcast\n",
                                                         "LUA: DATA_REQUEST %s to %s\n"};
  static constexpr DestinationLines kCmdRequestLines = {"LUA: CMD_REQUEST %s to %d\n",
                                                        "LUA: CMD_REQUEST %s as broadcast\n",
                                                        "LUA: CMD_REQUEST %s to %s\n"};
  static constexpr DestinationLines kMessageLines = {"LUA: %s to %d\n", "LUA: %s as broadcast\n",
                                                     "LUA: %s to %s\n"};

  template <int (LuaRovik::*Member)(lua_State*)>
  static int dispatch(lua_State* L);

  bool fillMessage(RovikMessage& msg, lua_State* L);
  bool fillValueMessage(RovikMessage& msg, lua_State* L);
  bool fillDataRequest(MMDataRequest& request, lua_State* L);

  void refuse(const char* text);
  bool argumentCountIs(lua_State* L, int count);
  template <typename Kind>
  bool decodeKeyAndType(lua_State* L, Kind& msg);
  template <typename Kind>
  bool decodeValue(lua_State* L, Kind& msg, const ValueLines& lines);
  bool decodeCommand(lua_State* L, MMCmdRequest& msg);
  RovikMessage* messageArgument(lua_State* L);
  bool decodeDestination(lua_State* L, int index, RovikMessage& msg, const char* what,
                         const DestinationLines& lines);
  template <typename Kind>
  int sendValue(lua_State* L, MessageTypes kind, const ValueLines& lines);
  int answer(lua_State* L, RovikMessage* reply, MessageTypes expected, const char* wrong_kind);

  bool script_checked = false;  // while a configuration is checked: its script compiles
};
