// Child processes with what they print, and a deadline for everything.
#pragma once

#include <sys/types.h>

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "framework/Descriptor.h"

// A process that was started; killed at the end if it still runs.
class Process {
 public:
  using Environment = std::map<std::string, std::string>;

  // arguments[0] is the program. `extra` is added to this process's environment.
  explicit Process(std::vector<std::string> arguments, const Environment& extra = {});
  ~Process();
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  pid_t pid() const { return child; }
  void signal(int number) const;

  // Waits until the text has been printed; false when it does not come in time.
  bool waitForOutput(const std::string& text);
  bool waitForErrors(const std::string& text);

  // Waits for the end. The exit status; 128 and the signal's number when one ended it; nothing
  // when it does not end in time.
  std::optional<int> wait();

  // Everything printed so far. Complete after wait.
  const std::string& output();
  const std::string& errors();

 private:
  struct Stream {
    drovane::Descriptor end;
    std::string text;
  };

  void readSome(int milliseconds);
  bool waitFor(const Stream& stream, const std::string& text);

  pid_t child = -1;
  std::optional<int> status;
  Stream out;
  Stream err;
};

struct Finished {
  int status = -1;  // -1: it did not end in time
  std::string output;
  std::string errors;
};

// Runs a program to its end.
Finished runToEnd(std::vector<std::string> arguments, const Process::Environment& extra = {});
