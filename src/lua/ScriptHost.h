// What belongs to an interpreter and is out of its script's reach: a script can write to the
// registry.
#pragma once

#include <atomic>
#include <cstddef>

class LuaRovik;

namespace script {

struct Host {
  std::atomic<std::size_t>& held;  // bytes that the interpreter holds
  LuaRovik* owner;                 // null: functions that the script calls find nobody
};

}  // namespace script
