// The layer between the framework's base class and a transport: one embedded script interpreter per
// rovik.
#pragma once

#include <string>

#include "Mutex.h"
#include "Rovik.h"

struct lua_State;

class LuaRovik : public Rovik {
 public:
  LuaRovik();
  ~LuaRovik() override;

  // Without an open interpreter no word is handled: the reply is "".
  std::string interpretCmd(char** arg) override;

  // Called once per opening, after the script is loaded and before it runs, so that a derived class
  // can add globals and functions of its own. A negative result aborts the opening.
  virtual int localPrepLua();

 protected:
  // Logs an error at level 2 and makes the same text the rovik's warning.
  void report(const char* fmt, ...) __attribute__((format(printf, 2, 3)));

  Mutex luaLock;         // held by each function that a script calls, for its whole run
  lua_State* lua_state;  // null while the interpreter is closed
  char luafile[513];     // 512 characters and a terminator of its own
};
