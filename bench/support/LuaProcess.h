// A plain Lua interpreter in a process of its own, for what a user would write without drovane.
#pragma once

#include <cstdio>
#include <memory>
#include <string>

namespace bench {

// Debian's lua5.2 finds its module "socket".
bool luaSocketInstalled();

class LuaProcess {
 public:
  // Runs the script with one argument. Throws std::system_error.
  LuaProcess(const std::string& script, const std::string& argument);

  // The next line that the script writes, without its end; empty when it has ended.
  std::string readLine();

 private:
  struct Close {
    void operator()(std::FILE* stream) const;
  };
  std::unique_ptr<std::FILE, Close> output;
};

}  // namespace bench
