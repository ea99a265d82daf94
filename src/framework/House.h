// All roviks of one configuration, from their making to their end.
//
//   House -> make -> start -> (they run) -> reload, any number of times -> stop
//                \-> configure                        for a check: no thread is started
//
// make comes first, for all of them, so that nothing is half-started when one cannot be made.
// Each of these may be called from another thread, but only stop may be called while another one
// (start, reload) is still busy.
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
// Whoever is late is also freed from the wait for a peer that it may be in. A reload ends the
// roviks that the new configuration does not have in the same steps.
//
// Others (the control socket) look at the members meanwhile. A member is taken out of the list, and
// only then is its rovik deleted; a look keeps the list as it is for its moment.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
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
  // How long a reload waits for roviks that are to end, and then for new ones that are configured.
  static constexpr std::chrono::seconds kReloadPatience{5};

  // One rovik. What is not marked otherwise is set by make and then only read.
  struct Member {
    explicit Member(ConfigRovik its_config) : config(std::move(its_config)) {}

    enum class State { Idle, Configuring, Running, Leaving, Stopping, Ended };

    const ConfigRovik config;
    std::string file;              // of its plug-in
    std::unique_ptr<Rovik> rovik;  // until Ended
    std::atomic<State> state{State::Idle};
    std::atomic<bool> unwanted{false};  // a reload ends it, so it is not started any more
    std::mutex turn;                    // of stop or reload, whoever takes a step towards its end
    std::optional<Farewell> farewell;   // under `turn`
    std::size_t place = 0;              // in the file; under the list's lock

    RovikHost& host() const { return RovikHost::of(*rovik); }
    std::string label() const;  // "5 boiler"
  };

  // Looks at the members, for any thread between make and stop. No member is taken out while one
  // of these lives, so nobody waits for anything meanwhile, least of all for a rovik.
  class Found {
   public:
    const Member& operator*() const { return *member; }
    const Member* operator->() const { return member; }
    bool operator==(std::nullptr_t) const { return member == nullptr; }
    bool operator==(const Found& other) const { return member == other.member; }

   private:
    friend class House;
    Found(std::recursive_mutex& list, const Member* its_member) : guard(list), member(its_member) {}

    std::unique_lock<std::recursive_mutex> guard;
    const Member* member;
  };
  class Present {
   public:
    const Member& first() const { return members.front(); }
    auto begin() const { return members.begin(); }
    auto end() const { return members.end(); }

   private:
    friend class House;
    Present(std::recursive_mutex& list, const std::list<Member>& its_members)
        : guard(list), members(its_members) {}

    std::unique_lock<std::recursive_mutex> guard;
    const std::list<Member>& members;
  };

  // What a reload has come to.
  struct Reloaded {
    bool done = false;                  // false: nothing was changed
    std::string text;                   // "12 roviks, 9 kept, ..."; else why it was not done
    std::vector<std::string> findings;  // that were reported meanwhile
    bool left_some = false;             // that did not end in time; see endLate
  };
  struct Terms {
    bool restart_all = false;     // keep none
    bool strict = false;          // a new rovik whose command fails does not run
    std::function<void()> apply;  // called when all is made and before anything is changed
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

  // Makes the house what this configuration says. Roviks whose block is the same, whatever its
  // lines, are kept as they are; the others are ended side by side and new ones are started as soon
  // as their id and name are free. Changes nothing when a new one cannot be made. One that does not
  // end in kReloadPatience is left as it is, and nothing is started in its place.
  Reloaded reload(const ConfigFile& config, PluginLoader& loader, const Terms& terms);

  // Looks at those that a reload has given up, and ends those that have come back since. False when
  // one is still missing.
  bool endLate();

  // Ends every rovik side by side, and start and reload before their next step; returns when the
  // last one is deleted. Sets no limit for that: its caller does, and asks unended who keeps it
  // waiting.
  void stop();

  // Any thread: the roviks whose thread, start or end has not come back yet.
  std::vector<std::string> unended() const;

  // By name, or by id when `rovik` is a number; null when there is none.
  Found find(std::string_view rovik) const;
  Present all() const { return {list_lock, members}; }  // in the order of the file
  std::string countText() const;                        // "1 rovik", "4 roviks"
  const std::string& path() const { return config_path; }

 private:
  class Change;  // one reload (HouseReload.cpp)

  bool makeOne(Member& member, PluginLoader& loader);
  bool enter(Member& member);
  bool runCommands(Member& member, bool strict);
  bool runCommand(Member& member, const ConfigCommand& command);
  bool wanted(const Member& member) const { return !cancelled && !member.unwanted; }
  void launch(Member& member, bool strict);
  int startThread(Member& member, bool strict);
  bool runCommandsHere(Member& member, bool strict);
  bool configureHere(Member& member, bool strict);
  void settle(Member& member, Member::State state);
  void awaitConfigured(const Member& member);
  std::vector<Member*> everyone();
  bool allEnded(const std::vector<Member*>& leaving, bool late);
  bool advanced(Member& member, bool late, bool others_ended);
  void advance(Member& member, bool late, bool others_ended);
  void takeLeave(Member& member);
  void askToEnd(Member& member);
  void endWhenIdle(Member& member);
  void endWhenStopped(Member& member);
  static void runLastCommands(Member& member);
  void end(Member& member);
  void takeOut(const Member& member);
  bool report(int line, const std::string& problem);
  void tell(const std::string& finding);

  const std::string config_path;
  const Report report_to;
  std::atomic<bool> cancelled{false};
  std::atomic<bool> refused{false};  // a strict start has met a finding
  std::mutex lock;                   // only for waiting until a rovik is configured
  std::condition_variable configured;

  mutable std::recursive_mutex list_lock;  // never held while waiting for a rovik
  std::list<Member> members;
  std::list<Member> departed;     // taken out; a thread may still be busy with them
  std::vector<Member*> stopping;  // has room for all members, so that stop needs no memory

  std::mutex changing;  // held by a reload
  std::mutex findings_lock;
  std::vector<std::string>* findings = nullptr;  // of the reload that is going on
};

}  // namespace drovane
