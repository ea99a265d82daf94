#include "Caretaker.h"

#include <algorithm>
#include <new>
#include <utility>

#include "Drovane.h"
#include "framework/Clock.h"
#include "framework/Log.h"

namespace drovane {
namespace {

constexpr std::int64_t kLookPause = Clock::kNanosecondsPerSecond;
constexpr std::int64_t kProlongationPause = 10 * Clock::kNanosecondsPerSecond;

void log(int level, const std::string& text) {
  Drovane::global.log(level, kFrameworkId, kFrameworkName, "%s\n", text.c_str());
}

}  // namespace

Caretaker::Caretaker(const House& its_house, ControlServer& its_control, int restart_hung)
    : house(its_house), control(its_control), limit(restart_hung) {
  if (notify.pause()) next_sign = 0;
  if (limit != 0 && !notify.pause())
    log(LOG_LEVEL_ERROR,
        "--restart-hung has no effect: no service manager waits for signs of life; expected "
        "WATCHDOG_USEC and NOTIFY_SOCKET in the environment");
}

// What could not be done for want of memory is done the next time. A sign of life, which comes
// first, needs none.
std::int64_t Caretaker::turn() {
  try {
    const std::int64_t now = Clock::now();
    if (now >= next_sign) {
      next_sign = now + *notify.pause();
      sign();
    }
    if (now >= next_look || progress == Progress::Started) {
      next_look = now + kLookPause;
      look();
    }
  } catch (const std::bad_alloc&) {
    Log::global().countLost();
  }
  return std::min(next_look, next_sign);
}

void Caretaker::look() {
  watchdog.look(house);
  judge();
  if (progress == Progress::Starting)
    prolongStart();
  else
    tellStatus();
}

void Caretaker::prolongStart() {
  if (Clock::now() < next_prolongation) return;
  notify.starting();
  next_prolongation = Clock::now() + kProlongationPause;
}

void Caretaker::tellStatus() {
  std::string text = statusText();
  if (progress.exchange(Progress::Ready) == Progress::Started)
    notify.ready(text);
  else if (text != told)
    notify.status(text);
  told = std::move(text);
}

std::string Caretaker::statusText() const {
  if (watchdog.hanging() == 0) return house.countText();
  return house.countText() + ", " + std::to_string(watchdog.hanging()) + " of them hanging";
}

// The thread of the control socket has the time between two signs for a turn.
void Caretaker::sign() {
  control_is_stuck = !control.hasTurned();
  control.askForTurn();
  judge();
  if (!withheld) notify.alive();
}

// Logs the edge, not the repetition.
void Caretaker::judge() {
  if (!notify.pause()) return;
  const std::string why = objection();
  if (why.empty() == !withheld) return;
  withheld = !why.empty();
  if (withheld)
    log(LOG_LEVEL_ERROR,
        why + ": no more signs of life, so that the service manager restarts drovane");
  else
    log(LOG_LEVEL_INFO, "signs of life are given again");
}

// Why no sign of life is given; empty when one is.
std::string Caretaker::objection() const {
  if (control_is_stuck) return "the thread of the control socket does not turn";
  const auto& stay = watchdog.longest();
  if (limit == 0 || !stay || stay->seconds() < limit) return "";
  return "rovik " + stay->rovik + ": " + stay->busy.slot + " has not returned for " +
         std::to_string(stay->seconds()) + " s";
}

}  // namespace drovane
