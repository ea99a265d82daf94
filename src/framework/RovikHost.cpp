#include "RovikHost.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <condition_variable>
#include <mutex>
#include <new>
#include <utility>

#include "Clock.h"
#include "Drovane.h"
#include "Log.h"
#include "MessageJson.h"
#include "RecordPool.h"
#include "RovikUtil.h"
#include "Slot.h"
#include "TimeValue.h"
#include "Words.h"

namespace drovane {
thread_local const RovikHost* InsideRovik::current = nullptr;

namespace {

// The loop looks again then; it keeps a delay of years within the 32-bit time_t of small machines.
constexpr std::int64_t kLongestSleep = 3600 * Clock::kNanosecondsPerSecond;

// For want of memory one that is short enough to need none.
CommandResult stoppedResult() {
  try {
    return {false, "the rovik is being stopped"};
  } catch (const std::bad_alloc&) {
    return {false, "it is stopped"};
  }
}

}  // namespace

RovikHost::RovikHost(Rovik& its_rovik, const Identity& identity)
    : rovik(its_rovik),
      waker(std::make_shared<Waker>()),
      mailbox(std::make_shared<Mailbox>(identity.id, identity.name, waker)),
      outbox(mailbox) {}

RovikHost::~RovikHost() {
  leaveRouter();
  for (; batch_done < batch.size(); ++batch_done) RecordPool::release(batch[batch_done]);
}

RovikHost& RovikHost::of(Rovik& rovik) { return *rovik.host; }

bool RovikHost::enterRouter() { return Router::global().add(mailbox); }

void RovikHost::leaveRouter() {
  Router::global().remove(*mailbox);
  mailbox->close();
}

int RovikHost::start(std::function<bool()> its_first) {
  first = std::move(its_first);
  if (!first) acceptCommands();
  const int error = rovik.start(rovik.name.c_str());
  if (error != 0) endCommands();
  return error;
}

void RovikHost::askToStop() {
  rovik.askToStop();
  waker->wake();
}

int RovikHost::messageSnd(RovikMessage* msg) {
  if (msg == nullptr) return -1;
  const int receivers = InsideRovik::is(this) ? outbox.send(*msg) : outbox.sendNow(*msg);
  return receivers < 0 ? -1 : 0;
}

RovikMessage* RovikHost::messageSndBlock(RovikMessage* msg) {
  if (msg == nullptr || rovik.stopping()) return nullptr;
  if (outbox.sendRequest(*msg) == 0) return nullptr;
  awaitReply();
  return mailbox->endWait();
}

void RovikHost::awaitReply() {
  const std::int64_t deadline = Clock::now() + std::chrono::nanoseconds(kPatience).count();
  while (true) {
    waker->aboutToSleep();
    const std::int64_t left = deadline - Clock::now();
    if (mailbox->replied() || left <= 0 || rovik.stopping()) break;
    pollFor(left, -1);
  }
  waker->awake(false);
}

bool RovikHost::blocksOn(int socket) {
  MutexLock guard(lock);
  blocking_socket = interrupted ? -1 : socket;
  return !interrupted;
}

// Under the lock, so that the number is not another thread's descriptor already. What is no
// connected socket does not mind.
void RovikHost::interrupt() {
  MutexLock guard(lock);
  interrupted = true;
  if (blocking_socket >= 0) ::shutdown(blocking_socket, SHUT_RDWR);
}

void RovikHost::setWarning(std::string text) {
  Log::makeOneLine(text);
  timeval now{};
  TimeValue::getCurrentSystemTime(now);
  MutexLock guard(lock);
  warning = std::move(text);
  warning_time = now.tv_sec;
  warning_clock = Clock::now();
  ++warning_count;
}

bool RovikHost::pollFor(std::int64_t nanoseconds, int link) {
  std::array<pollfd, 2> watched = {{{waker->descriptor(), POLLIN, 0}, {link, POLLIN, 0}}};
  nanoseconds = std::min(nanoseconds, kLongestSleep);
  timespec limit{};
  limit.tv_sec = static_cast<time_t>(nanoseconds / Clock::kNanosecondsPerSecond);
  limit.tv_nsec = static_cast<long>(nanoseconds % Clock::kNanosecondsPerSecond);
  // An error or a closed descriptor counts as readable: the rovik's read tells it the reason.
  // poll(2) passes over a negative descriptor.
  const int ready =
      ppoll(watched.data(), watched.size(), nanoseconds < 0 ? nullptr : &limit, nullptr);
  waker->awake(ready > 0 && watched[0].revents != 0);
  return ready > 0 && watched[1].revents != 0;
}

// Whatever a command sends leaves when it returns.
std::string RovikHost::interpret(const std::vector<std::string>& words) {
  if (words.empty()) return "";  // a rovik may rely on its keyword
  const InsideRovik here(this);
  const BusySign::In busy(busy_sign, "interpretCmd", Clock::coarse());
  CommandVector vector(words);
  std::string reply;
  runSlot([&] { reply = rovik.interpretCmd(vector.get()); },
          [&](const char* what) {
            exceptionIn("interpretCmd", what);
            reply = "ERROR (EXCEPTION)";
          });
  outbox.flush();
  publishState();
  publishDescription();
  return reply;
}

CommandResult RovikHost::command(std::vector<std::string> words) {
  if (!running.load(std::memory_order_acquire)) return {true, interpret(words)};
  struct Turn {
    std::mutex lock;
    std::condition_variable over;
    bool done = false;
    CommandResult result;
  };
  const auto turn = std::make_shared<Turn>();
  const auto waiting = std::make_shared<Command>(std::move(words), [turn](CommandResult result) {
    const std::lock_guard guard(turn->lock);
    turn->result = std::move(result);
    turn->done = true;
    turn->over.notify_one();
  });
  if (!post(waiting)) return stoppedResult();
  std::unique_lock guard(turn->lock);
  if (!turn->over.wait_for(guard, kPatience, [&] { return turn->done; }) && waiting->withdraw())
    return {false, "no turn within 5 s: the rovik is busy"};
  turn->over.wait(guard, [&] { return turn->done; });
  return turn->result;
}

bool RovikHost::post(const std::shared_ptr<Command>& command) {
  {
    MutexLock guard(lock);
    if (!accepting) return false;
    commands.push_back(command);
  }
  // In one order with the sleeper's steps: either it sees the command or wake() sees it asleep.
  commands_wait.store(true, std::memory_order_seq_cst);
  waker->wake();
  return true;
}

void RovikHost::acceptCommands() {
  MutexLock guard(lock);
  accepting = true;
  running.store(true, std::memory_order_release);
}

// None when no command waits.
std::shared_ptr<Command> RovikHost::nextCommand() {
  MutexLock guard(lock);
  std::shared_ptr<Command> next;
  if (!commands.empty()) {
    next = std::move(commands.front());
    commands.pop_front();
  }
  commands_wait.store(!commands.empty(), std::memory_order_release);
  return next;
}

void RovikHost::endCommands() {
  {
    MutexLock guard(lock);
    accepting = false;
  }
  running.store(false, std::memory_order_release);
  while (const auto command = nextCommand())
    if (command->withdraw()) command->done(stoppedResult());
}

// The one place that tells a person, whatever the plug-in, that a link has come up or gone.
void RovikHost::publishState() {
  const bool open = rovik.fd >= 0;
  if (link_open.load(std::memory_order_relaxed) == open) return traffic.linkIs(open);
  traffic.linkChanged(open);
  link_open.store(open, std::memory_order_relaxed);
  Drovane::global.log(LOG_LEVEL_INFO, kFrameworkId, kFrameworkName, "rovik %d %s: link %s\n",
                      mailbox->id, mailbox->name.c_str(), open ? "open" : "closed");
}

void RovikHost::publishDescription() {
  const BusySign::In busy(busy_sign, "getDescription", Clock::coarse());
  const auto report = [this](const char* what) { exceptionIn("getDescription", what); };
  std::string text;
  runSlot(
      [&] {
        const Json json(cJSON_CreateObject());
        runSlot([&] { rovik.getDescription(json.get()); }, report);
        text = jsonLine(json.get());
      },
      report);
  MutexLock guard(lock);
  if (!text.empty()) description = std::move(text);
  type = rovik.type;
}

void RovikHost::exceptionIn(const char* slot, const char* what) {
  try {
    Drovane::global.log(LOG_LEVEL_ERROR, mailbox->id, mailbox->name, "exception in %s: %s\n", slot,
                        what);
    setWarning(RovikUtil::vsnprintftostr("exception in %s: %s\n", slot, what));
  } catch (const std::bad_alloc&) {
    Log::global().countLost();
  }
}

RovikStatus RovikHost::status() const {
  RovikStatus now;
  now.id = mailbox->id;
  now.name = mailbox->name;
  now.running = running.load(std::memory_order_relaxed);
  now.link_open = link_open.load(std::memory_order_relaxed);
  now.held_back = held_back.load(std::memory_order_relaxed);
  now.queued = mailbox->depth();
  now.received = mailbox->received();
  now.sent = outbox.sent();
  now.dropped = mailbox->dropped();
  now.busy = busy();
  now.traffic = traffic.figures();
  now.script_memory = script_memory.load(std::memory_order_relaxed);
  const std::int64_t expiry = timer_expiry.load(std::memory_order_relaxed);
  if (expiry != kNoTimer) now.timer_expiry = expiry;
  MutexLock guard(lock);
  now.warning = warning;
  now.warning_time = warning_time;
  now.warning_clock = warning_clock;
  now.warning_count = warning_count;
  now.description = description;
  now.type = type;
  return now;
}

}  // namespace drovane
