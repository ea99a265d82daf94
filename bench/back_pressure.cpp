// Peers that flood and a rovik that takes its time over each message: one peer, then ten.
//
//   flooding process ==TCP==> GenericNet ==router==> Consumer, 1 ms a message
//   flooding process ==TCP==> a thread, 1 ms a line                            the floor
//
// The consumer's pace has to come through to the peers: memory stays flat, no line is lost, and ten
// peers get the same share of it. What is in between are the consumer's queue and the kernel's
// buffers; the peers' own are small, as those of a device are, so that the last line arrives before
// the benchmark is over.
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <deque>
#include <iostream>
#include <memory>
#include <numeric>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>
#include <vector>

#include "generic_net/GenericNet.h"
#include "support/Child.h"
#include "support/Flood.h"
#include "support/Memory.h"
#include "support/Options.h"
#include "support/QuietLog.h"
#include "support/Report.h"
#include "support/Roviks.h"
#include "support/Sockets.h"
#include "support/Statistics.h"
#include "support/Usage.h"

namespace bench {
namespace {

constexpr std::chrono::seconds kPatience{20};
constexpr std::size_t kMostPeers = 10;
constexpr Flood::Lines kLines{1000, 4};
constexpr int kSendBuffer = 32 * 1024;

using Counts = std::array<std::uint64_t, kMostPeers>;  // per peer

std::uint64_t sum(const Counts& counts) {
  return std::accumulate(counts.begin(), counts.end(), std::uint64_t{0});
}

// --- In the process that floods
// --------------------------------------------------------------------

struct Request {
  enum class What : int { Begin, Count, End } what;
  int peers;  // of Begin: how many will connect
};

struct FloodingPeer {
  explicit FloodingPeer(drovane::Descriptor its_socket) : socket(std::move(its_socket)) {
    if (setsockopt(socket.get(), SOL_SOCKET, SO_SNDBUF, &kSendBuffer, sizeof kSendBuffer) != 0)
      throw std::system_error(errno, std::generic_category(), "setsockopt");
    flood.emplace(socket.get(), kLines, sent);
  }

  const drovane::Descriptor socket;
  std::atomic<std::uint64_t> sent{0};
  std::optional<Flood> flood;
};

Counts countsOf(const std::deque<FloodingPeer>& peers) {
  Counts counts{};
  for (std::size_t i = 0; i < peers.size(); ++i) counts[i] = peers[i].sent;
  return counts;
}

// The last count goes out first: the receiving end needs it to know when it has everything.
void endFlood(std::deque<FloodingPeer>& peers, int channel) {
  for (FloodingPeer& peer : peers) peer.flood->askToStop();
  for (FloodingPeer& peer : peers) peer.flood->stop();
  sendRecord(channel, countsOf(peers));
  for (FloodingPeer& peer : peers) shutdown(peer.socket.get(), SHUT_WR);
  for (FloodingPeer& peer : peers) awaitClose(peer.socket.get());
  peers.clear();
}

// Count and End are answered with how many lines each peer has sent.
void serve(const Listener& listener, int channel) {
  std::deque<FloodingPeer> peers;
  while (const auto request = receiveRecord<Request>(channel)) {
    switch (request->what) {
      case Request::What::Begin:
        for (int i = 0; i < request->peers; ++i) peers.emplace_back(listener.accept());
        break;
      case Request::What::Count:
        sendRecord(channel, countsOf(peers));
        break;
      case Request::What::End:
        endFlood(peers, channel);
        break;
    }
  }
}

// --- At the receiving end
// --------------------------------------------------------------------------

// Takes lines at its own pace; every line of every peer once and in order.
class Slow {
 public:
  explicit Slow(std::chrono::microseconds its_pace) : pace(its_pace) {}

  void take(std::size_t peer, std::string_view line) {
    const std::uint64_t before = counts[peer].load(std::memory_order_relaxed);
    if (line.size() != kLines.size - 1 || numberOfLine(line) != static_cast<std::int64_t>(before))
      wrong.fetch_add(1, std::memory_order_relaxed);
    std::this_thread::sleep_for(pace);
    counts[peer].store(before + 1, std::memory_order_relaxed);
  }

  // Any thread.
  Counts taken() const {
    Counts now{};
    std::copy(counts.begin(), counts.end(), now.begin());
    return now;
  }
  std::uint64_t outOfOrder() const { return wrong; }

  // Until `count` lines have been taken. False when they are not in time.
  bool await(std::uint64_t count) const {
    const auto deadline = SteadyClock::now() + kPatience + count * 2 * pace;
    while (sum(taken()) < count) {
      if (SteadyClock::now() > deadline) return false;
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
  }

 private:
  const std::chrono::microseconds pace;
  std::array<std::atomic<std::uint64_t>, kMostPeers> counts{};
  std::atomic<std::uint64_t> wrong{0};
};

struct Plan {
  int peers;
  std::chrono::microseconds pace;
  std::uint64_t warm_up;  // messages
  std::uint64_t window;   // messages
};

struct Sample {
  SteadyClock::time_point time;
  Counts sent;
  Counts taken;
  double resident_kb;
};

Sample sample(Child& flooder, const Slow& slow) {
  flooder.send(Request{Request::What::Count, 0});
  const auto sent = flooder.receive<Counts>();
  return {SteadyClock::now(), sent, slow.taken(), residentKilobytes()};
}

struct Run {
  int peers;
  double taken_per_second;
  double sent_per_second;
  double resident_kb;
  double growth_kb;
  double on_the_way;      // lines, at the end of the window
  double uneven_percent;  // how far the peer that is farthest from the mean share is from it
  std::string fault;
};

double unevenPercent(const Counts& from, const Counts& to, int peers) {
  const double mean = static_cast<double>(sum(to) - sum(from)) / peers;
  double worst = 0;
  for (std::size_t i = 0; i < static_cast<std::size_t>(peers); ++i)
    worst = std::max(worst, std::abs(static_cast<double>(to[i] - from[i]) - mean) / mean);
  return worst * 100;
}

Run between(const Sample& a, const Sample& b, int peers) {
  const double seconds = secondsSince(a.time, b.time);
  return {peers,
          static_cast<double>(sum(b.taken) - sum(a.taken)) / seconds,
          static_cast<double>(sum(b.sent) - sum(a.sent)) / seconds,
          b.resident_kb,
          b.resident_kb - a.resident_kb,
          static_cast<double>(sum(b.sent)) - static_cast<double>(sum(b.taken)),
          unevenPercent(a.taken, b.taken, peers),
          ""};
}

// Ends the flood and waits for its last line. Empty when every line has come.
std::string awaitRest(Child& flooder, const Slow& slow) {
  flooder.send(Request{Request::What::End, 0});
  const auto sent = flooder.receive<Counts>();
  slow.await(sum(sent));
  const Counts taken = slow.taken();
  if (taken == sent && slow.outOfOrder() == 0) return "";
  return std::to_string(sum(taken)) + " of " + std::to_string(sum(sent)) + " lines arrived, " +
         std::to_string(slow.outOfOrder()) + " of them out of order or changed";
}

// `settle` waits for a moment at which two samples can be compared.
template <typename Settle>
Run measure(Child& flooder, const Plan& plan, const Slow& slow, Settle settle) {
  slow.await(plan.warm_up);
  settle();
  const Sample begun = sample(flooder, slow);
  slow.await(sum(begun.taken) + plan.window);
  settle();
  Run run = between(begun, sample(flooder, slow), plan.peers);
  run.fault = awaitRest(flooder, slow);
  return run;
}

// --- The roviks
// ------------------------------------------------------------------------------------

class Consumer : public Rovik {
 public:
  explicit Consumer(Slow& its_slow) : slow(its_slow) {}
  int selectMM(RovikMessage* msg) override {
    if (msg->type == MM_DATA) slow.take(msg->src - 1, static_cast<MMData*>(msg)->value_s);
    return 0;
  }

 private:
  Slow& slow;
};

// The link reads in bursts of some hundred lines: whenever the consumer's queue has drained. Right
// after such a burst as much is on the way as at any other such moment.
void awaitHold(Rovik& link) {
  const auto deadline = SteadyClock::now() + kPatience;
  for (const bool held : {false, true}) {
    while (hostOf(link).status().held_back != held) {
      if (SteadyClock::now() > deadline) throw std::runtime_error("the peer is not held back");
      std::this_thread::sleep_for(std::chrono::microseconds(100));
    }
  }
}

// A link closes at the end of its stream.
void awaitClosed(Rovik& link) {
  const auto deadline = SteadyClock::now() + kPatience;
  while (hostOf(link).status().link_open) {
    if (SteadyClock::now() > deadline) throw std::runtime_error("the link does not close");
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
}

Run roviks(Child& flooder, int port, const Plan& plan) {
  Slow slow(plan.pace);
  const auto consumer = makeRovik<Consumer>(plan.peers + 1, "consumer", slow);
  std::vector<OwnedRovik<GenericNet>> links;
  flooder.send(Request{Request::What::Begin, plan.peers});
  for (int id = 1; id <= plan.peers; ++id) {
    links.push_back(makeRovik<GenericNet>(id, "link" + std::to_string(id)));
    openLink(*links.back(), port);
  }
  startThread(*consumer);
  for (const auto& link : links) startThread(*link);
  Run run = measure(flooder, plan, slow, [&] { awaitHold(*links.front()); });
  for (const auto& link : links) awaitClosed(*link);
  const std::uint64_t dropped = hostOf(*consumer).status().dropped;
  if (dropped > 0) run.fault += " " + std::to_string(dropped) + " messages dropped";
  return run;
}

// --- The floor
// -------------------------------------------------------------------------------------

// One connection of the floor, cut into lines.
class Reader {
 public:
  Reader(std::size_t its_peer, int port) : peer(its_peer), socket(connectTo(port)) {}

  int descriptor() const { return socket.get(); }

  // False at the end of the stream.
  bool readOnce(Slow& slow) {
    const ssize_t received = read(socket.get(), buffer.data() + held, buffer.size() - held);
    if (received <= 0) return false;
    held += static_cast<std::size_t>(received);
    std::string_view rest(buffer.data(), held);
    for (std::size_t end = rest.find('\n'); end != std::string_view::npos; end = rest.find('\n')) {
      slow.take(peer, rest.substr(0, end));
      rest.remove_prefix(end + 1);
    }
    held = rest.size();
    std::memmove(buffer.data(), rest.data(), held);
    return true;
  }

 private:
  const std::size_t peer;
  drovane::Descriptor socket;
  std::array<char, 4096> buffer{};
  std::size_t held = 0;
};

// Returns when all streams have ended.
void readAll(std::deque<Reader>& readers, Slow& slow) {
  std::vector<pollfd> watched;
  for (const Reader& reader : readers) watched.push_back({reader.descriptor(), POLLIN, 0});
  for (std::size_t open = watched.size(); open > 0;) {
    if (poll(watched.data(), watched.size(), -1) < 0) return;
    for (std::size_t i = 0; i < watched.size(); ++i) {
      if (watched[i].revents == 0 || readers[i].readOnce(slow)) continue;
      watched[i].fd = -1;
      --open;
    }
  }
}

Run plainThread(Child& flooder, int port, const Plan& plan) {
  Slow slow(plan.pace);
  std::deque<Reader> readers;
  flooder.send(Request{Request::What::Begin, plan.peers});
  for (int i = 0; i < plan.peers; ++i) readers.emplace_back(static_cast<std::size_t>(i), port);
  std::thread thread([&] {
    readAll(readers, slow);
    readers.clear();
  });
  Run run = measure(flooder, plan, slow, [] {});
  thread.join();
  return run;
}

// --- The report
// ------------------------------------------------------------------------------------

constexpr double kFlatKb = 256;      // less than a queue's worth of these lines
constexpr double kFairPercent = 20;  // of the mean share

void note(const std::string& arm, const Run& run, Report& report) {
  if (!run.fault.empty()) report.fault(arm + ": " + run.fault);
}

Spread only(double ratio) { return {ratio, ratio, ratio}; }

void add(const Run& measured, const Run& floor, Report& report) {
  const std::string peers =
      std::to_string(measured.peers) + (measured.peers == 1 ? " peer, " : " peers, ");
  note(peers + "floor", floor, report);
  note(peers + "roviks", measured, report);
  const auto below = [](double limit) {
    return Goal{Goal::Relation::Below, limit, Goal::Of::Figure};
  };
  report.add({peers + "messages taken", measured.taken_per_second, "/s", floor.taken_per_second,
              only(measured.taken_per_second / floor.taken_per_second), std::nullopt});
  report.add({peers + "lines sent (floor: messages taken)", measured.sent_per_second, "/s",
              measured.taken_per_second, only(measured.sent_per_second / measured.taken_per_second),
              Goal{Goal::Relation::Below, 1.1}});
  report.add({peers + "lines on the way", measured.on_the_way, "", floor.on_the_way, std::nullopt,
              std::nullopt});
  report.add({peers + "resident", measured.resident_kb, "KB", floor.resident_kb, std::nullopt,
              std::nullopt});
  report.add({peers + "resident, growth", measured.growth_kb, "KB", floor.growth_kb, std::nullopt,
              below(kFlatKb)});
  if (measured.peers == 1) return;
  report.add({peers + "share farthest from the mean", measured.uneven_percent, "%",
              floor.uneven_percent, std::nullopt, below(kFairPercent)});
}

int run(const Options& options) {
  const Listener listener;
  Child flooder([&listener](int channel) { serve(listener, channel); });
  const QuietLog log;
  Report report("back_pressure", options);
  const std::chrono::microseconds pace{options.quick ? 20 : 1000};
  const std::uint64_t unit = options.quick ? 300 : 2000;
  for (const int peers : {1, static_cast<int>(kMostPeers)}) {
    std::cerr << "back_pressure: " << peers << '\n';
    const std::uint64_t windows = peers == 1 ? 4 : 8;
    const Run floor = plainThread(flooder, listener.port, {peers, pace, unit / 2, unit});
    const Run measured = roviks(flooder, listener.port, {peers, pace, unit, windows * unit});
    add(measured, floor, report);
  }
  return report.finish();
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
  return bench::runBenchmark(argc, argv, "Flooding peers and a slow consumer, against one thread",
                             bench::run);
}
