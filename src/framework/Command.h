// One configuration command on its way to a rovik's own thread and back.
#pragma once

#include <atomic>
#include <functional>
#include <string>
#include <vector>

namespace drovane {

struct CommandResult {
  bool answered = false;  // false: the framework refused it, and `text` says why
  std::string text;       // the rovik's reply, or the refusal
};

// Waits in a rovik's queue until the rovik's thread comes to it between two events. Exactly one of
// begin and withdraw succeeds, so a command that was given up is never run.
class Command {
 public:
  using Done = std::function<void(CommandResult)>;

  Command(std::vector<std::string> its_words, Done when_done)
      : words(std::move(its_words)), done(std::move(when_done)) {}

  bool begin() { return !decided.exchange(true); }
  bool withdraw() { return !decided.exchange(true); }

  const std::vector<std::string> words;
  const Done done;  // called once by whoever succeeded; on the rovik's thread after begin

 private:
  std::atomic<bool> decided{false};
};

}  // namespace drovane
