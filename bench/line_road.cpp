// The main road: lines from a TCP peer, through GenericNet and the router, into another rovik.
//
//   sender process ==TCP==> GenericNet ==router==> Receiver
//   sender process ==TCP==> thread ==batched queue==> thread        the floor
//
// Both read the same bytes from the same sender and hand every line over on its own; with the rule
// what the road hands over is the rule's group.
#include <iostream>
#include <optional>
#include <string>
#include <vector>

#include "support/LineFloor.h"
#include "support/LineRoad.h"
#include "support/LineRun.h"
#include "support/Lines.h"
#include "support/Options.h"
#include "support/QuietLog.h"
#include "support/Report.h"
#include "support/Statistics.h"
#include "support/SystemCalls.h"

namespace bench {
namespace {

constexpr Goal kThreeQuarters{Goal::Relation::AtLeast, 0.75};
constexpr Goal kRuleShare{Goal::Relation::AtLeast, 0.45};
// Less than what one in a thousand lines could cause.
constexpr Goal kNoAllocation{Goal::Relation::Below, 0.001, Goal::Of::Figure};
constexpr Goal kFewCalls{Goal::Relation::Below, 0.05, Goal::Of::Figure};

struct Plan {
  std::uint64_t lines;
  int pairs;
};

// A way to set the road up, and what is asked of it.
struct Arm {
  std::string name;
  LineForm form;
  LineCheck::Wanted wanted;
  std::vector<Words> settings;
  std::optional<Goal> lines_goal;
  std::optional<Goal> bytes_goal;
  std::optional<Goal> calls_goal;
};

struct Figures {
  Pairs lines;
  Pairs bytes;
  Pairs cpu;
  Pairs sleeps;
};

class Roads {
 public:
  Roads(LineSource& its_source, SystemCalls& its_calls, Report& its_report)
      : source(its_source), calls(its_calls), report(its_report) {}

  template <std::size_t Size>
  void compare(const Arm& arm, const Plan& plan) {
    const Block block(arm.form, Size);
    const Job job{arm.form, Size, plan.lines};
    SteadyCounts floor_counts(calls), road_counts(calls);
    Figures figures;
    for (int pair = 0; pair <= plan.pairs; ++pair) {
      // The pair before the first warms up, and counts, which costs time.
      const bool counting = pair == 0;
      if (counting) calls.begin();
      std::cerr << "line_road: " << arm.name << ", pair " << pair << " of " << plan.pairs << '\n';
      LineCheck floor_check(block, LineCheck::Wanted::Line, plan.lines,
                            counting ? &floor_counts : nullptr);
      const Run floor = floorRun<Size>(source, job, floor_check);
      LineCheck road_check(block, arm.wanted, plan.lines, counting ? &road_counts : nullptr);
      const Run measured = road(source, job, arm.settings, road_check);
      note(arm.name + ", floor", floor);
      note(arm.name, measured);
      if (counting) {
        calls.end();
      } else {
        add(figures, job, measured, floor);
      }
    }
    show(arm, figures);
    showCounts(arm, plan.lines - plan.lines / 2, road_counts, floor_counts);
  }

 private:
  void note(const std::string& arm, const Run& run) {
    if (!run.fault.empty()) report.fault(arm + ": " + run.fault);
  }

  static void add(Figures& figures, const Job& job, const Run& run, const Run& floor) {
    const auto count = static_cast<double>(job.lines);
    const double megabytes = count * job.line_size / 1e6;
    figures.lines.add(count / run.seconds, count / floor.seconds);
    figures.bytes.add(megabytes / run.seconds, megabytes / floor.seconds);
    figures.cpu.add(run.usage.cpu_seconds / count * 1e9, floor.usage.cpu_seconds / count * 1e9);
    figures.sleeps.add(static_cast<double>(run.usage.sleeps) / count * 1e3,
                       static_cast<double>(floor.usage.sleeps) / count * 1e3);
  }

  void show(const Arm& arm, const Figures& figures) {
    showPairs(arm.name + ", lines", "lines/s", figures.lines, arm.lines_goal);
    showPairs(arm.name + ", bytes", "MB/s", figures.bytes, arm.bytes_goal);
    showPairs(arm.name + ", processor time a line", "ns", figures.cpu, std::nullopt);
    report.add({arm.name + ", sleeps in 1,000 lines", median(figures.sleeps.figure), "",
                median(figures.sleeps.floor), std::nullopt, std::nullopt});
  }

  void showPairs(const std::string& name, const std::string& unit, const Pairs& pairs,
                 std::optional<Goal> goal) {
    report.add({name, median(pairs.figure), unit, median(pairs.floor), pairs.ratio(), goal});
  }

  void showCounts(const Arm& arm, std::uint64_t lines, const SteadyCounts& road,
                  const SteadyCounts& floor) {
    const auto a_line = [lines](std::uint64_t count) {
      return static_cast<double>(count) / static_cast<double>(lines);
    };
    report.add({arm.name + ", allocations a line", a_line(road.allocations), "",
                a_line(floor.allocations), std::nullopt, kNoAllocation});
    if (!calls.whyNot().empty()) return;
    report.add({arm.name + ", system calls a line", a_line(road.system_calls), "",
                a_line(floor.system_calls), std::nullopt, arm.calls_goal});
  }

  LineSource& source;
  SystemCalls& calls;
  Report& report;
};

const std::vector<Words> kOneRule = {
    {"unparsedout", "off"}, {"reg", "on"}, {"regin", "5_1_17", "^T17=([0-9.]+)$", "\\1"}};

// Of long lines one read of the link's buffer holds only four.
const Arm kShort{"10 B", LineForm::Numbered, LineCheck::Wanted::Line, {}, kThreeQuarters,
                 {},     kFewCalls};
const Arm kLong{"1000 B", LineForm::Numbered, LineCheck::Wanted::Line, {}, {}, kThreeQuarters, {}};
const Arm kRule{"10 B, one rule", LineForm::Reading, LineCheck::Wanted::Value,
                kOneRule,         kRuleShare,        {},
                kFewCalls};

int run(const Options& options) {
  LineSource source;
  SystemCalls calls;
  const QuietLog log;
  Report report("line_road", options);
  Roads roads(source, calls, report);
  const Plan many = options.quick ? Plan{50'000, 1} : Plan{3'000'000, 7};
  roads.compare<10>(kShort, many);
  roads.compare<1000>(kLong, options.quick ? Plan{5'000, 1} : Plan{500'000, 7});
  roads.compare<10>(kRule, options.quick ? many : Plan{2'000'000, 7});
  if (!calls.whyNot().empty())
    std::cerr << "line_road: system calls a line: not measured: " << calls.whyNot() << '\n';
  return report.finish();
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
  return bench::runBenchmark(
      argc, argv, "Lines from a TCP peer to another rovik, against two plain threads", bench::run);
}
