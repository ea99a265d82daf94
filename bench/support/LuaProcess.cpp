#include "support/LuaProcess.h"

#include <array>
#include <cerrno>
#include <cstdlib>
#include <system_error>

namespace bench {

bool luaSocketInstalled() {
  return std::system("lua5.2 -e 'require(\"socket\")' >/dev/null 2>&1") == 0;
}

LuaProcess::LuaProcess(const std::string& script, const std::string& argument)
    : output(popen(("exec lua5.2 '" + script + "' '" + argument + "'").c_str(), "re")) {
  if (output == nullptr) throw std::system_error(errno, std::generic_category(), "popen");
}

std::string LuaProcess::readLine() {
  std::string line;
  std::array<char, 256> piece;
  while (line.empty() || line.back() != '\n') {
    if (std::fgets(piece.data(), piece.size(), output.get()) == nullptr) return line;
    line += piece.data();
  }
  line.pop_back();
  return line;
}

// Waits for its end.
void LuaProcess::Close::operator()(std::FILE* stream) const { pclose(stream); }

}  // namespace bench
