// Functions of libsystemd, loaded when they are first needed.
#pragma once

#define SD_JOURNAL_SUPPRESS_LOCATION  // of this source, for every line
#include <systemd/sd-daemon.h>
#include <systemd/sd-journal.h>

namespace drovane {

// The library brings half a dozen others along, and takes a third of the time of a short command
// such as `drovane status`. So the program does not link it.
class Systemd {
 public:
  // Loads it at the first call. Throws std::runtime_error with the reason when that fails. Any
  // thread.
  static const Systemd& library();

  // As in sd_journal_sendv(3) and sd_watchdog_enabled(3).
  decltype(&sd_journal_sendv) journalSendv;
  decltype(&sd_watchdog_enabled) watchdogEnabled;

 private:
  Systemd();
};

}  // namespace drovane
