#include "Trial.h"

#include <poll.h>

#include <algorithm>
#include <chrono>
#include <semaphore>
#include <thread>
#include <utility>

#include "framework/Clock.h"
#include "framework/PluginLoader.h"
#include "framework/RecordPool.h"
#include "framework/Router.h"

namespace drovane {
namespace {

constexpr std::int64_t kPatience = 5 * Clock::kNanosecondsPerSecond;
// How often what the rovik sends and writes is taken while it is waited for.
constexpr std::chrono::milliseconds kLook{1};
// Behind so many the rovik is left to itself until somebody asks for them.
constexpr std::size_t kMostMessages = 4 * Mailbox::kHardLimit;
constexpr std::size_t kMostBytes = 64 * 1024 * 1024;
// What the rovik's broadcasts reach when the configuration has no other rovik.
constexpr int kListenerId = kHighestRovikId;
constexpr const char* kListenerName = "listener";

bool isCalled(const ConfigRovik& rovik, const std::string& name) {
  return rovik.name == name || std::to_string(rovik.id) == name;
}

bool isRequest(const RovikMessage& msg) {
  return msg.type == MM_DATA_REQUEST || msg.type == MM_CMD_REQUEST;
}

ConfigFile only(ConfigFile config, const std::string& name) {
  std::erase_if(config.roviks, [&](const ConfigRovik& rovik) { return !isCalled(rovik, name); });
  if (config.roviks.empty())
    throw ConfigError(config.path, 1,
                      "there is no rovik " + quotedValue(name) +
                          "; expected the name or the id of one in this file");
  return config;
}

}  // namespace

Trial::Trial(const ConfigFile& config, const std::string& rovik, House::Report its_report)
    : report(std::move(its_report)),
      house(only(config, rovik), report),
      tap(std::make_shared<Mailbox>(kCommandLineId, kCommandLineName, waker)) {
  for (const ConfigRovik& each : config.roviks) {
    rovik_names[each.id] = each.name;
    if (!isCalled(each, rovik))
      others.push_back(std::make_shared<Mailbox>(each.id, each.name, waker));
  }
  if (others.empty())
    others.push_back(std::make_shared<Mailbox>(kListenerId, kListenerName, waker));
}

Trial::~Trial() {
  if (!stopped) house.stop();
  Router::global().setTap(nullptr);
  for (const auto& other : others) {
    Router::global().remove(*other);
    other->close();
  }
  tap->close();
}

bool Trial::start(const std::string& plug_ins) {
  PluginLoader loader(PluginLoader::standardFolders(plug_ins));
  if (!house.make(loader)) return false;
  member().host().setOnTrial([this](const Rovik::TrialLink& kind) { return device.connect(kind); });
  for (const auto& other : others) Router::global().add(other);
  Router::global().setTap(tap);
  beginWait();
  starting.emplace("drovane-start", [this] { started = house.start(true); });
  if (await(*starting)) return started && settle();
  report("rovik " + member().label() + " has not come to the end of its configuration in time");
  return false;
}

bool Trial::stop() {
  if (is_stuck) return false;
  beginWait();
  stopped = true;
  stopping.emplace("drovane-stop", [this] { house.stop(); });
  return await(*stopping);
}

// --- Waiting for the rovik ---

void Trial::beginWait() { patience_end = Clock::now() + kPatience; }

bool Trial::late() const { return Clock::now() >= patience_end; }

bool Trial::await(const Phase& phase) {
  pollfd over{phase.descriptor(), POLLIN, 0};
  while (::poll(&over, 1, static_cast<int>(kLook.count())) <= 0) {
    collect();
    if (!late()) continue;
    is_stuck = true;
    return false;
  }
  return true;
}

// A command of the rovik's, between two events. False when the rovik has not come back.
bool Trial::run(std::vector<std::string> words) {
  const auto done = std::make_shared<std::binary_semaphore>(0);
  const auto command = std::make_shared<Command>(std::move(words),
                                                 [done](const CommandResult&) { done->release(); });
  if (!member().host().post(command)) return false;
  while (!done->try_acquire_for(kLook)) {
    collect();
    if (!late()) continue;
    command->withdraw();
    return false;
  }
  return true;
}

// A rovik whose configuration does not open its link is told to.
bool Trial::openLink() {
  if (!device.connected()) is_stuck = !run({"open"});
  return device.connected();
}

// A command without words does nothing, but has its turn after what came before: the second one
// after a whole pass of the rovik's loop.
bool Trial::settle() {
  const RovikHost& host = member().host();
  while (!late()) {
    const bool turned = run({}) && run({});
    collect();
    if (turned && device.taken() && host.status().queued == 0) return true;
    std::this_thread::sleep_for(kLook);
  }
  is_stuck = true;
  return false;
}

// --- The device and the others ---

bool Trial::say(const std::string& unit, Outcome& outcome) {
  beginWait();
  const std::uint64_t reported_before = reported();
  const bool done = openLink() && device.say(unit) && settle();
  if (done && device.endsAtClose() && reported() > reported_before) ++expected_warnings;
  outcome = this->outcome();
  return done;
}

Trial::Outcome Trial::outcome() {
  collect();
  return std::exchange(collected, {});
}

// A rovik that asks another one gets no answer, for which it waits until it gives up.
void Trial::collect() {
  for (const auto& other : others) {
    std::vector<RovikMessage*> seen;
    other->take(seen);
    for (RovikMessage* const msg : seen) RecordPool::release(msg);
    other->left(0);
  }
  if (collected.to_device.size() < kMostBytes) collected.to_device += device.heard();
  if (collected.messages.size() >= kMostMessages) return;
  std::vector<RovikMessage*> batch;
  tap->take(batch);
  for (RovikMessage* const msg : batch) {
    if (isRequest(*msg))
      patience_end =
          Clock::now() + std::chrono::nanoseconds(RovikHost::kPatience).count() + kPatience;
    collected.messages.emplace_back(msg);
  }
  tap->left(0);
}

}  // namespace drovane
