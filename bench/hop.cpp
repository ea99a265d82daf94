// One line at a time: in from one TCP peer, through two roviks, out to another TCP peer.
//
//   peer ==TCP==> GenericNet ==router==> Forwarder ==TCP==> peer
//   peer ==TCP==> thread ==eventfd==> thread ==TCP==> peer             the floor
//
// One process plays both peers and takes the time from its write to its read.
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <iostream>
#include <mutex>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "generic_net/GenericNet.h"
#include "support/Child.h"
#include "support/Options.h"
#include "support/QuietLog.h"
#include "support/Report.h"
#include "support/Roviks.h"
#include "support/Sockets.h"
#include "support/Statistics.h"
#include "support/Usage.h"

namespace bench {
namespace {

constexpr int kWarmUp = 100;  // round trips that do not count

struct Job {
  int rounds;
};

struct Result {
  double median_us;
  double p99_us;
  int wrong;  // lines that came back changed
};

// The text of one line with its end, as it came in; shorter when the connection has ended.
std::string readLine(int socket) {
  std::string line;
  std::array<char, 256> buffer;
  while (line.empty() || line.back() != '\n') {
    const ssize_t received = read(socket, buffer.data(), buffer.size());
    if (received <= 0) break;
    line.append(buffer.data(), static_cast<std::size_t>(received));
  }
  return line;
}

Result roundTrips(int out, int in, int rounds) {
  std::vector<double> samples;
  int wrong = 0;
  for (int i = -kWarmUp; i < rounds; ++i) {
    const std::string line = "T17=" + std::to_string(1000 + kWarmUp + i) + "\n";
    const auto begun = SteadyClock::now();
    writeAll(out, line);
    const bool same = readLine(in) == line;
    const auto ended = SteadyClock::now();
    if (!same) ++wrong;
    if (i >= 0) samples.push_back(secondsSince(begun, ended) * 1e6);
  }
  return {quantile(samples, 0.5), quantile(samples, 0.99), wrong};
}

void playPeers(const Listener& first, const Listener& second, int channel) {
  while (const auto job = receiveRecord<Job>(channel)) {
    const drovane::Descriptor out = first.accept();
    const drovane::Descriptor in = second.accept();
    sendAtOnce(out.get());
    sendRecord(channel, roundTrips(out.get(), in.get(), job->rounds));
  }
}

// --- The hop
// ---------------------------------------------------------------------------------------

class Forwarder : public Rovik {
 public:
  explicit Forwarder(int port) : socket(connectTo(port)) {}
  int selectMM(RovikMessage* msg) override {
    if (msg->type != MM_DATA) return 0;
    line.assign(static_cast<MMData*>(msg)->value_s).push_back('\n');
    writeAll(socket.get(), line);
    return 0;
  }

 private:
  const drovane::Descriptor socket;
  std::string line;
};

Result hop(Child& peers, int first, int second, const Job& job) {
  const auto forwarder = makeRovik<Forwarder>(2, "forwarder", second);
  const auto link = makeRovik<GenericNet>(1, "link");
  openLink(*link, first);
  startThread(*forwarder);
  startThread(*link);
  peers.send(job);
  const Result result = peers.receive<Result>();
  return result;
}

// --- The floor
// -------------------------------------------------------------------------------------

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

Result floorRun(Child& peers, int first, int second, const Job& job) {
  const drovane::Descriptor in = connectTo(first);
  const drovane::Descriptor out = connectTo(second);
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
  peers.send(job);
  const Result result = peers.receive<Result>();
  reader.join();
  writer.join();
  return result;
}

int run(const Options& options) {
  const Listener first;
  const Listener second;
  Child peers([&](int channel) { playPeers(first, second, channel); });
  const QuietLog log;
  Report report("hop", options);
  const Job job{options.quick ? 200 : 20'000};
  const int pairs = options.quick ? 1 : 7;
  Pairs medians, p99s;
  for (int pair = 1; pair <= pairs; ++pair) {
    std::cerr << "hop: pair " << pair << " of " << pairs << '\n';
    const Result floor = floorRun(peers, first.port, second.port, job);
    const Result measured = hop(peers, first.port, second.port, job);
    if (floor.wrong > 0 || measured.wrong > 0) report.fault("lines came back changed");
    medians.add(measured.median_us, floor.median_us);
    p99s.add(measured.p99_us, floor.p99_us);
  }
  report.add({"round trip, median",
              median(medians.figure),
              "us",
              median(medians.floor),
              medians.ratio(),
              {}});
  report.add({"round trip, 99 of 100 below",
              median(p99s.figure),
              "us",
              median(p99s.floor),
              p99s.ratio(),
              {}});
  return report.finish();
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
  return bench::runBenchmark(argc, argv, "One line through two roviks, against two plain threads",
                             bench::run);
}
