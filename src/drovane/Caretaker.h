// What the main thread does about a running house while it waits for signals.
#pragma once

#include <atomic>
#include <cstdint>
#include <limits>
#include <string>

#include "Notify.h"
#include "Watchdog.h"
#include "framework/ControlServer.h"
#include "framework/House.h"

namespace drovane {

// Looks after the roviks and keeps the service manager informed. A sign of life says that this
// thread and that of the control socket turn; with a limit for hanging roviks also that none has
// been in one slot for so long. One thread, but where it says otherwise.
class Caretaker {
 public:
  // `restart_hung`: the limit in seconds; 0 for none. The house and the control socket must outlive
  // it, but for the last call of `stopping`. Throws std::system_error.
  Caretaker(const House& its_house, ControlServer& its_control, int restart_hung);

  // Does what is due, and returns when to come again, in nanoseconds of Clock.
  std::int64_t turn();

  // The start, or a reload, is over; the next turn tells it. Any thread.
  void ready() { progress = Progress::Started; }
  // A reload begins. Any thread.
  void reloading() { notify.reloading(); }
  void stopping() { notify.stopping(); }

 private:
  static constexpr std::int64_t kNever = std::numeric_limits<std::int64_t>::max();

  // Of the house: `ready` has been called, and the service manager been told.
  enum class Progress { Starting, Started, Ready };

  void look();
  void prolongStart();
  void tellStatus();
  std::string statusText() const;
  void sign();
  void judge();
  std::string objection() const;

  const House& house;
  ControlServer& control;
  const int limit;
  Notify notify;
  Watchdog watchdog;
  std::atomic<Progress> progress{Progress::Starting};
  std::int64_t next_look = 0;
  std::int64_t next_prolongation = 0;  // of the time for the start
  std::int64_t next_sign = kNever;
  std::string told;               // the last status
  bool control_is_stuck = false;  // its thread has not turned since the sign before
  bool withheld = false;          // signs of life are
};

}  // namespace drovane
