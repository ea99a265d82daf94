#include "House.h"

#include <algorithm>
#include <cerrno>
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
    : config_path(std::move(its_config.path)), report_to(std::move(its_report)) {
  for (ConfigRovik& rovik : its_config.roviks) members.emplace_back(std::move(rovik));
  stopping.reserve(members.size());
}

House::~House() = default;

bool House::report(int line, const std::string& problem) {
  tell(ConfigError(config_path, line, problem).what());
  return false;
}

void House::tell(const std::string& finding) {
  report_to(finding);
  const std::lock_guard guard(findings_lock);
  if (findings != nullptr) findings->push_back(finding);
}

// Every rovik is tried, so that a check names all that cannot be made.
bool House::make(PluginLoader& loader) {
  bool all_made = true;
  for (Member& member : members) all_made = makeOne(member, loader) && enter(member) && all_made;
  return all_made;
}

bool House::makeOne(Member& member, PluginLoader& loader) {
  const ConfigRovik& block = member.config;
  try {
    PluginLoader::Made made = loader.make(block.plug_in, block.id, block.name);
    member.rovik = std::move(made.rovik);
    member.file = std::move(made.file);
    return true;
  } catch (const PluginError& error) {
    return report(block.line, error.what());
  }
}

bool House::enter(Member& member) {
  const ConfigRovik& block = member.config;
  if (!member.host().enterRouter())
    return report(block.line, "id or name of rovik " + member.label() + " is already in use");
  say("rovik " + member.label() + ": plug-in " + block.plug_in + " from " + member.file);
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
    if (!wanted(member)) return clean;
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
  const std::vector<Member*> all = everyone();
  for (Member* member : all) {
    launch(*member, strict);
    std::unique_lock guard(lock);
    configured.wait_for(guard, kOvertaking,
                        [&] { return refused || member->state != State::Configuring; });
    if (refused) return false;
  }
  for (const Member* member : all) awaitConfigured(*member);
  return !refused;
}

void House::awaitConfigured(const Member& member) {
  std::unique_lock guard(lock);
  configured.wait(guard, [&] { return refused || member.state != State::Configuring; });
}

void House::launch(Member& member, bool strict) {
  State expected = State::Idle;
  if (!wanted(member) || !member.state.compare_exchange_strong(expected, State::Configuring))
    return;
  const int error = startThread(member, strict);
  if (error == 0) return;
  if (strict) refused = true;
  settle(member, State::Idle);
  report(member.config.line, "the thread of rovik " + member.label() +
                                 " could not be started: " + std::strerror(error));
}

// 0 or an error number.
int House::startThread(Member& member, bool strict) {
  // The thread settles no earlier than it is known to its rovik: stop would delete that before.
  const std::lock_guard guard(lock);
  try {
    return member.host().start([this, &member, strict] { return configureHere(member, strict); });
  } catch (const std::bad_alloc&) {
    return ENOMEM;
  }
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
  const bool runs = wanted(member) && (clean || !strict);
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

std::vector<House::Member*> House::everyone() {
  const std::lock_guard guard(list_lock);
  std::vector<Member*> all;
  for (Member& member : members) all.push_back(&member);
  return all;
}

void House::stop() {
  {
    const std::lock_guard guard(list_lock);  // from here on a reload adds no member
    cancelled = true;
    stopping.clear();
    for (Member& member : members) stopping.push_back(&member);
  }
  const std::int64_t patience = Clock::now() + std::chrono::nanoseconds(kFarewellPatience).count();
  // No rovik tells when its loop has ended: looking every few milliseconds is enough here.
  while (!allEnded(stopping, Clock::now() > patience)) std::this_thread::sleep_for(kLook);
  const std::lock_guard reload_is_over(changing);
}

// Takes one step for each. True when all have ended.
bool House::allEnded(const std::vector<Member*>& leaving, bool late) {
  const bool others_ended = std::all_of(leaving.begin(), leaving.end(), [](const Member* member) {
    return member->state == State::Idle || member->state == State::Ended;
  });
  std::size_t ended = 0;
  for (Member* member : leaving) ended += advanced(*member, late, others_ended) ? 1 : 0;
  return ended == leaving.size();
}

// For want of memory a step is tried again, and a rovik that is late goes without its farewell.
bool House::advanced(Member& member, bool late, bool others_ended) {
  // A stop during a reload: the other one is at it.
  const std::unique_lock turn(member.turn, std::try_to_lock);
  if (!turn) return false;
  try {
    advance(member, late, others_ended);
  } catch (const std::bad_alloc&) {
    if (late && member.state == State::Running) askToEnd(member);
  }
  return member.state == State::Ended;
}

// One step towards the end of one rovik, without waiting for it.
void House::advance(Member& member, bool late, bool others_ended) {
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
      return;
  }
  if (late && member.rovik) member.host().interrupt();
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
  const bool made = member.rovik != nullptr;
  if (made) {
    member.rovik->stop();
    runLastCommands(member);
    member.farewell.reset();
  }
  takeOut(member);
  member.rovik.reset();
  member.state = State::Ended;
  if (made)
    Drovane::global.log(LOG_LEVEL_INFO, kFrameworkId, kFrameworkName, "rovik %d %s: stopped\n",
                        member.config.id, member.config.name.c_str());
}

// Behind this nobody else reaches the rovik.
void House::takeOut(const Member& member) {
  const std::lock_guard guard(list_lock);
  const auto found = std::find_if(members.begin(), members.end(),
                                  [&](const Member& listed) { return &listed == &member; });
  departed.splice(departed.end(), members, found);
}

std::vector<std::string> House::unended() const {
  const std::lock_guard guard(list_lock);
  std::vector<std::string> labels;
  for (const std::list<Member>* list : {&departed, &members}) {
    for (const Member& member : *list) {
      const State state = member.state;
      if (state != State::Idle && state != State::Ended) labels.push_back(member.label());
    }
  }
  return labels;
}

House::Found House::find(std::string_view rovik) const {
  const std::lock_guard guard(list_lock);
  const auto found = std::find_if(members.begin(), members.end(), [&](const Member& member) {
    return member.rovik != nullptr &&
           (member.config.name == rovik || std::to_string(member.config.id) == rovik);
  });
  return {list_lock, found != members.end() ? &*found : nullptr};
}

std::string House::countText() const {
  const std::lock_guard guard(list_lock);
  return std::to_string(members.size()) + (members.size() == 1 ? " rovik" : " roviks");
}

}  // namespace drovane
