#include "House.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <exception>
#include <new>
#include <thread>
#include <utility>

#include "Clock.h"
#include "Drovane.h"
#include "Log.h"

namespace drovane {
namespace {

using State = House::Member::State;

constexpr std::chrono::milliseconds kLook{2};
// How long the next rovik waits for the one before it to be configured.
constexpr std::chrono::milliseconds kOvertaking{100};
constexpr std::size_t kShownCommand = 200;

void say(const std::string& text) {
  Drovane::global.log(LOG_LEVEL_INFO, kFrameworkId, kFrameworkName, "%s\n", text.c_str());
}

std::string shown(const std::vector<std::string>& words) {
  std::string text;
  for (const std::string& word : words) text += (text.empty() ? "" : " ") + word;
  if (text.size() > kShownCommand) text.replace(kShownCommand, std::string::npos, "...");
  Log::makeOneLine(text);
  return text;
}

}  // namespace

std::string House::Member::label() const { return std::to_string(config.id) + ' ' + config.name; }

House::House(ConfigFile its_config, Report its_report)
    : config(std::move(its_config)), report_to(std::move(its_report)) {
  for (const ConfigRovik& rovik : config.roviks) members.emplace_back(rovik);
}

House::~House() = default;

bool House::report(int line, const std::string& problem) const {
  report_to(ConfigError(config.path, line, problem).what());
  return false;
}

// Every rovik is tried, so that a check names all that cannot be made.
bool House::make(PluginLoader& loader) {
  bool all_made = true;
  for (Member& member : members) all_made = makeOne(member, loader) && all_made;
  return all_made;
}

bool House::makeOne(Member& member, PluginLoader& loader) {
  const ConfigRovik& wanted = member.config;
  try {
    PluginLoader::Made made = loader.make(wanted.plug_in, wanted.id, wanted.name);
    member.rovik = std::move(made.rovik);
    member.file = std::move(made.file);
  } catch (const PluginError& error) {
    return report(wanted.line, error.what());
  }
  if (!member.host().enterRouter())
    return report(wanted.line, "id or name of rovik " + member.label() + " is already in use");
  say("rovik " + member.label() + ": plug-in " + wanted.plug_in + " from " + member.file);
  return true;
}

bool House::configure() {
  bool clean = true;
  for (Member& member : members) clean = (!member.rovik || runCommands(member, false)) && clean;
  return clean;
}

// True when every command was run and answered well.
bool House::runCommands(Member& member, bool strict) {
  bool clean = true;
  for (const ConfigCommand& command : member.config.commands) {
    if (cancelled) return clean;
    clean = runCommand(member, command) && clean;
    if (strict && !clean) return false;
  }
  return clean;
}

bool House::runCommand(Member& member, const ConfigCommand& command) {
  const CommandResult result = member.host().command(command.words);
  const std::string rovik = "rovik " + member.label() + ": ";
  if (result.answered && result.text.empty()) {
    return report(command.line, rovik + "nothing handled '" + shown(command.words) +
                                    "'; expected a command of " + member.config.plug_in +
                                    " (some need the script or an open link)");
  }
  if (!result.answered || result.text.starts_with("ERROR")) {
    return report(command.line,
                  rovik + "'" + shown(command.words) + "' was answered with " + result.text);
  }
  return true;
}

bool House::start(bool strict) {
  for (Member& member : members) {
    launch(member, strict);
    std::unique_lock guard(lock);
    configured.wait_for(guard, kOvertaking,
                        [&] { return refused || member.state != State::Configuring; });
    if (refused) return false;
  }
  for (const Member& member : members) awaitConfigured(member);
  return !refused;
}

void House::awaitConfigured(const Member& member) {
  std::unique_lock guard(lock);
  configured.wait(guard, [&] { return refused || member.state != State::Configuring; });
}

void House::launch(Member& member, bool strict) {
  State expected = State::Idle;
  if (cancelled || !member.state.compare_exchange_strong(expected, State::Configuring)) return;
  int error = 0;
  {
    // The thread settles no earlier than it is known to its rovik: stop would delete that before.
    const std::lock_guard guard(lock);
    error = member.host().start([this, &member, strict] { return configureHere(member, strict); });
  }
  if (error == 0) return;
  report(member.config.line, "the thread of rovik " + member.label() +
                                 " could not be started: " + std::strerror(error));
  if (strict) refused = true;
  settle(member, State::Idle);
}

// Whatever the framework itself needs for it may be missing; start waits for the rovik in any case.
bool House::runCommandsHere(Member& member, bool strict) {
  try {
    return runCommands(member, strict);
  } catch (const std::exception& error) {
    Drovane::global.log(LOG_LEVEL_ERROR, kFrameworkId, kFrameworkName,
                        "rovik %d %s: exception in its configuration: %s\n", member.config.id,
                        member.config.name.c_str(), error.what());
    return false;
  }
}

// On the rovik's thread, before its loop. False when there is to be none.
bool House::configureHere(Member& member, bool strict) {
  const bool clean = runCommandsHere(member, strict);
  if (strict && !clean) refused = true;
  const bool runs = !cancelled && (clean || !strict);
  if (runs) {
    member.host().acceptCommands();  // first: whoever reads that it has started may give it one
    Drovane::global.log(LOG_LEVEL_INFO, kFrameworkId, kFrameworkName, "rovik %d %s: started\n",
                        member.config.id, member.config.name.c_str());
  }
  settle(member, runs ? State::Running : State::Idle);
  return runs;
}

void House::settle(Member& member, State state) {
  const std::lock_guard guard(lock);
  member.state = state;
  configured.notify_all();
}

void House::stop() {
  cancelled = true;
  const std::int64_t patience = Clock::now() + std::chrono::nanoseconds(kFarewellPatience).count();
  // No rovik tells when its loop has ended: looking every few milliseconds is enough here.
  for (std::size_t ended = 0; ended < members.size(); std::this_thread::sleep_for(kLook)) {
    const bool late = Clock::now() > patience;
    const auto idle = static_cast<std::size_t>(
        std::count_if(members.begin(), members.end(),
                      [](const Member& member) { return member.state == State::Idle; }));
    const bool others_ended = ended + idle == members.size();
    ended = 0;
    for (Member& member : members) ended += advanced(member, late, others_ended) ? 1 : 0;
  }
}

// For want of memory a step is tried again, and a rovik that is late goes without its farewell.
bool House::advanced(Member& member, bool late, bool others_ended) {
  try {
    return advance(member, late, others_ended);
  } catch (const std::bad_alloc&) {
    if (late && member.state == State::Running) askToEnd(member);
    return false;
  }
}

// One step towards the end of one rovik, without waiting for it. True when it has ended.
bool House::advance(Member& member, bool late, bool others_ended) {
  switch (member.state) {
    case State::Idle:
      // Its last commands run on this thread, so it comes after those that have their own.
      if (late || others_ended) endWhenIdle(member);
      break;
    case State::Configuring:
      // Requests of its script are answered with nothing from now on.
      if (late) member.host().askToStop();
      break;
    case State::Running:
      takeLeave(member);
      break;
    case State::Leaving:
      if (late || member.farewell->over()) askToEnd(member);
      break;
    case State::Stopping:
      endWhenStopped(member);
      break;
    case State::Ended:
      return true;
  }
  if (late && member.rovik) member.host().interrupt();
  return member.state == State::Ended;
}

void House::takeLeave(Member& member) {
  member.farewell.emplace(member.host()).post();
  member.state = State::Leaving;
}

void House::askToEnd(Member& member) {
  member.host().askToStop();
  member.state = State::Stopping;
}

// start, which may still be busy, launches it no more then.
void House::endWhenIdle(Member& member) {
  State expected = State::Idle;
  if (member.state.compare_exchange_strong(expected, State::Stopping)) end(member);
}

void House::endWhenStopped(Member& member) {
  if (!member.host().status().running) end(member);
}

// For want of memory they are left out: the link ends with the process.
void House::runLastCommands(Member& member) {
  try {
    if (!member.farewell) member.farewell.emplace(member.host());
    member.farewell->runRest();
  } catch (const std::bad_alloc&) {
    Log::global().countLost();
  }
}

void House::end(Member& member) {
  if (member.rovik) {
    member.rovik->stop();
    runLastCommands(member);
    member.farewell.reset();
    member.rovik.reset();
    Drovane::global.log(LOG_LEVEL_INFO, kFrameworkId, kFrameworkName, "rovik %d %s: stopped\n",
                        member.config.id, member.config.name.c_str());
  }
  member.state = State::Ended;
}

std::vector<std::string> House::unended() const {
  std::vector<std::string> labels;
  for (const Member& member : members) {
    const State state = member.state;
    if (state != State::Idle && state != State::Ended) labels.push_back(member.label());
  }
  return labels;
}

const House::Member* House::find(std::string_view rovik) const {
  const auto found = std::find_if(members.begin(), members.end(), [&](const Member& member) {
    return member.config.name == rovik || std::to_string(member.config.id) == rovik;
  });
  return found != members.end() ? &*found : nullptr;
}

std::string House::countText() const {
  return std::to_string(members.size()) + (members.size() == 1 ? " rovik" : " roviks");
}

}  // namespace drovane
