// One rovik of a configuration, running without its device and without the others.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "MessageText.h"
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
  Trial(const ConfigFile& config, const std::string& rovik, House::Report report);
  ~Trial();

  // Makes the rovik, runs its commands and opens its link. False after the reason was reported.
  bool start(const std::string& plug_ins);

  // Lets the device say one unit, and waits until the rovik has dealt with it. False when the rovik
  // takes no link, or has not come back after 5 seconds.
  bool say(const std::string& unit, Outcome& outcome);
  // What has happened meanwhile, by the rovik's timer for example.
  Outcome outcome();

  // Problems that the rovik has reported as warnings so far.
  std::uint64_t warnings() const { return member().host().status().warning_count; }
  const RovikNames& names() const { return rovik_names; }

 private:
  const House::Member& member() const { return *house.all().begin(); }
  bool openLink();
  bool settle();
  void drain(Outcome& into);

  House house;
  RovikNames rovik_names;
  TrialDevice device;
  const std::shared_ptr<Waker> waker = std::make_shared<Waker>();
  const std::shared_ptr<Mailbox> tap;
  std::vector<std::shared_ptr<Mailbox>> others;
};

}  // namespace drovane
