// A flood of log lines beside a link that has nothing to do with it.
//
//   peer ==TCP==> GenericNet ==router==> Forwarder ==TCP==> peer       the round trip
//   sender process ==TCP==> GenericNet, iodebug on                     the flood
//   log ==> a pipe that nobody reads
//
// The round trip is measured alone, beside the flooded link while nothing is logged of it (the
// floor: the flood takes the same cores), and while every line of the flood is logged at level 4.
// Every line that was logged is then in the pipe, or among the losses that one line reports.
#include <iostream>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "Drovane.h"
#include "generic_net/GenericNet.h"
#include "support/Flooder.h"
#include "support/Forwarder.h"
#include "support/Options.h"
#include "support/QuietLog.h"
#include "support/Report.h"
#include "support/RoundTrips.h"
#include "support/Roviks.h"
#include "support/Statistics.h"
#include "support/StuckLog.h"
#include "support/Usage.h"

namespace bench {
namespace {

struct Plan {
  int rounds;
  int pairs;
};

// The two roviks of the round trip.
class Hop {
 public:
  explicit Hop(RoundTripPeers& its_peers)
      : peers(its_peers),
        forwarder(makeRovik<Forwarder>(2, "forwarder", peers.backPort())),
        link(makeRovik<GenericNet>(1, "link")) {
    openLink(*link, peers.port());
    startThread(*forwarder);
    startThread(*link);
  }
  RoundTrips measure(int rounds) {
    return peers.measure(rounds, RoundTripPeers::Back::OtherConnection);
  }

 private:
  RoundTripPeers& peers;
  const OwnedRovik<Forwarder> forwarder;
  const OwnedRovik<GenericNet> link;
};

// The link that is flooded as long as it lives; its lines go nowhere but to the log.
class FloodedLink {
 public:
  explicit FloodedLink(Flooder& its_flooder)
      : flooder(its_flooder), link(makeRovik<GenericNet>(3, "flooded")) {
    command(*link, {"unparsedout", "off"});
    command(*link, {"iodebug", "on"});
    openLink(*link, flooder.port());
    startThread(*link);
    flooder.start();
  }
  ~FloodedLink() { flooder.stop(); }
  FloodedLink(const FloodedLink&) = delete;
  FloodedLink& operator=(const FloodedLink&) = delete;

 private:
  Flooder& flooder;
  const OwnedRovik<GenericNet> link;
};

struct Samples {
  Pairs medians;
  Pairs p99s;
  Pairs longest;
  std::vector<double> lines_a_second;
  std::vector<double> lost_share;
};

class Arms {
 public:
  Arms(RoundTripPeers& its_peers, Flooder& its_flooder, StuckLog& its_log, Report& its_report)
      : peers(its_peers), flooder(its_flooder), log(its_log), report(its_report) {}

  RoundTrips alone(int rounds) {
    const QuietLog quiet;
    return checked(Hop(peers).measure(rounds));
  }

  RoundTrips besideTheFlood(int rounds) {
    const QuietLog quiet;
    const FloodedLink flood(flooder);
    return checked(Hop(peers).measure(rounds));
  }

  RoundTrips besideItsLog(int rounds, Samples& samples) {
    log.open();
    Drovane::global.setLogLevel(LOG_LEVEL_DEBUG);
    const auto begun = SteadyClock::now();
    const RoundTrips trips = loggedFlood(rounds);
    const double seconds = secondsSince(begun, SteadyClock::now());
    const auto logged = log.logged();
    checkTotals(logged, log.finish(), samples);
    Drovane::global.setLogLevel(LOG_LEVEL_ERROR);
    samples.lines_a_second.push_back(static_cast<double>(logged) / seconds);
    return trips;
  }

 private:
  // A thread that waits for the log would keep the roviks from ending: the log is read first.
  RoundTrips loggedFlood(int rounds) {
    const FloodedLink flood(flooder);
    if (!log.awaitLoss()) {
      log.drain();
      throw std::runtime_error("the flooded link stands still while the log does");
    }
    Hop hop(peers);
    const RoundTrips trips = hop.measure(rounds);
    if (trips.wrong > 0) log.drain();
    return checked(trips);
  }

  RoundTrips checked(const RoundTrips& trips) {
    if (trips.wrong > 0) report.fault("a line did not come back as it was");
    return trips;
  }

  // The last line comes after `logged` was read.
  void checkTotals(std::uint64_t logged, const LogTotals& totals, Samples& samples) {
    if (totals.reports != 1)
      report.fault("the losses are reported in " + std::to_string(totals.reports) + " lines");
    if (totals.written + totals.lost != logged + 1)
      report.fault("of " + std::to_string(logged + 1) + " lines " + std::to_string(totals.written) +
                   " were written and " + std::to_string(totals.lost) + " reported as lost");
    samples.lost_share.push_back(static_cast<double>(totals.lost) / static_cast<double>(logged));
  }

  RoundTripPeers& peers;
  Flooder& flooder;
  StuckLog& log;
  Report& report;
};

void show(const Samples& samples, const std::vector<double>& alone, Report& report) {
  const std::string name = "round trip beside a logged flood (floor: not logged), ";
  const Goal as_it_was{Goal::Relation::Below, 1.3};
  const Goal no_stall{Goal::Relation::Below, 100'000, Goal::Of::Figure};
  const auto pairs = [&](const std::string& what, const Pairs& measured,
                         std::optional<Goal> wanted) {
    report.add({name + what, median(measured.figure), "us", median(measured.floor),
                measured.ratio(), wanted});
  };
  report.add({"round trip without a flood, median", median(alone), "us", {}, {}, {}});
  pairs("median", samples.medians, as_it_was);
  pairs("99 of 100 below", samples.p99s, {});
  report.add({name + "longest of all",
              spread(samples.longest.figure).highest,
              "us",
              spread(samples.longest.floor).highest,
              {},
              no_stall});
  report.add({"lines logged in the flood", median(samples.lines_a_second), "lines/s", {}, {}, {}});
  report.add({"share of them lost and reported", median(samples.lost_share), "", {}, {}, {}});
}

int run(const Options& options) {
  RoundTripPeers peers;
  Flooder flooder;
  StuckLog log;
  Report report("log_flood", options);
  Arms arms(peers, flooder, log, report);
  const Plan plan = options.quick ? Plan{50, 1} : Plan{2'000, 7};
  Samples samples;
  std::vector<double> alone;
  for (int pair = 1; pair <= plan.pairs; ++pair) {
    std::cerr << "log_flood: pair " << pair << " of " << plan.pairs << '\n';
    alone.push_back(arms.alone(plan.rounds).median_us);
    const RoundTrips floor = arms.besideTheFlood(plan.rounds);
    const RoundTrips measured = arms.besideItsLog(plan.rounds, samples);
    samples.medians.add(measured.median_us, floor.median_us);
    samples.p99s.add(measured.p99_us, floor.p99_us);
    samples.longest.add(measured.longest_us, floor.longest_us);
  }
  show(samples, alone, report);
  return report.finish();
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
  return bench::runBenchmark(
      argc, argv, "A link's round trip beside a flood of log lines that nobody takes", bench::run);
}
