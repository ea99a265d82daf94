// What the program tells the service manager that has started it (the protocol of sd_notify(3)).
#pragma once

#include <sys/socket.h>
#include <sys/un.h>

#include <atomic>
#include <cstdint>
#include <optional>
#include <string_view>

#include "framework/Descriptor.h"

namespace drovane {

// Without a service manager all of it does nothing. Its socket is made once, so that signs of life
// go on when there are no descriptors left; a manager that does not read is waited for half a
// second at most. Telling needs no memory. What cannot be told is logged when that begins. Any
// thread.
class Notify {
 public:
  // Finds the manager by NOTIFY_SOCKET, and by WATCHDOG_USEC and WATCHDOG_PID how often it wants a
  // sign of life; logs what it cannot use. Throws std::system_error when no socket can be had.
  Notify();

  // How often alive has to be told, in nanoseconds: twice in the time after which the manager takes
  // the program for dead. None when nobody waits for it.
  std::optional<std::int64_t> pause() const { return sign_pause; }

  // The start goes on: the manager waits for ready so much longer.
  void starting();
  // The start, or a reload, is over. `text` is for people.
  void ready(std::string_view text);
  void reloading();
  void stopping();
  void status(std::string_view text);
  void alive();

 private:
  void findManager();
  void findPause();
  void tell(std::string_view state, std::string_view rest = {});

  Descriptor socket;  // none: there is no manager
  sockaddr_un address{};
  socklen_t address_length = 0;
  std::optional<std::int64_t> sign_pause;
  std::atomic<int> failure{0};  // why the manager could not be told the last time
};

}  // namespace drovane
