#include "ControlOperations.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <limits>
#include <new>
#include <stdexcept>
#include <utility>

#include "Clock.h"
#include "ControlProtocol.h"
#include "ControlRequests.h"
#include "Drovane.h"
#include "LocalTime.h"
#include "Log.h"
#include "RecordPool.h"
#include "Router.h"
#include "StatusRow.h"

namespace drovane {
namespace {

constexpr std::int64_t kNever = std::numeric_limits<std::int64_t>::max();

std::string reloadLine(const House::Reloaded& outcome) {
  if (!outcome.done) return errorReply(outcome.text);
  const Json reply = okReply();
  addText(reply.get(), "summary", outcome.text);
  cJSON* const list = cJSON_AddArrayToObject(reply.get(), "findings");
  for (const std::string& finding : outcome.findings)
    cJSON_AddItemToArray(list, textItem("finding", finding).release());
  return jsonLine(reply.get());
}

// A list of all, or of one. Each is text before the next is looked at: as one tree of a large house
// they would take megabytes, which the system hands out and takes back with every answer.
std::string statusRows(const House& house, const House::Member* only, bool brief) {
  std::string rows = "[";
  for (const House::Member& each : house.all()) {
    if (only != nullptr && only != &each) continue;
    if (rows.size() > 1) rows += ',';
    rows += statusRow(each, brief);
  }
  return rows + ']';
}

}  // namespace

// In the order in which an error names them.
const ControlOperations::Operation ControlOperations::kOperations[] = {
    {"cmd", &ControlOperations::command},
    {"send", &ControlOperations::send},
    {"get", &ControlOperations::get},
    {"status", &ControlOperations::status},
    {"watch", &ControlOperations::watchMessages},
    {"log-level", &ControlOperations::logLevel},
    {"trace", &ControlOperations::traceLink},
    {"reload", &ControlOperations::reload},
    {"version", &ControlOperations::versionOnly},
};

std::shared_ptr<CommandResults::Place> CommandResults::placeFor(std::uint64_t ticket) {
  return std::make_shared<Place>(1, Entry{ticket, {}});
}

void CommandResults::put(Place& place, CommandResult result) {
  place.front().result = std::move(result);
  {
    MutexLock guard(lock);
    entries.splice(entries.end(), place);
  }
  waker->wake();
}

std::list<CommandResults::Entry> CommandResults::take() {
  MutexLock guard(lock);
  return std::exchange(entries, {});
}

bool CommandResults::empty() const {
  MutexLock guard(lock);
  return entries.empty();
}

ControlOperations::ControlOperations(const House& its_house, std::string its_version,
                                     ControlWatch& its_watch, ControlTrace& its_trace,
                                     const std::shared_ptr<Waker>& waker, ReloadRequest its_reload)
    : house(its_house),
      version(std::move(its_version)),
      no_memory(errorReply("there is no memory for an answer; expected another try later")),
      watch(its_watch),
      trace(its_trace),
      request_reload(std::move(its_reload)),
      started(Clock::now()),
      mailbox(std::make_shared<Mailbox>(kCommandLineId, kCommandLineName, waker)),
      outbox(mailbox),
      results(std::make_shared<CommandResults>(waker)) {
  if (!Router::global().add(mailbox))
    throw std::runtime_error("the command line's address is already in use in this process");
}

ControlOperations::~ControlOperations() {
  Router::global().remove(*mailbox);
  mailbox->close();
}

const ControlOperations::Operation& ControlOperations::operation(const std::string& name) {
  std::string names;
  for (const Operation& candidate : kOperations) {
    if (name == candidate.name) return candidate;
    names += (names.empty() ? "" : ", ") + std::string(candidate.name);
  }
  throw RequestError("unknown op " + quotedValue(name) + "; expected one of " + names);
}

std::optional<std::string> ControlOperations::perform(std::uint64_t client,
                                                      const std::string& line) {
  try {
    const Json request = parseRequest(line);
    const std::string name = requiredText(request.get(), "op", "the name of an operation");
    const Json reply = (this->*operation(name).handler)({client, request.get()});
    if (!reply) return std::nullopt;
    return jsonLine(reply.get());
  } catch (const RequestError& error) {
    return errorReply(error.what());
  } catch (const std::bad_alloc&) {
    // What the request has left behind goes with the client's other business.
    forget(client);
    return no_memory;
  }
}

House::Found ControlOperations::member(const std::string& rovik) const {
  House::Found found = house.find(rovik);
  if (found == nullptr) {
    throw RequestError("there is no rovik " + quotedValue(rovik) +
                       "; expected a name or an id that 'drovane status' shows");
  }
  return found;
}

// Waits for ever.
ControlOperations::Pending& ControlOperations::addPending(std::uint64_t client) {
  Pending added;
  added.client = client;
  added.deadline = kNever;
  ++last_ticket;
  return pending.emplace(last_ticket, std::move(added)).first->second;
}

ControlOperations::Pending& ControlOperations::addPending(std::uint64_t client,
                                                          const House::Member& receiver) {
  Pending& added = addPending(client);
  added.deadline = Clock::now() + std::chrono::nanoseconds(RovikHost::kPatience).count();
  added.rovik = receiver.label();
  return added;
}

Json ControlOperations::command(const Request& request) {
  const House::Found receiver =
      member(requiredText(request.fields, "rovik", "a rovik's name or id"));
  std::vector<std::string> words = requiredWords(request.fields);
  auto wanted = std::make_shared<Command>(
      std::move(words), [place = CommandResults::placeFor(last_ticket + 1), queue = results](
                            CommandResult result) { queue->put(*place, std::move(result)); });
  Pending& waiting = addPending(request.client, *receiver);
  waiting.command = std::move(wanted);
  if (receiver->host().post(waiting.command)) return nullptr;
  pending.erase(last_ticket);
  if (receiver->state == House::Member::State::Configuring)
    throw RequestError("rovik " + receiver->label() +
                       " is starting: it has not come to the end of its configuration yet");
  throw RequestError("rovik " + receiver->label() + " does not run; expected it to be started");
}

Json ControlOperations::send(const Request& request) {
  const RecordOwner msg = messageFrom(request.fields);
  const auto to = optionalText(request.fields, "to");
  if (to && *to != "BC") msg->dst = static_cast<std::uint32_t>(member(*to)->config.id);
  const int receivers = outbox.sendNow(*msg);
  if (receivers < 0) throw RequestError("the message could not be delivered");
  Json reply = okReply();
  cJSON_AddNumberToObject(reply.get(), "receivers", receivers);
  return reply;
}

Json ControlOperations::get(const Request& request) {
  const RecordOwner msg = dataRequestFrom(request.fields);
  const House::Found receiver = member(requiredText(request.fields, "to", "a rovik's name or id"));
  msg->dst = static_cast<std::uint32_t>(receiver->config.id);
  msg->seqnr = Router::global().nextSeqnr();
  if (outbox.sendNow(*msg) <= 0)
    throw RequestError("the request could not be delivered to rovik " + receiver->label());
  addPending(request.client, *receiver).seqnr = msg->seqnr;
  return nullptr;
}

Json ControlOperations::status(const Request& request) {
  const auto only = optionalText(request.fields, "rovik");
  std::optional<House::Found> one;
  if (only) one.emplace(member(*only));
  const bool brief = optionalFlag(request.fields, "brief");
  Json reply = okReply();
  cJSON_AddStringToObject(reply.get(), "version", version.c_str());
  cJSON_AddNumberToObject(reply.get(), "pid", ::getpid());
  const std::int64_t uptime = (Clock::now() - started) / Clock::kNanosecondsPerSecond;
  cJSON_AddNumberToObject(reply.get(), "uptime", static_cast<double>(uptime));
  addText(reply.get(), "config", house.path());
  cJSON_AddNumberToObject(reply.get(), "undeliverable",
                          static_cast<double>(Router::global().undeliverable()));
  const std::string rows = statusRows(house, one ? &**one : nullptr, brief);
  if (cJSON_AddRawToObject(reply.get(), "roviks", rows.c_str()) == nullptr) throw std::bad_alloc();
  return reply;
}

WatchFilter::Address ControlOperations::watched(const std::string& rovik) const {
  if (rovik == kCommandLineName) return {kCommandLineId, rovik};
  const House::Found found = member(rovik);
  return {static_cast<std::uint32_t>(found->config.id), found->config.name};
}

Json ControlOperations::watchMessages(const Request& request) {
  WatchFilter filter;
  for (const std::string& rovik : optionalTexts(request.fields, "roviks"))
    filter.roviks.push_back(watched(rovik));
  for (const std::string& kind : optionalTexts(request.fields, "kinds"))
    filter.types.insert(kindFrom(kind));
  filter.keys = optionalTexts(request.fields, "keys");
  watch.add(request.client, std::move(filter));
  return okReply();
}

// Without a level it tells which one holds.
Json ControlOperations::logLevel(const Request& request) {
  if (const auto level = optionalText(request.fields, "level")) {
    if (*level != "2" && *level != "3" && *level != "4")
      throw RequestError("unknown log level " + quotedValue(*level) +
                         "; expected 2 (errors), 3 (events too) or 4 (everything)");
    Drovane::global.setLogLevel((*level)[0] - '0');
    Drovane::global.log(LOG_LEVEL_INFO, kFrameworkId, kFrameworkName, "log level set to %s\n",
                        level->c_str());
  }
  Json reply = okReply();
  cJSON_AddNumberToObject(reply.get(), "level", Drovane::global.logLevel());
  return reply;
}

// The mode is that of the configuration; a plug-in that knows no such word has none.
Json ControlOperations::traceLink(const Request& request) {
  const House::Found traced = member(requiredText(request.fields, "rovik", "a rovik's name or id"));
  const RovikStatus now = traced->host().status();
  Json reply = okReply();
  cJSON_AddStringToObject(reply.get(), "rovik", traced->config.name.c_str());
  for (const ConfigCommand& command : traced->config.commands) {
    if (command.words.size() != 2 || command.words.front() != "mode") continue;
    cJSON_DeleteItemFromObjectCaseSensitive(reply.get(), "mode");
    addText(reply.get(), "mode", command.words.back());
  }
  cJSON_AddBoolToObject(reply.get(), "link_open", now.link_open);
  cJSON_AddStringToObject(reply.get(), "time", localTimeNow().c_str());
  trace.add(request.client, traced->config.name, now.link_open);
  return reply;
}

// Whoever has read the file anew makes the line, so that the findings go no further.
Json ControlOperations::reload(const Request& request) {
  if (!request_reload)
    throw RequestError("this drovane has no configuration file that could be read anew");
  addPending(request.client).whole = true;
  request_reload([place = CommandResults::placeFor(last_ticket),
                  queue = results](const House::Reloaded& outcome) {
    CommandResult line{true, ""};
    try {
      line.text = reloadLine(outcome);
    } catch (const std::bad_alloc&) {
      // The control thread has an answer for want of memory.
    }
    queue->put(*place, std::move(line));
  });
  return nullptr;
}

Json ControlOperations::versionOnly(const Request&) {
  Json reply = okReply();
  cJSON_AddStringToObject(reply.get(), "version", version.c_str());
  cJSON_AddNumberToObject(reply.get(), "pid", ::getpid());
  return reply;
}

bool ControlOperations::waiting() const { return !results->empty() || !mailbox->empty(); }

std::optional<std::int64_t> ControlOperations::nextDeadline() const {
  std::int64_t next = kNever;
  for (const auto& [ticket, waiting] : pending) next = std::min(next, waiting.deadline);
  return next != kNever ? std::optional(next) : std::nullopt;
}

void ControlOperations::collect(const Answer& answer) {
  collectResults(answer);
  collectReplies(answer);
  collectOverdue(answer);
}

void ControlOperations::collectResults(const Answer& answer) {
  for (const CommandResults::Entry& entry : results->take()) {
    auto found = pending.extract(entry.ticket);
    if (!found) continue;  // overdue, or the client is gone
    const Pending& waiting = found.mapped();
    answerWith(waiting.client, answer, [&] { return resultLine(waiting, entry.result); });
  }
}

std::string ControlOperations::resultLine(const Pending& waiting,
                                          const CommandResult& result) const {
  if (waiting.whole) return result.text.empty() ? no_memory : result.text;
  if (!result.answered) return errorReply("rovik " + waiting.rovik + ": " + result.text);
  const Json reply = okReply();
  addText(reply.get(), "reply", result.text);
  return jsonLine(reply.get());
}

// A client that waits gets an answer even if there is no memory for the right one.
template <typename MakeLine>
void ControlOperations::answerWith(std::uint64_t client, const Answer& answer,
                                   MakeLine makeLine) const {
  std::string line;
  try {
    line = makeLine();
  } catch (const std::bad_alloc&) {
    return answer(client, no_memory);
  }
  answer(client, line);
}

void ControlOperations::collectReplies(const Answer& answer) {
  std::vector<RovikMessage*> batch;
  mailbox->take(batch);
  for (RovikMessage* msg : batch) {
    collectReply(*msg, answer);
    RecordPool::release(msg);
  }
  mailbox->left(0);
}

void ControlOperations::collectReply(RovikMessage& msg, const Answer& answer) {
  if (msg.type != MM_DATA && msg.type != MM_CMD_RESPONSE) return;
  const auto asked = std::find_if(pending.begin(), pending.end(), [&](const auto& entry) {
    return entry.second.seqnr != 0 && entry.second.seqnr == msg.seqnr;
  });
  if (asked == pending.end()) return;
  const std::uint64_t client = asked->second.client;
  pending.erase(asked);
  answerWith(client, answer, [&] {
    const Json reply = okReply();
    cJSON_AddItemToObject(reply.get(), "message", msg.toJSON());
    return jsonLine(reply.get());
  });
}

void ControlOperations::collectOverdue(const Answer& answer) {
  const std::int64_t now = Clock::now();
  for (auto at = pending.begin(); at != pending.end();) {
    Pending& waiting = at->second;
    // A command that has its turn is waited for, however long it takes.
    const bool has_turn =
        waiting.deadline <= now && waiting.command && !waiting.command->withdraw();
    if (has_turn) waiting.deadline = kNever;
    if (waiting.deadline > now) {
      ++at;
      continue;
    }
    // Out of the books first: whoever gets the answer may ask on, or may have to go.
    const auto over = pending.extract(at++);
    const Pending& unanswered = over.mapped();
    const char* const problem = unanswered.command ? ": no turn within 5 s, the rovik is busy"
                                                   : ": no answer to the request within 5 s";
    answerWith(unanswered.client, answer,
               [&] { return errorReply("rovik " + unanswered.rovik + problem); });
  }
}

void ControlOperations::forget(std::uint64_t client) {
  std::erase_if(pending, [client](auto& entry) {
    if (entry.second.client != client) return false;
    if (entry.second.command) entry.second.command->withdraw();
    return true;
  });
}

}  // namespace drovane
