// What the control socket's clients can ask for, and the answers that take their time.
#pragma once

#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Command.h"
#include "ControlTrace.h"
#include "ControlWatch.h"
#include "House.h"
#include "Mailbox.h"
#include "MessageJson.h"
#include "Mutex.h"
#include "Outbox.h"
#include "Waker.h"

namespace drovane {

// Command results on their way from the rovik's threads to the control thread.
class CommandResults {
 public:
  struct Entry {
    std::uint64_t ticket;
    CommandResult result;
  };

  explicit CommandResults(std::shared_ptr<Waker> its_waker) : waker(std::move(its_waker)) {}

  // Where a result will be put: made beforehand, so that putting it needs no memory.
  using Place = std::list<Entry>;
  static std::shared_ptr<Place> placeFor(std::uint64_t ticket);

  void put(Place& place, CommandResult result);
  std::list<Entry> take();
  bool empty() const;

 private:
  const std::shared_ptr<Waker> waker;
  mutable Mutex lock;
  std::list<Entry> entries DROVANE_GUARDED_BY(lock);
};

// Asks for the configuration to be read anew. Called on the control thread, and does not wait;
// `done` is called once, later, on any thread.
using ReloadDone = std::function<void(const House::Reloaded& outcome)>;
using ReloadRequest = std::function<void(ReloadDone done)>;

// Belongs to the control thread. Is the router's address of the command line.
class ControlOperations {
 public:
  using Answer = std::function<void(std::uint64_t client, const std::string& line)>;

  // Throws std::runtime_error when the command line's address is taken.
  ControlOperations(const House& its_house, std::string its_version, ControlWatch& its_watch,
                    ControlTrace& its_trace, const std::shared_ptr<Waker>& waker,
                    ReloadRequest its_reload = nullptr);
  ~ControlOperations();
  ControlOperations(const ControlOperations&) = delete;
  ControlOperations& operator=(const ControlOperations&) = delete;

  // Does what one line asks for. Returns the reply; nothing when it comes later, through
  // `collect`.
  std::optional<std::string> perform(std::uint64_t client, const std::string& line);

  // Results, replies and overdue requests have come in: hands their answers out.
  void collect(const Answer& answer);
  // True when collect has something to do apart from what is overdue.
  bool waiting() const;
  // When the next request is overdue, in nanoseconds of Clock.
  std::optional<std::int64_t> nextDeadline() const;

  // The client is gone: gives up what it waits for.
  void forget(std::uint64_t client);

 private:
  struct Request {
    std::uint64_t client;
    const cJSON* fields;
  };
  // Null when the answer comes later.
  using Handler = Json (ControlOperations::*)(const Request&);
  struct Operation {
    const char* name;
    Handler handler;
  };
  static const Operation kOperations[];

  // A request that is not answered yet; one client has at most one.
  struct Pending {
    std::uint64_t client = 0;
    std::int64_t deadline = 0;
    std::string rovik;                 // its label
    std::uint32_t seqnr = 0;           // of a data request; 0 for a command
    std::shared_ptr<Command> command;  // null for a data request
    bool whole = false;                // the result is the reply's line already
  };

  Json command(const Request& request);
  Json send(const Request& request);
  Json get(const Request& request);
  Json status(const Request& request);
  Json watchMessages(const Request& request);
  Json logLevel(const Request& request);
  Json traceLink(const Request& request);
  Json reload(const Request& request);
  Json versionOnly(const Request& request);

  static const Operation& operation(const std::string& name);
  House::Found member(const std::string& rovik) const;
  WatchFilter::Address watched(const std::string& rovik) const;
  Pending& addPending(std::uint64_t client);
  Pending& addPending(std::uint64_t client, const House::Member& receiver);
  std::string resultLine(const Pending& waiting, const CommandResult& result) const;
  template <typename MakeLine>
  void answerWith(std::uint64_t client, const Answer& answer, MakeLine makeLine) const;
  void collectResults(const Answer& answer);
  void collectReplies(const Answer& answer);
  void collectReply(RovikMessage& msg, const Answer& answer);
  void collectOverdue(const Answer& answer);

  const House& house;
  const std::string version;
  const std::string no_memory;  // the answer for want of memory, made beforehand
  ControlWatch& watch;
  ControlTrace& trace;
  const ReloadRequest request_reload;
  const std::int64_t started;  // nanoseconds of Clock
  const std::shared_ptr<Mailbox> mailbox;
  Outbox outbox;
  const std::shared_ptr<CommandResults> results;
  std::uint64_t last_ticket = 0;
  std::map<std::uint64_t, Pending> pending;  // by ticket
};

}  // namespace drovane
