// "drovane try": lines in, messages out, without a device.
#include <poll.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <optional>
#include <string>
#include <thread>
#include <utility>

#include "Drovane.h"
#include "RovikUtil.h"
#include "Subcommands.h"
#include "Terminal.h"
#include "Trial.h"
#include "framework/Clock.h"
#include "framework/MessageJson.h"

namespace drovane {
namespace {

constexpr std::chrono::milliseconds kLook{10};

// A line as it is typed, with escapes such as \x02, becomes the bytes that the device says.
std::string unescaped(const std::string& typed) {
  std::string bytes(typed.size() + 1, '\0');
  const int size = RovikUtil::unescape(bytes.data(), static_cast<int>(bytes.size()), typed.c_str());
  bytes.resize(static_cast<std::size_t>(size > 0 ? size : 0));
  return bytes;
}

std::string escaped(const std::string& bytes) {
  std::string text;
  RovikUtil::escape(text, bytes.data(), bytes.size());
  return text;
}

// Shows what lines have become.
class TrialReport {
 public:
  TrialReport(const Trial& its_trial, const Options& options)
      : trial(its_trial), json(options.json), colours(coloursWanted()) {}

  // `cause` is the line, or says in brackets what else was the cause.
  void show(const std::string& cause, const Trial::Outcome& outcome) const {
    if (json) return showJson(cause, outcome);
    std::cout << printable(cause) << '\n';
    for (const RecordOwner& msg : outcome.messages)
      std::cout << "  " << routeText(*msg, trial.names(), colours) << '\n';
    if (!outcome.to_device.empty())
      std::cout << "  -> device \"" << escaped(outcome.to_device) << "\"\n";
    if (outcome.empty()) std::cout << "  nothing\n";
    std::cout << std::flush;
  }

 private:
  static void showJson(const std::string& cause, const Trial::Outcome& outcome) {
    const Json object(cJSON_CreateObject());
    addText(object.get(), "line", cause);
    cJSON* const messages = cJSON_AddArrayToObject(object.get(), "messages");
    for (const RecordOwner& msg : outcome.messages) cJSON_AddItemToArray(messages, msg->toJSON());
    addText(object.get(), "to_device", outcome.to_device);
    std::cout << jsonLine(object.get()) << std::endl;
  }

  const Trial& trial;
  const bool json;
  const bool colours;
};

// The lines of standard input.
class InputLines {
 public:
  // `its_idle` is called now and then while there is none yet.
  explicit InputLines(std::function<void()> its_idle) : idle(std::move(its_idle)) {}

  // None at the end. The last line needs no end.
  std::optional<std::string> next() {
    while (true) {
      const std::size_t end = text.find('\n', looked_at);
      if (end != std::string::npos) return take(end, end + 1);
      looked_at = text.size();
      if (read()) continue;
      if (text.empty()) return std::nullopt;
      return take(text.size(), text.size());
    }
  }

 private:
  std::string take(std::size_t end, std::size_t next_begin) {
    std::string line = text.substr(0, end);
    text.erase(0, next_begin);
    looked_at = 0;
    return line;
  }

  // False at the end.
  bool read() {
    std::array<char, 4096> block;
    pollfd input{STDIN_FILENO, POLLIN, 0};
    while (::poll(&input, 1, static_cast<int>(kLook.count())) == 0) idle();
    const ssize_t count = ::read(STDIN_FILENO, block.data(), block.size());
    if (count < 0) return errno == EINTR || errno == EAGAIN;
    text.append(block.data(), static_cast<std::size_t>(count));
    return count > 0;
  }

  const std::function<void()> idle;
  std::string text;           // read and not taken yet
  std::size_t looked_at = 0;  // of it, for an end of line
};

// A script may end the process, with a status of its own, in the middle of a trial.
std::atomic<bool> trying{false};

void atExit() {
  if (!trying) return;
  std::cerr << "drovane: the script has ended the process\n";
  ::_exit(kRefused);
}

// Nobody can end a thread that does not come back; what it uses stays as it is.
int leave(Trial& trial, int status) {
  const bool was_stuck = trial.stuck();
  const bool ended = trial.stop();
  trying = false;
  if (ended) return status;
  if (!was_stuck) std::cerr << "drovane: the rovik did not end in time\n";
  std::cout << std::flush;
  std::_Exit(status == kDone ? kRefused : status);
}

class Try {
 public:
  Try(const Options& its_options, Trial& its_trial)
      : options(its_options), trial(its_trial), report(trial, options) {}

  int run() {
    showMore("(start)");
    bool all_handled = options.lines.empty() ? sayInput() : sayArguments();
    goOn();
    return all_handled && trial.warnings() == 0 ? kDone : kRefused;
  }

 private:
  bool sayArguments() {
    bool all_handled = true;
    for (const std::string& line : options.lines)
      all_handled = !trial.stuck() && say(line) && all_handled;
    return all_handled;
  }

  bool sayInput() {
    bool all_handled = true;
    InputLines input([this] { showMore("(later)"); });
    while (const auto line = input.next()) {
      all_handled = say(*line) && all_handled;
      if (trial.stuck()) return false;
    }
    return all_handled;
  }

  // False when nothing came of the line.
  bool say(const std::string& line) {
    Trial::Outcome outcome;
    const bool taken = trial.say(unescaped(line), outcome);
    report.show(line, outcome);
    if (!taken)
      std::cerr << "drovane: the rovik has not taken the line '" << printable(line)
                << "'; expected an open link and an answer within 5 s\n";
    return taken && !outcome.empty();
  }

  void showMore(const std::string& cause) {
    const Trial::Outcome outcome = trial.outcome();
    if (!outcome.empty()) report.show(cause, outcome);
  }

  void goOn() {
    if (trial.stuck()) return;
    const auto length = static_cast<std::int64_t>(options.seconds * 1e9);
    const std::int64_t end = Clock::now() + length;
    while (Clock::now() < end) {
      std::this_thread::sleep_for(kLook);
      showMore("(later)");
    }
  }

  const Options& options;
  Trial& trial;
  const TrialReport report;
};

}  // namespace

int tryLines(const Options& options) {
  const auto report = [](const std::string& finding) { std::cerr << printable(finding) + '\n'; };
  try {
    const ConfigFile config = ConfigFile::read(options.file);
    Drovane::global.setLogLevel(options.log_level != 0 ? options.log_level : LOG_LEVEL_ERROR);
    Drovane::global.setInstRoot(options.root.empty() ? config.rootFolder() : options.root);
    Trial trial(config, options.rovik, report);
    trying = std::atexit(atExit) == 0;
    if (!trial.start(options.plugins)) return leave(trial, kUsage);
    return leave(trial, Try(options, trial).run());
  } catch (const ConfigError& error) {
    report(error.what());
    return kUsage;
  }
}

}  // namespace drovane
