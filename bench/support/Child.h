// A process of the benchmark's own that plays the outside world, so that neither its allocator nor
// its threads are those that are measured.
#pragma once

#include <sys/socket.h>
#include <sys/types.h>

#include <functional>
#include <optional>
#include <stdexcept>
#include <type_traits>

#include "framework/Descriptor.h"

namespace bench {

// One plain record through a channel between parent and child.
template <typename Record>
void sendRecord(int channel, const Record& record) {
  static_assert(std::is_trivially_copyable_v<Record>);
  if (send(channel, &record, sizeof record, MSG_NOSIGNAL) != sizeof record)
    throw std::runtime_error("the other process of the benchmark is gone");
}

// Nothing when the other side has gone.
template <typename Record>
std::optional<Record> receiveRecord(int channel) {
  static_assert(std::is_trivially_copyable_v<Record>);
  Record record;
  if (recv(channel, &record, sizeof record, 0) != sizeof record) return std::nullopt;
  return record;
}

class Child {
 public:
  // Forks, so it comes before any thread. `body` runs in the child with the child's end of the
  // channel, and ends when the parent's end is closed. An exception in it is printed.
  explicit Child(const std::function<void(int channel)>& body);
  // Closes the channel and waits for the child.
  ~Child();
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  template <typename Record>
  void send(const Record& record) {
    sendRecord(channel.get(), record);
  }
  template <typename Record>
  Record receive() {
    const auto record = receiveRecord<Record>(channel.get());
    if (!record) throw std::runtime_error("the other process of the benchmark is gone");
    return *record;
  }

 private:
  pid_t pid;
  drovane::Descriptor channel;
};

}  // namespace bench
