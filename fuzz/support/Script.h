// Scripts out of bytes.
#pragma once

#include <string>
#include <string_view>

namespace fuzzing {

// Lines of Lua; but a line "@EVENT letters" stands for a function ROVIK_EVENT(d) of the script, in
// which each letter is a statement (see the table): mutations of such lines are scripts, while
// those of Lua seldom are.
std::string scriptOf(std::string_view text);

}  // namespace fuzzing
