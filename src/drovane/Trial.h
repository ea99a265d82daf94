// One rovik of a configuration, running without its device and without the others.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "MessageText.h"
#include "Phase.h"
#include "TrialDevice.h"
#include "framework/ConfigFile.h"
#include "framework/ControlRequests.h"
#include "framework/House.h"
#include "framework/Mailbox.h"

namespace drovane {

// The other roviks of the configuration have addresses, so that messages reach them, and are
// silent. One thread uses a trial, and there is one trial in a process.
class Trial {
 public:
  // What the rovik has done since it was last asked.
  struct Outcome {
    std::vector<RecordOwner> messages;  // that it has sent
    std::string to_device;              // that it has written
    bool empty() const { return messages.empty() && to_device.empty(); }
  };

  // Throws ConfigError when the configuration has no such rovik.
  Trial(const ConfigFile& config, const std::string& rovik, House::Report its_report);
  // Waits for a rovik that has not come back: see stop.
  ~Trial();

  // Makes the rovik, runs its commands and opens its link. False after the reason was reported.
  bool start(const std::string& plug_ins);

  // Lets the device say one unit, and waits until the rovik has dealt with it. False when the rovik
  // takes no link, or has not come back after 5 seconds; waits for others, which are silent, do not
  // count.
  bool say(const std::string& unit, Outcome& outcome);
  // What has happened meanwhile, by the rovik's timer for example. To be asked again and again: the
  // rovik may wait for what it sends and writes to be taken.
  Outcome outcome();

  // Ends the rovik. False when it has not come back, then or before: nobody can end it, so that the
  // process is to be left as it is.
  bool stop();
  // The rovik has not come back: there is no use in saying more.
  bool stuck() const { return is_stuck; }

  // Problems that the rovik has reported as warnings so far. That its device has ended a link is
  // none, when that is how a unit ends.
  std::uint64_t warnings() const { return reported() - expected_warnings; }
  const RovikNames& names() const { return rovik_names; }

 private:
  const House::Member& member() const { return house.all().first(); }
  std::uint64_t reported() const { return member().host().status().warning_count; }
  void beginWait();
  bool late() const;
  bool await(const Phase& phase);
  bool run(std::vector<std::string> words);
  bool openLink();
  bool settle();
  void collect();

  const House::Report report;
  House house;
  RovikNames rovik_names;
  TrialDevice device;
  const std::shared_ptr<Waker> waker = std::make_shared<Waker>();
  const std::shared_ptr<Mailbox> tap;
  std::vector<std::shared_ptr<Mailbox>> others;
  Outcome collected;
  std::int64_t patience_end = 0;  // of the wait that goes on, in nanoseconds of Clock
  bool is_stuck = false;
  bool stopped = false;
  std::uint64_t expected_warnings = 0;
  std::atomic<bool> started{false};  // set by the start phase
  std::optional<Phase> starting;
  std::optional<Phase> stopping;
};

}  // namespace drovane
