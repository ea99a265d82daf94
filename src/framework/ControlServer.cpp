#include "ControlServer.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>
#include <tuple>
#include <utility>

#include "Clock.h"
#include "ControlProtocol.h"
#include "Drovane.h"
#include "Log.h"

namespace drovane {
namespace {

constexpr std::int64_t kNanosecondsPerMillisecond = 1'000'000;
// Without descriptors for a newcomer: how long until the next try.
constexpr std::int64_t kAcceptPause = 100 * kNanosecondsPerMillisecond;
// Milliseconds: what was missing may be there again then.
constexpr int kPauseAfterException = 100;
// Then the clients that are connected have their turn.
constexpr int kAcceptAtOnce = 64;
constexpr std::uint64_t kNoClient = 0;

void logError(const char* what, const char* why) {
  Drovane::global.log(LOG_LEVEL_ERROR, kFrameworkId, kFrameworkName, "control socket: %s: %s\n",
                      what, why);
}

}  // namespace

ControlServer::ControlServer(const Settings& settings, const House& house)
    : listener(settings.path),
      watch(waker),
      trace(waker,
            [&house](const std::string& rovik, std::shared_ptr<LinkTap> tap) {
              const auto traced = house.find(rovik);
              if (traced != nullptr) traced->host().traffic.setTap(std::move(tap));
            }),
      operations(house, settings.version, watch, trace, waker, settings.reload) {}

ControlServer::~ControlServer() { ControlServer::stop(); }

int ControlServer::stop() {
  askToStop();
  waker->wake();
  return Thread::stop();
}

// In one order with the sleeper's steps: either it sees the wish or wake() sees it asleep.
void ControlServer::askForTurn() {
  turn_wanted.store(true, std::memory_order_seq_cst);
  waker->wake();
}

int ControlServer::main() {
  const Precedence precedence;
  while (!stopping()) {
    try {
      turn(precedence);
    } catch (const std::exception& error) {
      logError("exception", error.what());
      ::poll(nullptr, 0, kPauseAfterException);
    }
  }
  return 0;
}

void ControlServer::turn(const Precedence& precedence) {
  turn_wanted.store(false, std::memory_order_relaxed);  // first: the turn may end with an exception
  wait();
  for (std::size_t i = 0; i < polled.size(); ++i) {
    if (polled[i].revents == 0 || polled_clients[i] == kNoClient) continue;
    serve(polled_clients[i], polled[i].revents);
  }
  operations.collect(
      [this](std::uint64_t client, const std::string& line) { answerLater(client, line); });
  if (watch.waiting() || trace.waiting()) {
    // A flood that somebody watches must not take the time of the roviks that have to live with it.
    const Precedence::Waived shared(precedence);
    handOutMessages();
    handOutTraces();
  }
  acceptAll();
  finish();
}

// --- Waiting ---

void ControlServer::addPoll(int descriptor, int events, std::uint64_t client) {
  polled.push_back({descriptor, static_cast<short>(events), 0});
  polled_clients.push_back(client);
}

void ControlServer::pollConnections() {
  for (const auto& [client, connection] : connections) {
    const bool listens = !connection.busy && !connection.inputEnded() && !connection.full();
    addPoll(connection.descriptor(), (listens ? POLLIN : 0) | (connection.unsent() ? POLLOUT : 0),
            client);
  }
}

void ControlServer::wait() {
  polled.clear();
  polled_clients.clear();
  addPoll(waker->descriptor(), POLLIN, kNoClient);
  if (Clock::now() >= accept_again) addPoll(listener.descriptor(), POLLIN, kNoClient);
  pollConnections();
  waker->aboutToSleep();
  const bool busy =
      stopping() || turn_wanted || operations.waiting() || watch.waiting() || trace.waiting();
  const int ready = ::poll(polled.data(), polled.size(), busy ? 0 : timeLeft());
  const int error = errno;
  waker->awake(ready > 0 && polled.front().revents != 0);
  if (ready >= 0) return;
  if (error != EINTR) logError("poll", std::strerror(error));
  for (pollfd& entry : polled) entry.revents = 0;
}

// Milliseconds, rounded up; -1 when nothing is due.
int ControlServer::timeLeft() const {
  const std::int64_t now = Clock::now();
  auto due = operations.nextDeadline();
  if (accept_again > now) due = due ? std::min(*due, accept_again) : accept_again;
  if (!due) return -1;
  const std::int64_t left = std::max<std::int64_t>(*due - now, 0);
  return static_cast<int>(left / kNanosecondsPerMillisecond + 1);
}

// --- Coming and going ---

void ControlServer::acceptAll() {
  if (Clock::now() < accept_again) return;
  for (int count = 0; count < kAcceptAtOnce; ++count) {
    Descriptor socket = listener.accept();
    if (!socket) {
      endAccepting(errno);
      return;
    }
    accept_failed = false;
    admit(std::move(socket));
  }
}

void ControlServer::endAccepting(int error) {
  if (error == EAGAIN || error == EINTR || error == ECONNABORTED) return;
  if (!std::exchange(accept_failed, true)) logError("accept", std::strerror(error));
  accept_again = Clock::now() + kAcceptPause;
}

void ControlServer::admit(Descriptor socket) {
  ControlConnection connection(std::move(socket));
  if (!ControlListener::allowed(connection.descriptor())) {
    refuse(connection, "this drovane belongs to another user");
    return;
  }
  if (connections.size() >= kConnections && !makeRoom()) {
    refuse(connection, "too many clients are connected; expected fewer, or try again");
    return;
  }
  connection.heard = Clock::now();
  connections.emplace(++last_client, std::move(connection));
}

// False when every client watches or waits for an answer.
bool ControlServer::makeRoom() {
  auto silent = connections.end();
  const auto rank = [](const ControlConnection& connection) {
    return std::tuple(connection.greeted, connection.heard);
  };
  for (auto at = connections.begin(); at != connections.end(); ++at) {
    if (at->second.busy || at->second.watching) continue;
    if (silent == connections.end() || rank(at->second) < rank(silent->second)) silent = at;
  }
  if (silent == connections.end()) return false;
  refuse(silent->second, "silent for the longest time of all clients; closed to make room");
  drop(silent->first);
  return true;
}

void ControlServer::refuse(ControlConnection& connection, const std::string& why) {
  connection.reply(errorReply(why));
  connection.flush();
}

void ControlServer::drop(std::uint64_t client) {
  watch.remove(client);
  trace.remove(client);
  operations.forget(client);
  connections.erase(client);
}

// --- Serving ---

// False when what a client needs failed for want of memory: it has to go then.
template <typename Step>
bool ControlServer::guarded(Step step) {
  try {
    return step();
  } catch (const std::exception& error) {
    logError("exception", error.what());
    return false;
  }
}

void ControlServer::serve(std::uint64_t client, short events) {
  const auto found = connections.find(client);
  if (found == connections.end()) return;
  ControlConnection& connection = found->second;
  const bool broken = (events & POLLIN) == 0 && (events & (POLLERR | POLLHUP | POLLNVAL)) != 0;
  const bool goes_on = !broken && ((events & POLLIN) == 0 ||
                                   guarded([&] { return readRequests(client, connection); }));
  if (!goes_on) drop(client);
}

bool ControlServer::readRequests(std::uint64_t client, ControlConnection& connection) {
  connection.heard = Clock::now();
  return connection.receive() && performRequests(client, connection);
}

// False when the connection has to go.
bool ControlServer::performRequests(std::uint64_t client, ControlConnection& connection) {
  while (!connection.busy && !connection.full()) {
    const auto line = connection.nextLine();
    if (!line) break;
    connection.greeted = true;
    const auto reply = operations.perform(client, *line);
    noteWatching(client, connection);
    connection.busy = !reply;
    if (reply) connection.reply(*reply);
  }
  if (connection.busy || connection.full() || !connection.tooLong()) return true;
  refuse(connection, "the line is too long; expected at most 65536 bytes");
  return false;
}

// A client whose answer cannot be made is let go, so that it waits no longer.
void ControlServer::answerLater(std::uint64_t client, const std::string& line) {
  const auto found = connections.find(client);
  if (found == connections.end()) return;
  found->second.busy = false;
  const bool goes_on = guarded([&] {
    found->second.reply(line);
    return performRequests(client, found->second);
  });
  if (!goes_on) drop(client);
}

void ControlServer::handOutMessages() {
  watch.handOut(
      [this](std::uint64_t client, const std::string& line) { connections.at(client).tell(line); },
      [this](std::uint64_t lost) {
        for (const auto& [client, filter] : watch.clients())
          connections.at(client).countDropped(lost);
      });
}

void ControlServer::noteWatching(std::uint64_t client, ControlConnection& connection) const {
  connection.watching = watch.clients().contains(client) || trace.contains(client);
}

void ControlServer::handOutTraces() {
  std::vector<std::pair<std::uint64_t, std::string>> over;
  const auto line = [this](std::uint64_t client, const std::string& event, std::uint64_t bytes) {
    connections.at(client).tell(event, bytes);
  };
  const auto lost = [this](std::uint64_t client, std::uint64_t events, std::uint64_t bytes) {
    connections.at(client).countDropped(events, bytes);
  };
  const auto end = [&over](std::uint64_t client, const std::string& rovik) {
    over.emplace_back(client, rovik);
  };
  trace.handOut({line, lost, end});
  for (const auto& [client, rovik] : over) tellEnd(client, rovik);
}

// A client that cannot be told is let go, so that it waits no longer.
void ControlServer::tellEnd(std::uint64_t client, const std::string& rovik) {
  ControlConnection& connection = connections.at(client);
  noteWatching(client, connection);
  const bool told = guarded([&] {
    connection.tellLast(ControlTrace::endLine(rovik));
    return true;
  });
  if (!told) drop(client);
}

// Writes what is due, goes on with requests that had to wait for room, and lets go of clients that
// have nothing more to say.
void ControlServer::finish() {
  std::vector<std::uint64_t> gone;
  for (auto& [client, connection] : connections) {
    const bool alive = guarded(
        [&, id = client, &with = connection] { return with.flush() && performRequests(id, with); });
    const bool done =
        connection.inputEnded() && !connection.busy && !connection.unsent() && !connection.watching;
    if (!alive || done) gone.push_back(client);
  }
  for (const std::uint64_t client : gone) drop(client);
}

}  // namespace drovane
