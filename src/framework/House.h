// All roviks of one configuration, from their making to their end.
//
//   House -> make -> start -> (they run) -> stop
//                \-> configure                        for a check: no thread is started
//
// make comes first, for all of them, so that nothing is half-started when one cannot be made.
// make, configure, start and stop may each be called from another thread, but only stop may be
// called while another one (start) is still busy.
//
// One rovik on its way:
//
//   Idle --start--> Configuring --its block is done--> Running
//    ^                   |                                | stop: the last commands are posted
//    '---- refused, -----'                                v
//    |     or stop                                     Leaving
//    |                                                    | they are done, or it is late:
//    |                                                    v the thread is asked to end
//    '--stop: the last commands run here-->  Ended <-- Stopping
//
// Whoever is late is also freed from the wait for a peer that it may be in.
#pragma once

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "ConfigFile.h"
#include "Farewell.h"
#include "PluginLoader.h"
#include "Rovik.h"
#include "RovikHost.h"

namespace drovane {

class House {
 public:
  // Called with each thing that is wrong: "FILE:LINE: what is wrong and what was expected".
  using Report = std::function<void(const std::string& finding)>;

  // How long a rovik may take over its last commands before its thread is asked to end anyway, and
  // is freed from the wait for a peer.
  static constexpr std::chrono::seconds kFarewellPatience{3};

  // One rovik. What is not marked otherwise is set by make and then only read.
  struct Member {
    explicit Member(const ConfigRovik& its_config) : config(its_config) {}

    enum class State { Idle, Configuring, Running, Leaving, Stopping, Ended };

    const ConfigRovik& config;
    std::string file;              // of its plug-in
    std::unique_ptr<Rovik> rovik;  // until Ended
    std::atomic<State> state{State::Idle};
    std::optional<Farewell> farewell;  // stop's

    RovikHost& host() const { return RovikHost::of(*rovik); }
    std::string label() const;  // "5 boiler"
  };

  House(ConfigFile its_config, Report its_report);
  // Deletes what stop has not.
  ~House();
  House(const House&) = delete;
  House& operator=(const House&) = delete;

  // Makes every rovik and gives it its address. False when one could not be made.
  bool make(PluginLoader& loader);

  // Runs every command of every rovik. False when one was answered with an error or not handled.
  bool configure();

  // Rovik by rovik, in the file's order: starts its thread, which first runs its commands. One that
  // a device keeps waiting is overtaken by the next. Returns when all have run their commands. Goes
  // on after a finding, unless `strict`: then it returns false at the first one.
  bool start(bool strict);

  // Ends every rovik side by side, and start before its next command; returns when the last one is
  // deleted. Sets no limit for that: its caller does, and asks unended who keeps it waiting.
  void stop();

  // Any thread: the roviks whose thread, or start, has not come back yet.
  std::vector<std::string> unended() const;

  // Any thread between make and stop. By name, or by id when `rovik` is a number; null when there
  // is none.
  const Member* find(std::string_view rovik) const;
  const std::deque<Member>& all() const { return members; }
  std::string countText() const;  // "1 rovik", "4 roviks"
  const ConfigFile& configuration() const { return config; }

 private:
  bool makeOne(Member& member, PluginLoader& loader);
  bool runCommands(Member& member, bool strict);
  bool runCommand(Member& member, const ConfigCommand& command);
  void launch(Member& member, bool strict);
  bool runCommandsHere(Member& member, bool strict);
  bool configureHere(Member& member, bool strict);
  void settle(Member& member, Member::State state);
  void awaitConfigured(const Member& member);
  bool advanced(Member& member, bool late, bool others_ended);
  bool advance(Member& member, bool late, bool others_ended);
  void takeLeave(Member& member);
  void askToEnd(Member& member);
  void endWhenIdle(Member& member);
  void endWhenStopped(Member& member);
  static void runLastCommands(Member& member);
  void end(Member& member);
  bool report(int line, const std::string& problem) const;

  const ConfigFile config;
  const Report report_to;
  std::deque<Member> members;
  std::atomic<bool> cancelled{false};
  std::atomic<bool> refused{false};  // a strict start has met a finding
  std::mutex lock;                   // only for waiting until a rovik is configured
  std::condition_variable configured;
};

}  // namespace drovane
