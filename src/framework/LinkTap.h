// Who sees what goes over a rovik's link.
#pragma once

#include <string_view>

namespace drovane {

// Called on the rovik's thread, in the order of the events. Must not wait for anything; it may
// throw std::bad_alloc, and the event is missing then.
class LinkTap {
 public:
  enum class Event { Received, Sent, Opened, Closed };

  LinkTap() = default;
  virtual ~LinkTap() = default;
  LinkTap(const LinkTap&) = delete;
  LinkTap& operator=(const LinkTap&) = delete;

  // `bytes` as they were read or written; none for Opened and Closed. These two tell how the link
  // is after each pass of the rovik's loop, and so come again and again.
  virtual void see(Event event, std::string_view bytes) = 0;
};

}  // namespace drovane
