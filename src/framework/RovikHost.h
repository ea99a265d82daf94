// Everything that the framework keeps about one rovik, and the loop that drives it.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Busy.h"
#include "Command.h"
#include "Identity.h"
#include "LinkTraffic.h"
#include "Mailbox.h"
#include "Mutex.h"
#include "Outbox.h"
#include "Rovik.h"
#include "RovikMessage.h"

namespace drovane {

// What the status display shows of one rovik.
struct RovikStatus {
  int id = 0;
  std::string name;
  int type = 0;
  bool running = false;  // its loop is
  bool link_open = false;
  bool held_back = false;  // does not read its link until a receiver has caught up
  std::size_t queued = 0;
  std::uint64_t received = 0;
  std::uint64_t sent = 0;
  std::uint64_t dropped = 0;
  std::string warning;             // the last one, without the line end; empty when there was none
  std::int64_t warning_time = 0;   // seconds since 1970
  std::int64_t warning_clock = 0;  // the same moment in nanoseconds of Clock
  std::uint64_t warning_count = 0;
  std::string description;  // the description object as JSON
  std::optional<Busy> busy;
  LinkTraffic::Figures traffic;
  std::size_t script_memory = 0;             // bytes; 0: no script is open
  std::optional<std::int64_t> timer_expiry;  // nanoseconds of Clock; none: the timer is not armed
};

class RovikHost {
 public:
  // How long a command waits for its turn, and a request for its reply.
  static constexpr std::chrono::seconds kPatience{5};

  RovikHost(Rovik& its_rovik, const Identity& identity);
  ~RovikHost();
  RovikHost(const RovikHost&) = delete;
  RovikHost& operator=(const RovikHost&) = delete;

  static RovikHost& of(Rovik& rovik);

  // --- The owner of the rovik, one thread ---

  // Gives the rovik its address. False when its id or name is taken.
  bool enterRouter();
  // Starts the rovik's thread. It runs `first`, if there is one, which may call command, and then
  // the loop, unless `first` returned false. 0 or the error number of pthread_create(3).
  int start(std::function<bool()> first = nullptr);
  // For `first`, when it is going to return true: from now on commands wait for the loop.
  void acceptCommands();
  // Before start: from now on the rovik is tried, and gets its links here.
  using TrialLinks = std::function<int(const Rovik::TrialLink& kind)>;
  void setOnTrial(TrialLinks links) { trial_links = std::move(links); }
  // Lets the loop end after the event in hand, without waiting: Rovik::stop then waits.
  void askToStop();

  // --- Any thread ---

  // Ends the wait for a peer that the thread inside the rovik may be in, for good: shuts the socket
  // down that the rovik has named, and has it name no other.
  void interrupt();

  // Takes the rovik's address away, for good: what waits for it is dropped, nothing more reaches
  // it, and nobody is held back because of it. It can still send.
  void leaveRouter();

  // Runs a command inside the rovik: directly while its loop does not run, which is for whoever is
  // inside the rovik then; else on its thread, waiting for the turn at most kPatience, which is not
  // for that thread itself.
  CommandResult command(std::vector<std::string> words);

  // Queues a command for the rovik's loop and returns at once. False when the loop does not run;
  // the command is then untouched.
  bool post(const std::shared_ptr<Command>& command);

  RovikStatus status() const;
  // The slot that the rovik is in now; none while it waits for events.
  std::optional<Busy> busy() const { return busy_sign.look(); }
  const Mailbox& address() const { return *mailbox; }

  // What a rovik calls through its base class.
  int messageSnd(RovikMessage* msg);
  RovikMessage* messageSndBlock(RovikMessage* msg);
  bool blocksOn(int socket);
  void setWarning(std::string text);
  bool onTrial() const { return trial_links != nullptr; }
  int trialLink(const Rovik::TrialLink& kind) { return trial_links(kind); }
  LinkTraffic traffic;
  std::atomic<std::size_t> script_memory{0};

  // The thread body.
  int run();

 private:
  static constexpr std::int64_t kNoTimer = -1;

  // The loop (RovikLoop.cpp).
  bool waitForEvents();
  void linger() const;
  bool workWaits();
  std::int64_t timeLeft();
  void dispatchLink();
  bool linkHasMore() const;
  void dispatchMessages();
  void dispatchMessage(RovikMessage* msg);
  void answerCommandRequest(const MMCmdRequest& request);
  void dispatchCommands();
  void dispatchTimer();
  void pass();
  CommandResult outcome(const std::vector<std::string>& words);
  template <typename Slot>
  void slot(const char* slot_name, Slot body);
  void endCommands();
  std::shared_ptr<Command> nextCommand();

  // Sleeps, after waker->aboutToSleep, until the waker rings, `link` is readable (-1: none) or the
  // time is over (negative: never). True when the link is readable.
  bool pollFor(std::int64_t nanoseconds, int link);
  void awaitReply();

  std::string interpret(const std::vector<std::string>& words);
  void exceptionIn(const char* slot_name, const char* what);
  void publishState();
  void publishDescription();

  Rovik& rovik;
  const std::shared_ptr<Waker> waker;
  const std::shared_ptr<Mailbox> mailbox;

  std::function<bool()> first;  // the thread's, once it runs
  TrialLinks trial_links;       // null: the rovik's links are its own

  // Whoever is inside the rovik: its thread, or the owner before that runs.
  Outbox outbox;
  std::vector<RovikMessage*> batch;  // taken from the mailbox, in order
  std::size_t batch_done = 0;
  bool flooded = false;            // the last batch was a large one, and came soon
  std::int64_t waiting_since = 0;  // when the last wait for events began, by Clock

  BusySign busy_sign;
  std::atomic<bool> running{false};
  std::atomic<bool> link_open{false};
  std::atomic<bool> held_back{false};
  std::atomic<std::int64_t> timer_expiry{kNoTimer};  // as the last wait for events found it
  std::atomic<bool> commands_wait{false};

  mutable Mutex lock;
  std::deque<std::shared_ptr<Command>> commands DROVANE_GUARDED_BY(lock);
  bool accepting DROVANE_GUARDED_BY(lock) = false;  // commands, because the loop runs
  std::string warning DROVANE_GUARDED_BY(lock);
  std::int64_t warning_time DROVANE_GUARDED_BY(lock) = 0;
  std::int64_t warning_clock DROVANE_GUARDED_BY(lock) = 0;
  std::uint64_t warning_count DROVANE_GUARDED_BY(lock) = 0;
  std::string description DROVANE_GUARDED_BY(lock);
  int blocking_socket DROVANE_GUARDED_BY(lock) = -1;  // -1: none
  bool interrupted DROVANE_GUARDED_BY(lock) = false;
  int type DROVANE_GUARDED_BY(lock) = 0;
};

}  // namespace drovane
