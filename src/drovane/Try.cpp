// "drovane try": lines in, messages out, without a device.
#include <chrono>
#include <iostream>
#include <string>
#include <thread>

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
    for (const std::string& line : options.lines) all_handled = say(line) && all_handled;
    return all_handled;
  }

  bool sayInput() {
    bool all_handled = true;
    for (std::string line; std::getline(std::cin, line);) all_handled = say(line) && all_handled;
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
    Drovane::global.setLogLevel(LOG_LEVEL_ERROR);
    Drovane::global.setInstRoot(options.root.empty() ? config.rootFolder() : options.root);
    Trial trial(config, options.rovik, report);
    if (!trial.start(options.plugins)) return kUsage;
    if (options.log_level != 0) Drovane::global.setLogLevel(options.log_level);
    return Try(options, trial).run();
  } catch (const ConfigError& error) {
    report(error.what());
    return kUsage;
  }
}

}  // namespace drovane
