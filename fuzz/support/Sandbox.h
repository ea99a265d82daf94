// What a script that nobody has written may do: everything that this system offers to scripts, and
// nothing to the machine or for long.
#pragma once

#include <cstddef>
#include <lua.hpp>

namespace fuzzing {

// One at a time; lives longer than the interpreter that it is applied to.
class Sandbox {
 public:
  // Takes away what reaches files, the clock or machine code, and sets bounds to instructions,
  // memory, and the bytes that functions work on: beyond them the script meets a Lua error, over
  // and over.
  void apply(lua_State* L);

  // Makes the function at the top of the stack one that costs something; in its place.
  static void makeCharged(lua_State* L);

 private:
  static constexpr std::size_t kMemory = 512 * 1024;
  static constexpr int kStep = 500;                 // instructions
  static constexpr int kSteps = 80;                 // of an input's scripts
  static constexpr std::size_t kWork = 128 * 1024;  // bytes given to functions, and more

  static void* allocate(void* host, void* block, std::size_t before, std::size_t after);
  static void countStep(lua_State* L, lua_Debug* event);
  static int charged(lua_State* L);
  static int setMetatable(lua_State* L);
  void charge(lua_State* L, std::size_t work);
  void exhaust(lua_State* L);

  static Sandbox* current;

  std::size_t memory = 0;
  std::size_t work_done = 0;
  int steps = 0;
};

}  // namespace fuzzing
