// The configuration file, read whole and checked before anything is started.
#pragma once

#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace drovane {

// What is wrong with a configuration: "FILE:LINE: what is wrong and what was expected".
class ConfigError : public std::runtime_error {
 public:
  ConfigError(const std::string& file, int line, const std::string& problem)
      : std::runtime_error(file + ':' + std::to_string(line) + ": " + problem) {}
};

struct ConfigCommand {
  int line = 0;
  std::vector<std::string> words;  // at least one
};

struct ConfigRovik {
  int line = 0;
  int id = 0;
  std::string name;
  std::string plug_in;
  std::vector<ConfigCommand> commands;
};

struct ConfigFile {
  // A line holds at most this many bytes, and a file at most this many.
  static constexpr std::size_t kLongestLine = 65536;
  static constexpr std::size_t kLargestFile = 16 * 1024 * 1024;

  std::string path;
  std::optional<std::string> root;  // as it is written
  std::optional<int> log_level;
  std::vector<ConfigRovik> roviks;  // at least one, ids and names unique

  // Throws ConfigError for the first thing that is wrong.
  static ConfigFile read(const std::string& path);

  // The installation root: the directive's folder, seen from the file's, or else the file's own.
  std::string rootFolder() const;
};

// A value as an error text shows it: in quotes, without control bytes, cut when it is long.
std::string quotedValue(std::string_view value);

// Whether plug-ins and roviks may be called this: letters, digits, '_', '.' and '-', 1 to 64.
bool isBareName(std::string_view name);

}  // namespace drovane
