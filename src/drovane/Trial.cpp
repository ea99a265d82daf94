#include "Trial.h"

#include <algorithm>
#include <chrono>
#include <thread>
#include <utility>

#include "framework/Clock.h"
#include "framework/PluginLoader.h"
#include "framework/RecordPool.h"
#include "framework/Router.h"

namespace drovane {
namespace {

constexpr std::int64_t kPatience = 5 * Clock::kNanosecondsPerSecond;
constexpr std::chrono::milliseconds kLook{1};
// What the rovik's broadcasts reach when the configuration has no other rovik.
constexpr int kListenerId = kHighestRovikId;
constexpr const char* kListenerName = "listener";

bool isCalled(const ConfigRovik& rovik, const std::string& name) {
  return rovik.name == name || std::to_string(rovik.id) == name;
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

Trial::Trial(const ConfigFile& config, const std::string& rovik, House::Report report)
    : house(only(config, rovik), std::move(report)),
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
  house.stop();
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
  const bool started = house.start(true);
  return started && settle();
}

// A rovik whose configuration does not open its link is told to.
bool Trial::openLink() {
  if (!device.connected()) member().host().command({"open"});
  return device.connected();
}

bool Trial::say(const std::string& unit, Outcome& outcome) {
  const bool done = openLink() && device.say(unit) && settle();
  drain(outcome);
  return done;
}

Trial::Outcome Trial::outcome() {
  Outcome now;
  drain(now);
  return now;
}

// A command without words does nothing, but has its turn after what came before: the second one
// after a whole pass of the rovik's loop.
bool Trial::settle() {
  const RovikHost& host = member().host();
  const std::int64_t deadline = Clock::now() + kPatience;
  while (Clock::now() < deadline) {
    const bool turned =
        member().host().command({}).answered && member().host().command({}).answered;
    if (turned && device.taken() && host.status().queued == 0) return true;
    std::this_thread::sleep_for(kLook);
  }
  return false;
}

void Trial::drain(Outcome& into) {
  std::vector<RovikMessage*> batch;
  tap->take(batch);
  for (RovikMessage* const msg : batch) into.messages.emplace_back(msg);
  tap->left(0);
  for (const auto& other : others) {
    std::vector<RovikMessage*> seen;
    other->take(seen);
    for (RovikMessage* const msg : seen) RecordPool::release(msg);
    other->left(0);
  }
  into.to_device += device.heard();
}

}  // namespace drovane
