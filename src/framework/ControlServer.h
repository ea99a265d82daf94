// The control socket of a running house: listening, connections, and the thread that serves them.
#pragma once

#include <poll.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "ControlConnection.h"
#include "ControlListener.h"
#include "ControlOperations.h"
#include "ControlTrace.h"
#include "ControlWatch.h"
#include "House.h"
#include "Precedence.h"
#include "Thread.h"
#include "Waker.h"

namespace drovane {

// One thread, "drovane-ctl", serves all clients and never waits for one of them. Where the system
// allows it, requests are answered before roviks have their turns, so that a flood keeps nobody
// from seeing what it does.
//
// A client's requests are answered one after the other, in their order. At most kConnections
// clients are connected: a new one takes the place of the one that has been silent longest,
// first of those that never sent a request; never of one that watches or waits for its answer.
class ControlServer final : private Thread {
 public:
  static constexpr std::size_t kConnections = 256;

  struct Settings {
    std::string path;
    std::string version;
    ReloadRequest reload = nullptr;  // without it nobody can ask for a reload
  };

  // Listens; connections wait until start. The house must be made, and must outlive the server's
  // thread. Throws ControlSocketError.
  ControlServer(const Settings& settings, const House& house);
  // Ends the thread, closes all connections and removes the socket's file.
  ~ControlServer() override;

  // 0 or an error number.
  int start() { return Thread::start("drovane-ctl"); }

  const std::string& path() const { return listener.path; }

  // Whether the thread turns: ask, and look some time later. Any thread.
  void askForTurn();
  bool hasTurned() const { return !turn_wanted.load(std::memory_order_relaxed); }

 private:
  using Connections = std::map<std::uint64_t, ControlConnection>;

  int main() override;
  int stop() override;

  void turn(const Precedence& precedence);
  void wait();
  int timeLeft() const;
  void addPoll(int descriptor, int events, std::uint64_t client);
  void pollConnections();

  void acceptAll();
  void endAccepting(int error);
  void admit(Descriptor socket);
  bool makeRoom();
  static void refuse(ControlConnection& connection, const std::string& why);

  void serve(std::uint64_t client, short events);
  bool readRequests(std::uint64_t client, ControlConnection& connection);
  bool performRequests(std::uint64_t client, ControlConnection& connection);
  void answerLater(std::uint64_t client, const std::string& line);
  template <typename Step>
  static bool guarded(Step step);
  void noteWatching(std::uint64_t client, ControlConnection& connection) const;
  void handOutMessages();
  void handOutTraces();
  void tellEnd(std::uint64_t client, const std::string& rovik);
  void finish();
  void drop(std::uint64_t client);

  const std::shared_ptr<Waker> waker = std::make_shared<Waker>();
  std::atomic<bool> turn_wanted{false};
  ControlListener listener;
  ControlWatch watch;
  ControlTrace trace;
  ControlOperations operations;

  // The control thread's.
  Connections connections;
  std::uint64_t last_client = 0;
  bool accept_failed = false;     // and was reported
  std::int64_t accept_again = 0;  // no accepting before, in nanoseconds of Clock
  std::vector<pollfd> polled;
  std::vector<std::uint64_t> polled_clients;  // beside `polled`; 0 for the server's own
};

}  // namespace drovane
