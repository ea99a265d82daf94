// What stands in for the device of a rovik that is tried.
#pragma once

#include <mutex>
#include <string>
#include <string_view>

#include "Rovik.h"
#include "framework/Descriptor.h"

namespace drovane {

// The rovik's thread connects; another one, always the same, does the rest.
class TrialDevice {
 public:
  // The rovik's end of a new link; an earlier one ends. Negative with errno set on failure.
  int connect(const Rovik::TrialLink& kind);

  // Whether the rovik has a link.
  bool connected();
  // Sends one unit, with what ends it. False when there is no link, or the unit cannot be sent.
  bool say(const std::string& unit);
  // Whether the rovik has taken what was said.
  bool taken();
  // Whether a unit ends with the link.
  bool endsAtClose();
  // What the rovik has written since the last call.
  std::string heard();

 private:
  void listen();

  static constexpr std::size_t kMostAtOnce = 1024 * 1024;

  std::mutex lock;
  Descriptor link;
  std::string end;
  bool ends_at_close = false;
  std::string received;
};

}  // namespace drovane
