// The job of GenericNet, done by it and by what people write by hand instead, in turns:
//
//   sender ==TCP==> lines cut, matched by one rule, handed on as records ==> consumer
//
// Each runs as the program it is; see the README beside this file.
#include <iostream>
#include <string>
#include <vector>

#include "rivals/Rivals.h"
#include "rivals/Runs.h"
#include "rivals/Table.h"
#include "support/Options.h"
#include "support/Report.h"
#include "support/Statistics.h"
#include "support/TempFolder.h"

namespace bench {
namespace {

struct Plan {
  std::uint64_t lines;
  int trips;
  int rounds;
};

// What the rounds have measured of one rival.
struct Results {
  std::vector<double> lines_per_second;
  std::vector<double> cpu_seconds;  // for a million lines
  std::vector<double> megabytes;
  std::vector<double> trip_median;  // microseconds; empty where a lone line gets no answer
  std::vector<double> trip_p99;
};

class Contest {
 public:
  Contest(Plan its_plan, Report& its_report)
      : plan(its_plan), report(its_report), results(rivals().size()) {}

  // False when somebody did the job wrong.
  bool run() {
    for (int round = 1; round <= plan.rounds; ++round) {
      sender.push_back(perSecond(floodNobody(lines, plan.lines)));
      for (std::size_t i = 0; i < results.size(); ++i) {
        std::cerr << "rivals: round " << round << " of " << plan.rounds << ", " << rivals()[i].name
                  << '\n';
        if (!measure(rivals()[i], results[i])) return false;
      }
    }
    return true;
  }

  void print() const {
    std::vector<Row> rows = {{"", "lines/s", "drovane / this (rounds)", "CPU s/million", "peak MB",
                              "round trip us", "99 of 100 us"}};
    for (std::size_t i = 0; i < results.size(); ++i) rows.push_back(rowOf(i));
    rows.push_back({"the sender alone", withDigits(median(sender), 0), "", "", "", "", ""});
    printTable(rows);
  }

  void addFigures() const {
    for (std::size_t i = 0; i < results.size(); ++i) addFiguresOf(i);
    add("the sender alone: lines", sender, "lines/s");
  }

 private:
  double perSecond(double seconds) const { return static_cast<double>(plan.lines) / seconds; }

  bool measure(const Rival& rival, Results& of) {
    try {
      measureFlood(rival, of);
      if (rival.answers) measureTrips(rival, of);
      return true;
    } catch (const std::exception& error) {
      report.fault(rival.name + ": " + error.what());
      return false;
    }
  }

  void measureFlood(const Rival& rival, Results& of) {
    const TempFolder folder;
    const Flood measured = flood(rival, lines, plan.lines, folder.path());
    of.lines_per_second.push_back(perSecond(measured.seconds));
    of.cpu_seconds.push_back(measured.cpu_seconds / static_cast<double>(plan.lines) * 1e6);
    of.megabytes.push_back(measured.peak_megabytes);
  }

  void measureTrips(const Rival& rival, Results& of) {
    const TempFolder folder;
    const std::vector<double> samples = roundTrips(rival, plan.trips, folder.path());
    of.trip_median.push_back(quantile(samples, 0.5));
    of.trip_p99.push_back(quantile(samples, 0.99));
  }

  // Ours by the rival's lines per second, round by round.
  Spread lead(std::size_t i) const {
    return Pairs{results.front().lines_per_second, results[i].lines_per_second}.ratio();
  }

  Row rowOf(std::size_t i) const {
    const Results& of = results[i];
    Row row = {rivals()[i].name, withDigits(median(of.lines_per_second), 0), "",
               withDigits(median(of.cpu_seconds), 3), withDigits(median(of.megabytes), 1)};
    if (i != 0) {
      const Spread ratio = lead(i);
      row[2] = withDigits(ratio.median, 2) + " (" + withDigits(ratio.lowest, 2) + ".." +
               withDigits(ratio.highest, 2) + ")";
    }
    const bool answers = !of.trip_median.empty();
    row.push_back(answers ? withDigits(median(of.trip_median), 1) : "none");
    row.push_back(answers ? withDigits(median(of.trip_p99), 1) : "none");
    return row;
  }

  void addFiguresOf(std::size_t i) const {
    const Results& of = results[i];
    const std::string name = rivals()[i].name + ": ";
    add(name + "lines", of.lines_per_second, "lines/s");
    if (i != 0)
      report.add({"drovane: lines (floor: " + rivals()[i].name + ")",
                  median(results.front().lines_per_second), "lines/s", median(of.lines_per_second),
                  lead(i), Goal{Goal::Relation::AtLeast, 1}});
    add(name + "processor time of a million lines", of.cpu_seconds, "s");
    add(name + "resident memory, peak", of.megabytes, "MB");
    if (of.trip_median.empty()) return;
    add(name + "round trip, median", of.trip_median, "us");
    add(name + "round trip, 99 of 100 below", of.trip_p99, "us");
  }

  void add(const std::string& name, const std::vector<double>& measured,
           const std::string& unit) const {
    report.add({name, median(measured), unit, {}, {}, {}});
  }

  const Plan plan;
  Report& report;
  const Lines lines;
  std::vector<Results> results;  // in the order of rivals()
  std::vector<double> sender;
};

int run(const Options& options) {
  Report report("rivals", options);
  Contest contest(options.quick ? Plan{30'000, 50, 1} : Plan{1'500'000, 3'000, 5}, report);
  if (!contest.run()) return report.finish();
  contest.print();
  if (options.json.empty()) return 0;
  contest.addFigures();
  return report.finish();
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
  return bench::runBenchmark(argc, argv, "The same job done by GenericNet and by its rivals",
                             bench::run);
}
