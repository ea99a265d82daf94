#include "Replayer.h"

#include <algorithm>
#include <utility>

#include "framework/Clock.h"

namespace drovane {
namespace {

constexpr std::int64_t kNoDeadline = -1;
constexpr std::int64_t kNanosecondsPerMillisecond = 1'000'000;
// How long to wait for what cannot wake anybody.
constexpr std::int64_t kLook = 10 * kNanosecondsPerMillisecond;
// Behind wrong bytes: silence that ends them.
constexpr std::int64_t kSilence = 200 * kNanosecondsPerMillisecond;
// For a house to read what it was sent last.
constexpr std::int64_t kLeavePatience = Clock::kNanosecondsPerSecond;

std::int64_t inTime(std::int64_t patience) { return Clock::now() + patience; }

std::string quoted(std::string_view bytes) { return '\'' + escapedBytes(bytes) + '\''; }

}  // namespace

Replayer::Replayer(const Recording& its_recording, ReplayPeer& its_peer, double its_speed,
                   Report its_report)
    : recording(its_recording), peer(its_peer), speed(its_speed), tell(std::move(its_report)) {}

bool Replayer::play() {
  try {
    for (const RecordedEvent& event : recording.events) {
      playEvent(event);
      ++played_count;
    }
    reportRest();
    if (connected) leave();
  } catch (const Stop&) {
    return false;
  }
  return finding_count == 0;
}

void Replayer::playEvent(const RecordedEvent& event) {
  switch (event.sign) {
    case LinkSign::Opened:
      return open(event);
    case LinkSign::Closed:
      return close(event);
    case LinkSign::FromDevice:
      return send(event);
    case LinkSign::ToDevice:
      return expect(event);
  }
}

void Replayer::report(const RecordedEvent& event, const std::string& finding) {
  ++finding_count;
  tell(recording.file + ':' + std::to_string(event.line) + ": " + finding);
}

// --- Time ---

// When the event is due, in nanoseconds of Clock.
std::int64_t Replayer::timeOf(const RecordedEvent& event) const {
  if (!(speed > 0)) return now;
  const auto distance = static_cast<double>(event.microseconds - then) * 1000 / speed;
  constexpr double kFar = 4e18;
  return now + static_cast<std::int64_t>(std::min(distance, kFar - static_cast<double>(now)));
}

void Replayer::happened(const RecordedEvent& event) {
  then = event.microseconds;
  now = Clock::now();
}

// --- Waiting ---

void Replayer::rest(std::int64_t deadline) {
  const Signals::Event event = signals.wait(-1, deadline);
  if (event != Signals::Event::Deadline) throw Stop();
}

// Takes what the house sends, unless there are `most` bytes already. False at the deadline.
bool Replayer::awaitInput(std::int64_t deadline, std::size_t most) {
  if (!connected || house_left || input.size() >= most) {
    rest(deadline);
    return false;
  }
  const Signals::Event event = signals.wait(peer.descriptor(), deadline);
  if (event == Signals::Event::Deadline) return false;
  if (event != Signals::Event::Done) throw Stop();
  house_left = !peer.receive(input);
  return true;
}

// Nothing when there is a house. One that has left may come back.
void Replayer::awaitHouse(const RecordedEvent& event) {
  if (connected && !house_left) return;
  if (std::exchange(connected, false)) peer.disconnect();
  house_left = false;
  const std::int64_t deadline =
      house_came ? std::max(timeOf(event), Clock::now()) + kHousePatience : kNoDeadline;
  while (!peer.connect()) {
    if (deadline != kNoDeadline && Clock::now() >= deadline) {
      report(event, "expected the house to connect; it did not within 60 s");
      throw Stop();
    }
    const std::int64_t look = peer.descriptor() < 0 ? inTime(kLook) : deadline;
    const Signals::Event woken = signals.wait(peer.descriptor(), look);
    if (woken != Signals::Event::Done && woken != Signals::Event::Deadline) throw Stop();
  }
  connected = true;
  if (!std::exchange(house_came, true)) now = Clock::now();
}

// --- The events ---

void Replayer::open(const RecordedEvent& event) {
  awaitHouse(event);
  happened(event);
}

// A house that has left already is what it was, or was the one to end the link then too.
void Replayer::close(const RecordedEvent& event) {
  const std::int64_t due = timeOf(event);
  while (connected && !house_left && Clock::now() < due) awaitInput(due);
  if (!input.empty())
    report(event, "expected nothing more before the link ends; " +
                      quoted(std::exchange(input, "")) + " came");
  if (connected) leave();
  happened(event);
}

void Replayer::leave() {
  const std::int64_t deadline = inTime(kLeavePatience);
  while (!house_left && !peer.leave() && Clock::now() < deadline) rest(inTime(kLook));
  peer.disconnect();
  connected = house_left = false;
}

void Replayer::send(const RecordedEvent& event) {
  awaitHouse(event);
  const std::int64_t due = timeOf(event);
  while (Clock::now() < due) awaitInput(due);
  awaitHouse(event);
  const std::int64_t deadline = std::max(due, Clock::now()) + kBytesPatience;
  std::string_view bytes = event.bytes;
  while (!bytes.empty() && !house_left && Clock::now() < deadline) {
    const std::size_t count = peer.send(bytes);
    bytes.remove_prefix(count);
    if (count == 0) awaitInput(std::min(deadline, inTime(kLook)));
  }
  if (!bytes.empty())
    report(event, "expected the house to take " + std::to_string(event.bytes.size()) +
                      " bytes; it left " + std::to_string(bytes.size()) + " of them");
  happened(event);
}

void Replayer::expect(const RecordedEvent& event) {
  awaitHouse(event);
  std::int64_t deadline = std::max(timeOf(event), Clock::now()) + kBytesPatience;
  while (!received(event)) {
    if (!event.bytes.starts_with(input)) {
      // What belongs to the wrong bytes is told with them.
      while (Clock::now() < deadline && awaitInput(std::min(deadline, inTime(kSilence)))) continue;
      return reportOther(event);
    }
    if (house_left && input.empty()) {
      awaitHouse(event);
      deadline = inTime(kBytesPatience);
    } else if (house_left || !awaitInput(deadline, std::max(kMostInput, event.bytes.size()))) {
      return reportOther(event);
    }
  }
  happened(event);
}

// Takes the expected bytes when they are there.
bool Replayer::received(const RecordedEvent& event) {
  if (!input.starts_with(event.bytes)) return false;
  input.erase(0, event.bytes.size());
  return true;
}

// Whatever has come instead is taken for it.
void Replayer::reportOther(const RecordedEvent& event) {
  const std::string came = std::exchange(input, "");
  const std::string what = came.empty()                    ? "nothing came within 5 s"
                           : event.bytes.starts_with(came) ? "only " + quoted(came) + " came"
                                                           : quoted(came) + " came";
  report(event, "expected " + quoted(event.bytes) + " from the house; " + what);
  happened(event);
}

void Replayer::reportRest() {
  if (input.empty()) return;
  ++finding_count;
  tell(recording.file + ": expected nothing more from the house; " + quoted(input) + " came");
}

}  // namespace drovane
