// How inputs that are made of several parts are written, by hand or by libFuzzer.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace fuzzing {

// What stands before and behind the first line "%%"; without one everything is the second part.
std::pair<std::string_view, std::string_view> cutInTwo(std::string_view input);

// At most so many lines, without their ends; the last one need not have one.
std::vector<std::string_view> linesOf(std::string_view text, std::size_t most);

// What happens to a rovik, one step after the other. The byte 0xFF and a letter begin a step of
// that kind, which goes on to the next 0xFF; two 0xFF are one that belongs to the step. What stands
// before the first is a step of the kind 0.
struct Step {
  char kind;
  std::string bytes;
};
std::vector<Step> stepsOf(std::string_view text, std::size_t most);

}  // namespace fuzzing
