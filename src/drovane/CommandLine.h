// The command line's grammar: subcommands, options, help.
#pragma once

#include <string>
#include <vector>

#include "Options.h"

namespace drovane {

struct ParsedCommandLine {
  int (*subcommand)(const Options&) = nullptr;  // null: everything is said, leave with `status`
  Options options;
  int status = 0;
};

// Prints help and usage errors.
ParsedCommandLine parseCommandLine(std::vector<std::string> arguments);

}  // namespace drovane
