// What an actuator request costs that a rule turns into a line for a TCP peer: through 1 and
// through 1,000 outbound rules. The floor writes the same lines to the same kind of peer with
// nothing before the write.
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "Drovane.h"
#include "Owned.h"
#include "generic_net/GenericNet.h"
#include "support/Options.h"
#include "support/QuietLog.h"
#include "support/Report.h"
#include "support/Roviks.h"
#include "support/Sockets.h"
#include "support/Statistics.h"
#include "support/Usage.h"

namespace bench {
namespace {

constexpr std::size_t kNetwork = 5;

// Takes one link and counts the lines that come until the other side ends it.
class Peer {
 public:
  Peer() : reader([this] { read(); }) {}
  ~Peer() {
    if (reader.joinable()) reader.join();
  }
  Peer(const Peer&) = delete;
  Peer& operator=(const Peer&) = delete;

  int port() const { return listener.port; }
  // After the other side has ended the link.
  std::uint64_t lines() {
    reader.join();
    return count;
  }

 private:
  void read() {
    const drovane::Descriptor link = listener.accept();
    std::array<char, 65536> block;
    for (ssize_t size; (size = ::read(link.get(), block.data(), block.size())) > 0;)
      for (ssize_t i = 0; i < size; ++i)
        count += block[static_cast<std::size_t>(i)] == '\n' ? 1U : 0U;
  }

  Listener listener;
  std::uint64_t count = 0;
  std::thread reader;
};

class Net : public GenericNet {
 public:
  // Has the rovik handle a request as its loop does.
  void handle(RovikMessage& request) { selectMM(&request); }
};

// One rule for each key 5_1_N: ON or OFF becomes "HEATN=ON".
OwnedRovik<Net> linkTo(int port, std::size_t rules) {
  auto net = makeRovik<Net>(static_cast<int>(kNetwork), "link");
  command(*net, {"persist", "on"});
  command(*net, {"reg", "on"});
  command(*net, {"addeol", "on"});
  for (std::size_t rule = 0; rule < rules; ++rule) {
    const std::string number = std::to_string(rule);
    command(*net, {"regout", "5_1_" + number, "^(ON|OFF)$", "HEAT" + number + "=\\1"});
  }
  openLink(*net, port);
  return net;
}

// Nanoseconds a request, spread over the whole table.
double costOfRequests(std::size_t rules, std::size_t count, Report& report) {
  Peer peer;
  auto net = linkTo(peer.port(), rules);
  const auto request = createOwned<MMActuatorRequest>(MM_ACTUATOR_REQUEST);
  request->network_id = kNetwork;
  request->node_id = 1;
  request->value_type = VAL_STRING;
  request->value_s = "ON";
  const auto begun = SteadyClock::now();
  for (std::size_t i = 0; i < count; ++i) {
    request->value_id = static_cast<std::uint32_t>(i * 37 % rules);
    net->handle(*request);
  }
  const double seconds = secondsSince(begun, SteadyClock::now());
  command(*net, {"close"});
  if (peer.lines() != count) report.fault("requests that did not reach the peer");
  return seconds * 1e9 / static_cast<double>(count);
}

// Turns Nagle's algorithm on, as it is on a rovik's link.
void gatherWrites(int socket) {
  const int off = 0;
  if (setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &off, sizeof off) != 0)
    throw std::runtime_error("setsockopt");
}

double costOfWrites(std::size_t count, Report& report) {
  static constexpr std::string_view kLine = "HEAT500=ON\n";
  Peer peer;
  drovane::Descriptor link = connectTo(peer.port());
  gatherWrites(link.get());
  const auto begun = SteadyClock::now();
  for (std::size_t i = 0; i < count; ++i)
    static_cast<void>(::send(link.get(), kLine.data(), kLine.size(), MSG_NOSIGNAL));
  const double seconds = secondsSince(begun, SteadyClock::now());
  link.reset();
  if (peer.lines() != count) report.fault("writes that did not reach the peer");
  return seconds * 1e9 / static_cast<double>(count);
}

int run(const Options& options) {
  const QuietLog log;
  Report report("requests", options);
  // The line that each request logs is another benchmark's matter.
  Drovane::global.setLogLevel(LOG_LEVEL_ERROR);
  const std::size_t count = options.quick ? 2'000 : 200'000;
  const int rounds = options.quick ? 1 : 7;
  std::vector<double> writes, one, thousand;
  for (int round = 0; round <= rounds; ++round) {
    const double floor = costOfWrites(count, report);
    const double with_one = costOfRequests(1, count, report);
    const double with_thousand = costOfRequests(1000, count, report);
    if (round == 0) continue;
    writes.push_back(floor);
    one.push_back(with_one);
    thousand.push_back(with_thousand);
  }
  const auto perSecond = [](const std::vector<double>& costs) { return 1e9 / median(costs); };
  report.add({"requests, 1 rule", perSecond(one), "lines/s", {}, {}, {}});
  report.add({"requests, 1,000 rules", perSecond(thousand), "lines/s", {}, {}, {}});
  report.add({"a request, 1 rule (floor: the write alone)",
              median(one),
              "ns/line",
              median(writes),
              Pairs{one, writes}.ratio(),
              {}});
  report.add({"a request, 1,000 rules (floor: 1 rule)", median(thousand), "ns/line", median(one),
              Pairs{thousand, one}.ratio(), Goal{Goal::Relation::Below, 1.5}});
  return report.finish();
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
  return bench::runBenchmark(argc, argv,
                             "Requests through 1 and 1,000 outbound rules to a TCP peer, against "
                             "the write alone",
                             bench::run);
}
