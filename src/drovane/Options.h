// What was typed behind "drovane".
#pragma once

#include <string>
#include <vector>

namespace drovane {

// The options of all subcommands; each reads its own.
struct Options {
  std::string file;
  std::string root;
  std::string plugins;
  std::string control;
  std::string log_file;
  bool log_journal = false;
  int log_level = 0;  // 0: not given
  bool strict = false;
  int restart_hung = 0;  // seconds; 0: not given
  std::string rovik;
  std::vector<std::string> words;
  std::string key;
  std::string type;
  std::string value;
  std::string to;
  bool actuator = false;
  bool json = false;
  std::string level;
  std::vector<std::string> lines;  // to try
  double seconds = 0;
  std::vector<std::string> roviks;  // to watch
  std::vector<std::string> kinds;
  std::vector<std::string> keys;
  bool hex = false;
  std::string record;
  bool force = false;
  int port = 0;  // 0: any that is free
  std::string link;
  double speed = 1;
};

// The exit statuses.
inline constexpr int kDone = 0;
inline constexpr int kRefused = 1;     // by the rovik or by the running drovane
inline constexpr int kUsage = 2;       // or a configuration that cannot be used
inline constexpr int kNotRunning = 3;  // no drovane to talk to

}  // namespace drovane
