// Where log lines go.
//
// A line is TIME LEVEL ID NAME TEXT: local ISO 8601 time with milliseconds and offset, the level's
// digit, the rovik's number and name, the text. It is formatted on the thread that logs and
// written by a thread of spdlog's; a flood that the writer cannot take loses its oldest lines, and
// one line says how many.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace drovane {

// The framework's own lines carry these.
inline constexpr int kFrameworkId = 0;
inline constexpr const char* kFrameworkName = "drovane";

struct LogLine {
  int level;
  int id;
  std::string_view name;
  std::string_view text;  // without the line end, control bytes escaped
};

class Log {
 public:
  static Log& global();

  // Lines go to standard error, coloured by level when that is a terminal. This is also where they
  // go, one by one, before open and after close.
  void openTerminal();

  // Lines go to `path`, see LogFile. Throws std::runtime_error that names the file when it cannot
  // be opened.
  void openFile(const std::string& path);

  // Lines go to `writer`, on the writer's thread, without their time. What it throws is complained
  // about on standard error; that line is lost.
  void openWriter(std::function<void(const LogLine&)> writer);

  // Writes what is still waiting and goes back to writing line by line.
  void close();

  // Called with every line that passes the level, on the thread that logs; an empty function ends
  // it. Nothing is called any more once this has returned.
  void observe(std::function<void(const LogLine&)> observer);

  // A line whose level has passed. `text` may be changed. For want of memory it throws.
  void write(int level, int id, std::string_view name, std::string& text);

  // A line could not even be made. The next one that can says how many there were.
  void countLost() noexcept;

  // Makes what the lines of this thread are formatted in.
  static void prepareThread();

  // Control bytes become \n, \r, \t and \xNN; one line end at the end goes. A backslash stays.
  static void makeOneLine(std::string& text);

  struct State;

 private:
  Log();
  ~Log();
  std::unique_ptr<State> state;
};

}  // namespace drovane
