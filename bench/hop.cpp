// One line at a time: in from one TCP peer, through two roviks, out to another TCP peer; and back
// to the same peer from a script.
//
//   peer ==TCP==> GenericNet ==router==> Forwarder ==TCP==> peer
//   peer ==TCP==> thread ==eventfd==> thread ==TCP==> peer             the floor
//
//   peer ==TCP==> GenericNet, sndIO in ROVIK_RCVIO ==TCP==> peer
//   peer ==TCP==> thread ==TCP==> peer                                 the floor
//
// One process plays the peers and takes the time from its write to its read.
#include <sys/eventfd.h>

#include <cerrno>
#include <functional>
#include <iostream>
#include <mutex>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "generic_net/GenericNet.h"
#include "support/Forwarder.h"
#include "support/Options.h"
#include "support/QuietLog.h"
#include "support/Report.h"
#include "support/RoundTrips.h"
#include "support/Roviks.h"
#include "support/ScriptFolder.h"
#include "support/Sockets.h"
#include "support/Statistics.h"

namespace bench {
namespace {

using Back = RoundTripPeers::Back;

constexpr const char* kAnswering = R"(
function ROVIK_INIT(me) m_p = me end
function ROVIK_RCVIO(line) sndIO(line) end
)";

// --- The hop

RoundTrips hop(RoundTripPeers& peers, int rounds) {
  const auto forwarder = makeRovik<Forwarder>(2, "forwarder", peers.backPort());
  const auto link = makeRovik<GenericNet>(1, "link");
  openLink(*link, peers.port());
  startThread(*forwarder);
  startThread(*link);
  return peers.measure(rounds, Back::OtherConnection);
}

// Texts from one thread to another, one bell for each.
class Handover {
 public:
  Handover() : bell(eventfd(0, EFD_CLOEXEC | EFD_SEMAPHORE)) {
    if (!bell) throw std::system_error(errno, std::generic_category(), "eventfd");
  }
  // An empty text ends the receiver.
  void put(std::string text) {
    {
      const std::lock_guard guard(lock);
      waiting.push_back(std::move(text));
    }
    eventfd_write(bell.get(), 1);
  }
  std::string take() {
    eventfd_t count = 0;
    eventfd_read(bell.get(), &count);
    const std::lock_guard guard(lock);
    std::string text = std::move(waiting.front());
    waiting.erase(waiting.begin());
    return text;
  }

 private:
  const drovane::Descriptor bell;
  std::mutex lock;
  std::vector<std::string> waiting;
};

RoundTrips twoThreads(RoundTripPeers& peers, int rounds) {
  const drovane::Descriptor in = connectTo(peers.port());
  const drovane::Descriptor out = connectTo(peers.backPort());
  Handover handover;
  std::thread reader([&] {
    for (std::string line = readLine(in.get()); !line.empty(); line = readLine(in.get()))
      handover.put(std::move(line));
    handover.put("");
  });
  std::thread writer([&] {
    for (std::string line = handover.take(); !line.empty(); line = handover.take())
      writeAll(out.get(), line);
  });
  const RoundTrips result = peers.measure(rounds, Back::OtherConnection);
  reader.join();
  writer.join();
  return result;
}

// --- The answer

RoundTrips scriptAnswers(RoundTripPeers& peers, int rounds) {
  const auto link = makeRovik<GenericNet>(1, "link");
  for (const Words& words : scriptCommands("answering.lua")) command(*link, words);
  for (const char* setting : {"persist", "addeol"}) command(*link, {setting, "on"});
  command(*link, {"unparsedout", "off"});
  openLink(*link, peers.port());
  startThread(*link);
  return peers.measure(rounds, Back::SameConnection);
}

RoundTrips threadAnswers(RoundTripPeers& peers, int rounds) {
  const drovane::Descriptor socket = connectTo(peers.port());
  std::thread echo([&] {
    for (std::string line = readLine(socket.get()); !line.empty(); line = readLine(socket.get()))
      writeAll(socket.get(), line);
  });
  const RoundTrips result = peers.measure(rounds, Back::SameConnection);
  echo.join();
  return result;
}

// --- The pairs

struct Plan {
  int rounds;
  int pairs;
};

using Arm = std::function<RoundTrips(int rounds)>;

void compare(const std::string& name, const Plan& plan, const Arm& arm, const Arm& floor_arm,
             double at_most, Report& report) {
  Pairs medians, p99s;
  for (int pair = 1; pair <= plan.pairs; ++pair) {
    std::cerr << "hop: " << name << ", pair " << pair << " of " << plan.pairs << '\n';
    const RoundTrips floor = floor_arm(plan.rounds);
    const RoundTrips measured = arm(plan.rounds);
    if (floor.wrong > 0 || measured.wrong > 0)
      report.fault(name + ": a line did not come back as it was");
    medians.add(measured.median_us, floor.median_us);
    p99s.add(measured.p99_us, floor.p99_us);
  }
  const Goal goal{Goal::Relation::Below, at_most};
  report.add({name + ", median", median(medians.figure), "us", median(medians.floor),
              medians.ratio(), goal});
  report.add({name + ", 99 of 100 below", median(p99s.figure), "us", median(p99s.floor),
              p99s.ratio(), goal});
}

int run(const Options& options) {
  RoundTripPeers peers;
  const QuietLog log;
  const ScriptFolder folder;
  folder.add("answering.lua", kAnswering);
  Report report("hop", options);
  const Plan plan = options.quick ? Plan{200, 1} : Plan{20'000, 7};
  compare(
      "round trip", plan, [&](int rounds) { return hop(peers, rounds); },
      [&](int rounds) { return twoThreads(peers, rounds); }, 1.3, report);
  compare(
      "a script's answer", plan, [&](int rounds) { return scriptAnswers(peers, rounds); },
      [&](int rounds) { return threadAnswers(peers, rounds); }, 1.5, report);
  return report.finish();
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
  return bench::runBenchmark(argc, argv, "One line through two roviks, against two plain threads",
                             bench::run);
}
