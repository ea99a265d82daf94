// What a line costs that is tried against a growing table of rules of which one matches.
//
// Measured twice: RegexTable alone, and GenericNet::rcvData with the message that comes out of it
// (nobody receives it; the catch-all is off, so that the rules are what is measured). The floor is
// the plain walk over the same rules in the same run.
#include <algorithm>
#include <cstdint>
#include <functional>
#include <iostream>
#include <limits>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "RegexTable.h"
#include "generic_net/GenericNet.h"
#include "support/Options.h"
#include "support/QuietLog.h"
#include "support/Report.h"
#include "support/Roviks.h"
#include "support/Statistics.h"
#include "support/Usage.h"

namespace bench {
namespace {

constexpr std::size_t kMostRules = 10'000;
constexpr std::size_t kKeysInUse = 64;  // a device repeats itself
constexpr std::size_t kNeverOnePass = std::numeric_limits<std::size_t>::max();

std::string regexOf(std::size_t rule) { return "^T" + std::to_string(rule) + "=([0-9.]+)$"; }

std::string withCommas(std::size_t number) {
  std::string text = std::to_string(number);
  if (text.size() > 3) text.insert(text.size() - 3, ",");
  return text;
}

// Lines that match one rule each, spread over the whole table.
struct Lines {
  explicit Lines(std::size_t rules) {
    const std::size_t keys = std::min(rules, kKeysInUse);
    for (std::size_t i = 0; i < keys; ++i) {
      const std::size_t rule = (i * 37 % keys) * rules / keys;
      wanted.push_back(rule);
      values.push_back(std::to_string(20 + i % 10) + "." + std::to_string(i % 7));
      texts.push_back("T" + std::to_string(rule) + "=" + values.back());
    }
  }
  std::vector<std::size_t> wanted;
  std::vector<std::string> values;
  std::vector<std::string> texts;
};

RegexTable tableOf(std::size_t rules, std::size_t one_pass_from) {
  RegexTable table(one_pass_from);
  for (std::size_t rule = 0; rule < rules; ++rule) table.add(regexOf(rule), "\\1");
  return table;
}

// Every line has to match its own rule, no other, with its value.
std::string faultOf(RegexTable& table, const Lines& lines) {
  for (std::size_t i = 0; i < lines.texts.size(); ++i) {
    std::size_t matches = 0;
    bool right = true;
    table.match(lines.texts[i], [&](std::size_t index, const std::string& output) {
      ++matches;
      right = right && index == lines.wanted[i] && output == lines.values[i];
    });
    if (matches != 1 || !right) return "'" + lines.texts[i] + "' does not match as it should";
  }
  return "";
}

// Nanoseconds a line.
double cost(std::size_t count, const Lines& lines,
            const std::function<void(const std::string&)>& work) {
  const auto begun = SteadyClock::now();
  for (std::size_t done = 0, next = 0; done < count; ++done) {
    work(lines.texts[next]);
    next = next + 1 == lines.texts.size() ? 0 : next + 1;
  }
  return secondsSince(begun, SteadyClock::now()) * 1e9 / static_cast<double>(count);
}

// Takes its lines from the benchmark instead of a peer.
class RuleLink : public GenericNet {
 public:
  void receive(std::string text) { rcvData(text.data(), static_cast<int>(text.size())); }
  std::uint64_t sent() { return hostOf(*this).status().sent; }
};

OwnedRovik<RuleLink> linkOf(std::size_t rules) {
  auto link = makeRovik<RuleLink>(1, "link");
  command(*link, {"unparsedout", "off"});
  command(*link, {"reg", "on"});
  for (std::size_t rule = 0; rule < rules; ++rule)
    command(*link, {"regin", "5_1_" + std::to_string(rule), regexOf(rule), "\\1"});
  return link;
}

struct Plan {
  std::size_t lines;       // a round, in one pass
  std::size_t walk_tries;  // a round: lines times rules
  int rounds;
};

struct Costs {
  std::vector<double> one_pass;
  std::vector<double> received;
  Pairs against_walk;
};

Costs measure(std::size_t rules, const Plan& plan, Report& report) {
  std::cerr << "rules: " << withCommas(rules) << '\n';
  const Lines lines(rules);
  RegexTable table = tableOf(rules, RegexTable::kOnePassFrom);
  RegexTable walk = tableOf(rules, kNeverOnePass);
  for (RegexTable* each : {&table, &walk})
    if (const std::string fault = faultOf(*each, lines); !fault.empty()) report.fault(fault);
  const auto link = linkOf(rules);
  link->receive(lines.texts[0]);

  std::size_t matches = 0;
  const auto count = [&](std::size_t, const std::string&) { ++matches; };
  const std::size_t walked = std::max<std::size_t>(plan.walk_tries / rules, 10);
  Costs costs;
  for (int round = 0; round < plan.rounds; ++round) {
    const double one_pass =
        cost(plan.lines, lines, [&](const std::string& text) { table.match(text, count); });
    const double walk_cost =
        cost(walked, lines, [&](const std::string& text) { walk.match(text, count); });
    costs.one_pass.push_back(one_pass);
    costs.against_walk.add(one_pass, walk_cost);
    costs.received.push_back(
        cost(plan.lines, lines, [&](const std::string& text) { link->receive(text); }));
  }
  const auto rounds = static_cast<std::size_t>(plan.rounds);
  if (matches != rounds * (plan.lines + walked)) report.fault("lines without their match");
  if (link->sent() != rounds * plan.lines + 1) report.fault("lines without their message");
  return costs;
}

double millisecondsFor(const std::function<void()>& work) {
  const auto begun = SteadyClock::now();
  work();
  return secondsSince(begun, SteadyClock::now()) * 1e3;
}

void reportAdding(std::size_t rules, Report& report) {
  const Goal goal{Goal::Relation::Below, 2000, Goal::Of::Figure};
  std::optional<RegexTable> table;
  const double adding = millisecondsFor([&] { table = tableOf(rules, RegexTable::kOnePassFrom); });
  const double first =
      millisecondsFor([&] { table->match("T0=1", [](std::size_t, const std::string&) {}); });
  const double commands = millisecondsFor([&] { linkOf(rules)->receive("T0=1"); });
  const std::string what = "adding " + withCommas(rules) + " rules";
  report.add({what + ", RegexTable", adding, "ms", {}, {}, {}});
  report.add({"the first line after that, RegexTable", first, "ms", {}, {}, {}});
  report.add({what + ", regin commands and a line", commands, "ms", {}, {}, goal});
}

// What a growing table costs, in nanoseconds a line.
void reportGrowth(const std::string& rules, const Costs& many, const Costs& ten,
                  std::optional<Goal> goal, Report& report) {
  const std::string name = rules + " rules (floor: 10), ";
  report.add({name + "RegexTable", median(many.one_pass), "ns/line", median(ten.one_pass),
              Pairs{many.one_pass, ten.one_pass}.ratio(), goal});
  report.add({name + "rcvData", median(many.received), "ns/line", median(ten.received),
              Pairs{many.received, ten.received}.ratio(), goal});
}

void reportSize(std::size_t rules, const Costs& costs, Report& report) {
  const std::string name = withCommas(rules) + (rules == 1 ? " rule, " : " rules, ");
  report.add({name + "RegexTable (floor: walk)",
              median(costs.one_pass),
              "ns/line",
              median(costs.against_walk.floor),
              costs.against_walk.ratio(),
              {}});
  report.add({name + "rcvData", median(costs.received), "ns/line", {}, {}, {}});
}

int run(const Options& options) {
  const QuietLog log;
  Report report("rules", options);
  const Plan plan = options.quick ? Plan{500, 10'000, 1} : Plan{200'000, 1'000'000, 5};
  const std::size_t most = options.quick ? 1000 : kMostRules;
  std::map<std::size_t, Costs> costs;
  for (std::size_t rules = 1; rules <= most; rules *= 10) {
    costs[rules] = measure(rules, plan, report);
    reportSize(rules, costs[rules], report);
  }
  report.add({"1,000 rules, lines through rcvData",
              1e9 / median(costs[1000].received),
              "lines/s",
              {},
              {},
              Goal{Goal::Relation::AtLeast, 1e6, Goal::Of::Figure}});
  reportGrowth("1,000", costs[1000], costs[10], {}, report);
  if (most > 1000)
    reportGrowth("10,000", costs[most], costs[10], Goal{Goal::Relation::Below, 3}, report);
  reportAdding(most, report);
  return report.finish();
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
  return bench::runBenchmark(argc, argv, "A line against a table of rules, against the plain walk",
                             bench::run);
}
