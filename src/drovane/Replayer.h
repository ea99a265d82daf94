// Plays the device of a recording to a house, step by step.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

#include "Recording.h"
#include "ReplayPeer.h"
#include "Signals.h"

namespace drovane {

// Times are kept from one event to the next: bytes from the device go out as long after the event
// before them as they did then. Bytes for the device are waited for; when they come early or late,
// so does what follows.
class Replayer {
 public:
  // Called with each thing that is not as recorded: "FILE:LINE: expected what; what happened".
  using Report = std::function<void(const std::string& finding)>;

  // How long after its time something is waited for: bytes, and a house that comes back. The first
  // house is waited for without a limit.
  static constexpr std::int64_t kBytesPatience = 5'000'000'000;
  static constexpr std::int64_t kHousePatience = 60'000'000'000;
  // Behind so many bytes that nobody expects yet a house has to wait.
  static constexpr std::size_t kMostInput = 1024 * 1024;

  // `speed`: 2 for twice as fast, 0 for no pauses at all.
  Replayer(const Recording& its_recording, ReplayPeer& its_peer, double its_speed,
           Report its_report);

  // True when everything was played and nothing else came. Ends early, with false, at SIGINT and
  // SIGTERM, and when there is no house any more.
  bool play();
  // How many events it has come past, and how many findings it has reported.
  std::size_t played() const { return played_count; }
  std::size_t findings() const { return finding_count; }

 private:
  // Why it ends early.
  struct Stop {};

  void playEvent(const RecordedEvent& event);
  void open(const RecordedEvent& event);
  void close(const RecordedEvent& event);
  void send(const RecordedEvent& event);
  void expect(const RecordedEvent& event);
  bool received(const RecordedEvent& event);
  void reportOther(const RecordedEvent& event);
  void reportRest();
  void report(const RecordedEvent& event, const std::string& finding);

  void awaitHouse(const RecordedEvent& event);
  void leave();
  std::int64_t timeOf(const RecordedEvent& event) const;
  void happened(const RecordedEvent& event);
  void rest(std::int64_t deadline);
  bool awaitInput(std::int64_t deadline, std::size_t most = kMostInput);

  const Recording& recording;
  ReplayPeer& peer;
  const double speed;
  const Report tell;
  const Signals signals;

  bool house_came = false;  // at least once
  bool connected = false;
  bool house_left = false;  // and what it sent before waits in `input`
  std::string input;        // what has come and was not expected yet
  std::size_t played_count = 0;
  std::size_t finding_count = 0;
  // The event that was last in its place: when it was then and now.
  std::int64_t then = 0;  // microseconds of the recording
  std::int64_t now = 0;   // nanoseconds of Clock
};

}  // namespace drovane
