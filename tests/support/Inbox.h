// An address in the router whose messages a test takes out by hand.
#pragma once

#include <cstdint>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "framework/Mailbox.h"

// A data value or an actuator request as it arrived.
struct Arrived {
  std::uint32_t type;
  std::string key;
  std::uint32_t value_type;
  std::string value;

  bool operator==(const Arrived&) const = default;
};
std::ostream& operator<<(std::ostream& out, const Arrived& message);

// The text as the value of a data message, or of a request, under `key`.
Arrived dataText(const std::string& key, const std::string& value);
Arrived requestText(const std::string& key, const std::string& value);

// Gets what a rovik with this id and name would get. Unlike a rovik's, its messages wait until they
// are taken, so a test without threads sees what one call has sent.
class Inbox {
 public:
  explicit Inbox(int id = 90, const std::string& name = "inbox");
  ~Inbox();
  Inbox(const Inbox&) = delete;
  Inbox& operator=(const Inbox&) = delete;

  // Everything that has arrived.
  std::vector<Arrived> take();
  // The values only.
  std::vector<std::string> takeValues();
  // Everything that has arrived as soon as that is `count` messages, or what there is when time is
  // up.
  std::vector<Arrived> waitFor(std::size_t count);

 private:
  std::shared_ptr<drovane::Mailbox> mailbox;
};
