// The services of the running framework: the log and the installation root.
#pragma once

#include <atomic>
#include <string>

// Levels of Drovane::log. A line is written when its level is at or below the configured one.
enum LogLevels : int {
  LOG_LEVEL_ERROR = 2,  // errors: failed system calls, refused settings, script errors
  LOG_LEVEL_INFO = 3,   // settings, connection and message events, start and stop
  LOG_LEVEL_DEBUG = 4,  // traces, I/O dumps, refused script calls
};

// Used through its one instance, Drovane::global. Every operation may be called from any thread.
class Drovane {
 public:
  static Drovane global;

  // Writes one log line for the rovik `id` called `name`. `fmt` and what follows are those of
  // printf(3); one "\n" at the end is dropped, and control bytes inside the text come out as
  // \n, \r, \t or \xNN, so no text can look like a second line. Returns at once: the line is
  // written by a thread of the log's own.
  void log(int level, int id, std::string name, const char* fmt, ...)
      __attribute__((format(printf, 5, 6)));

  // True when a line of this level would be written. Ask first where making the arguments of a
  // trace line costs something.
  bool logs(int level) const { return level <= threshold.load(std::memory_order_relaxed); }

  // Lets lines up to `level` through.
  void setLogLevel(int level) { threshold.store(level, std::memory_order_relaxed); }
  int logLevel() const { return threshold.load(std::memory_order_relaxed); }

  // Writes the installation root, the directory that holds lua/, into `buf` as a NUL-terminated
  // text of at most `size` bytes; a longer path is cut.
  void getInstRoot(char* buf, int size) const;

  // Set by the program before the roviks that are to see it are started.
  void setInstRoot(const std::string& path);

  // True while a configuration is only being checked. A rovik then answers its commands as far
  // as it can without acting: it opens nothing, sends nothing and runs no script.
  bool checking() const { return check_only.load(std::memory_order_relaxed); }
  void setChecking(bool on) { check_only.store(on, std::memory_order_relaxed); }

 private:
  Drovane() = default;

  std::atomic<int> threshold{LOG_LEVEL_INFO};
  std::atomic<bool> check_only{false};
};
