// Failures of calls that no peer, device or limit can be made to cause, and a serial port's modem
// lines, which a pseudo-terminal has not. The linker leads the calls of this executable through
// here (see tests/CMakeLists.txt for the list).
#pragma once

#include <termios.h>

#include <optional>
#include <string_view>

// Makes one call of `name` fail, the first one after `spared` others; others go through. One at a
// time.
class FailingCall {
 public:
  FailingCall(std::string_view its_name, int its_error, int its_spared = 0);
  ~FailingCall();
  FailingCall(const FailingCall&) = delete;
  FailingCall& operator=(const FailingCall&) = delete;

  bool happened() const;

  // Whether this call is to fail; errno is then set.
  static bool strikes(std::string_view called);

 private:
  const std::string_view name;
  const int error;
  int spared;
  bool struck = false;
};

// Gives every terminal modem lines, for as long as it lives. One at a time.
class ModemLines {
 public:
  explicit ModemLines(int its_lines);
  ~ModemLines();
  ModemLines(const ModemLines&) = delete;
  ModemLines& operator=(const ModemLines&) = delete;

  int lines;        // TIOCM_... bits
  int flushes = 0;  // calls of tcflush
};

// What the last call of tcsetattr was given, however much of it the terminal could keep; nothing
// when there was none since the last time this was asked.
std::optional<termios> takeSettings();
