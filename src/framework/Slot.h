// What surrounds every call into a rovik.
#pragma once

#include <exception>
#include <utility>

namespace drovane {

class RovikHost;

// Marks the thread as being inside a rovik: what the rovik sends meanwhile may wait until the call
// returns.
class InsideRovik {
 public:
  explicit InsideRovik(const RovikHost* host) : before(std::exchange(current, host)) {}
  ~InsideRovik() { current = before; }
  InsideRovik(const InsideRovik&) = delete;
  InsideRovik& operator=(const InsideRovik&) = delete;

  static bool is(const RovikHost* host) { return current == host; }

 private:
  static thread_local const RovikHost* current;
  const RovikHost* before;
};

// Runs a slot; an exception that escapes it goes to `report` as text and ends there.
template <typename Slot, typename Report>
void runSlot(Slot slot, Report report) {
  try {
    slot();
  } catch (const std::exception& error) {
    report(error.what());
  } catch (...) {
    report("unknown exception");
  }
}

}  // namespace drovane
