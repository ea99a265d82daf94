// The event loop of a rovik: wait for the link, the timer, messages and commands, and call the
// slot of each. Everything a rovik does after its start happens below run().
#include <poll.h>
#include <sched.h>

#include <exception>
#include <memory>
#include <new>

#include "Clock.h"
#include "Drovane.h"
#include "Log.h"
#include "RecordPool.h"
#include "RovikHost.h"
#include "Slot.h"
#include "Words.h"

namespace drovane {
namespace {

// A message in hand, which goes back whatever happens.
class Delivered {
 public:
  explicit Delivered(RovikMessage* its_msg) : msg(its_msg) {}
  ~Delivered() { RecordPool::release(msg); }
  Delivered(const Delivered&) = delete;
  Delivered& operator=(const Delivered&) = delete;

 private:
  RovikMessage* const msg;
};

// Leaves what a processor shares with its twin to that one for a moment.
void relax() {
#if defined(__x86_64__) || defined(__i386__)
  __builtin_ia32_pause();
#elif defined(__arm__) || defined(__aarch64__)
  __asm__ volatile("yield");
#endif
}

// So many messages in one batch do not come one by one.
constexpr std::size_t kFlood = 64;

// Nanoseconds: large batches that come so soon after each other are a flood.
constexpr std::int64_t kSoon = 100'000;

// Which message after the one in hand is fetched into this processor's cache meanwhile.
constexpr std::size_t kAhead = 3;

// A batch larger than this gives its memory back after it is done.
constexpr std::size_t kKeptBatch = 4 * Mailbox::kHighWater;

}  // namespace

int RovikHost::run() {
  if (first) {
    if (!first()) return 0;
    acceptCommands();
  }
  publishDescription();
  rovik.timer.set(rovik.period, true);
  while (!rovik.stopping()) pass();
  publishState();
  endCommands();
  return 0;
}

// What the framework does around the slots may fail for want of memory too. The event in hand is
// over then; the rovik goes on.
void RovikHost::pass() {
  try {
    if (waitForEvents()) dispatchLink();
    dispatchMessages();
    dispatchCommands();
    dispatchTimer();
  } catch (const std::exception& error) {
    Drovane::global.log(LOG_LEVEL_ERROR, kFrameworkId, kFrameworkName,
                        "rovik %d %s: exception in its loop: %s\n", mailbox->id,
                        mailbox->name.c_str(), error.what());
    // What the event would have done at its end, so that nobody waits for it.
    outbox.flush();
    mailbox->left(batch.size() - batch_done);
  }
}

// True when the link is readable. While a receiver of this rovik's messages has not caught up, the
// link is left alone, so that its peer is slowed down.
bool RovikHost::waitForEvents() {
  waiting_since = Clock::now();
  if (flooded) linger();
  publishState();
  FD_ZERO(&rovik.readfds);
  waker->aboutToSleep();  // first: a receiver that drains after this look rings
  const bool full = outbox.heldBack();
  held_back.store(full, std::memory_order_relaxed);
  const int link = full ? -1 : rovik.fd;
  const bool busy = workWaits();
  if (busy && link < 0) {
    waker->awake(false);
    return false;
  }
  const bool readable = pollFor(busy ? 0 : timeLeft(), link);
  if (readable && link < FD_SETSIZE) FD_SET(link, &rovik.readfds);
  return readable;
}

// In a flood the next batch is there before a sleeper would be up, and its feeder, which may share
// the processor, is spared the waking.
void RovikHost::linger() const {
  constexpr std::int64_t kLongest = 50'000;  // nanoseconds
  constexpr int kLooks = 256;                // between two calls of the system
  const std::int64_t end = Clock::now() + kLongest;
  while (Clock::now() < end) {
    for (int i = 0; i < kLooks; ++i) {
      if (mailbox->depth() > 0) return;
      relax();
    }
    sched_yield();
  }
}

bool RovikHost::workWaits() {
  return batch_done < batch.size() || !mailbox->empty() || rovik.stopping() ||
         commands_wait.load(std::memory_order_seq_cst);
}

// Nanoseconds until the timer expires; negative when it is not armed.
std::int64_t RovikHost::timeLeft() {
  const auto expiry = rovik.timer.expiry();
  timer_expiry.store(expiry.value_or(kNoTimer), std::memory_order_relaxed);
  return expiry ? std::max<std::int64_t>(*expiry - Clock::now(), 0) : -1;
}

// Runs one slot; what it sends leaves when it has returned.
template <typename Slot>
void RovikHost::slot(const char* slot_name, Slot body) {
  const InsideRovik here(this);
  runSlot(body, [&](const char* what) { exceptionIn(slot_name, what); });
}

// A link that has more is read again at once, so that what several reads bring leaves in one batch:
// until that is a batch worth the receivers' waking, for at most one tick of the kernel's clock,
// and only while nothing else waits.
void RovikHost::dispatchLink() {
  const std::int64_t begun = Clock::coarse();
  const BusySign::In busy(busy_sign, "selectFD", begun);
  const std::uint64_t sent_before = outbox.sent();
  do slot("selectFD", [this] { rovik.selectFD(); });
  while (outbox.sent() - sent_before < kFlood && !commands_wait.load() && mailbox->depth() == 0 &&
         !rovik.stopping() && Clock::coarse() == begun && linkHasMore());
  outbox.flush();
}

// Leaves readfds as they are when it is so.
bool RovikHost::linkHasMore() const {
  if (rovik.fd < 0 || rovik.fd >= FD_SETSIZE || !FD_ISSET(rovik.fd, &rovik.readfds)) return false;
  pollfd link{rovik.fd, POLLIN, 0};
  return poll(&link, 1, 0) > 0;
}

// At most for one tick of the kernel's clock, so that the link, commands and the timer have their
// turn however many messages wait. What the slots send leaves in batches meanwhile.
void RovikHost::dispatchMessages() {
  if (batch_done == batch.size()) {
    batch.clear();
    batch_done = 0;
    mailbox->take(batch);
  }
  flooded = batch.size() >= kFlood && Clock::now() - waiting_since < kSoon;
  if (batch.empty()) return;
  const std::int64_t begun = Clock::coarse();
  const BusySign::In busy(busy_sign, "selectMM", begun);
  while (batch_done < batch.size() && !rovik.stopping()) {
    RovikMessage* const msg = batch[batch_done++];
    if (batch_done + kAhead < batch.size()) RecordPool::prefetch(batch[batch_done + kAhead]);
    dispatchMessage(msg);
    if (commands_wait.load(std::memory_order_relaxed) || Clock::coarse() != begun) break;
  }
  outbox.flush();
  mailbox->left(batch.size() - batch_done);
  if (batch_done == batch.size() && batch.capacity() > kKeptBatch) {
    std::vector<RovikMessage*>().swap(batch);
    batch_done = 0;
  }
}

void RovikHost::dispatchMessage(RovikMessage* msg) {
  const Delivered here(msg);
  slot("selectMM", [&] { rovik.selectMM(msg); });
  if (msg->type == MM_CMD_REQUEST) answerCommandRequest(static_cast<const MMCmdRequest&>(*msg));
}

void RovikHost::answerCommandRequest(const MMCmdRequest& request) {
  const WordsOrError line = splitWords(request.cmd);
  const std::unique_ptr<MMCmdResponse, void (*)(RovikMessage*)> response(
      static_cast<MMCmdResponse*>(RovikMessage::create(MM_CMD_RESPONSE)), RovikMessage::destroy);
  if (response == nullptr) return;
  response->seqnr = request.seqnr;
  response->dst = request.src;
  response->rsp = line.error.empty() ? interpret(line.words) : "ERROR (" + line.error + ")";
  const InsideRovik here(this);
  // A request without a sender has nobody to answer to: the response would reach everybody.
  if (request.src != NO_DESTINATION) outbox.send(*response);
}

// Whoever waits for the reply gets one in any case; this one is short enough to need no memory.
CommandResult RovikHost::outcome(const std::vector<std::string>& words) {
  try {
    return {true, interpret(words)};
  } catch (const std::bad_alloc&) {
    return {true, "ERROR (MEMORY)"};
  }
}

void RovikHost::dispatchCommands() {
  while (commands_wait.load(std::memory_order_acquire) && !rovik.stopping()) {
    const auto command = nextCommand();
    if (command && command->begin()) command->done(outcome(command->words));
  }
}

void RovikHost::dispatchTimer() {
  const auto expiry = rovik.timer.expiry();
  if (!expiry || *expiry > Clock::now()) return;
  rovik.timer.set(rovik.period, false);
  const BusySign::In busy(busy_sign, "selectTI", Clock::coarse());
  slot("selectTI", [this] { rovik.selectTI(); });
  outbox.flush();
}

}  // namespace drovane
