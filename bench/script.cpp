// What a script costs: a line that is shown to ROVIK_RCVIO, which only returns a delay, against the
// same line without a script; sndDATA from a loop in a script, against the same message sent from
// C++; and what an idle interpreter keeps in memory.
#include <cstdint>
#include <lua.hpp>
#include <memory>
#include <string>
#include <string_view>
#include <thread>

#include "Drovane.h"
#include "Owned.h"
#include "generic_net/GenericNet.h"
#include "support/Options.h"
#include "support/QuietLog.h"
#include "support/Report.h"
#include "support/Roviks.h"
#include "support/ScriptFolder.h"
#include "support/Statistics.h"
#include "support/Usage.h"

namespace bench {
namespace {

constexpr const char* kScript = R"(
local lines = 0
function ROVIK_INIT(me) m_p = me end
function ROVIK_RCVIO() lines = lines + 1 return 5000000 end
function count() return lines end
function send(words)
  for i = 1, tonumber(words.arg1) do sndDATA("1_1_0", "int", i, 2) end
end
)";

class Net : public GenericNet {
 public:
  using GenericNet::lua_state;
  using GenericNet::rcvData;

  // "lines COUNT" hands over that many lines and "messages COUNT" sends that many messages, inside
  // the rovik as its loop does; every other word is the plug-in's.
  std::string interpretCmd(char** arg) override {
    const std::string_view word = arg[0];
    if (word == "lines") return handOver(std::stoull(arg[1]));
    if (word == "messages") return sendAll(std::stoull(arg[1]));
    return GenericNet::interpretCmd(arg);
  }

  double secondsFor(const std::string& word, std::uint64_t count) {
    const auto begun = SteadyClock::now();
    command(*this, {word, std::to_string(count)});
    return secondsSince(begun, SteadyClock::now());
  }

 private:
  std::string handOver(std::uint64_t count) {
    std::string line = "T=21.3";
    for (std::uint64_t i = 0; i < count; ++i) rcvData(line.data(), static_cast<int>(line.size()));
    return "OK";
  }

  std::string sendAll(std::uint64_t count) {
    for (std::uint64_t i = 1; i <= count; ++i) {
      const auto data = createOwned<MMData>(MM_DATA);
      data->setKey("1_1_0");
      data->setValueType("int");
      data->value_i = static_cast<std::uint32_t>(i);
      data->dst = 2;
      messageSnd(data.get());
    }
    return "OK";
  }
};

// Takes and counts every message.
class Sink : public Rovik {
 public:
  int selectMM(RovikMessage* msg) override {
    if (msg->type == MM_DATA) ++taken;
    return 0;
  }
  std::uint64_t taken = 0;
};

void openScript(Net& net) {
  for (const Words& words : scriptCommands("bench.lua")) command(net, words);
}

std::uint64_t linesSeen(Net& net) { return std::stoull(hostOf(net).command({"count"}).text); }

// Lines per second with and without a script, in turns.
void compareLines(Report& report, bool quick) {
  const std::uint64_t count = quick ? 20'000 : 500'000;
  const auto plain = makeRovik<Net>(3, "plain");
  const auto scripted = makeRovik<Net>(1, "scripted");
  openScript(*scripted);
  Pairs lines;
  const int pairs = quick ? 1 : 7;
  for (int pair = 0; pair <= pairs; ++pair) {
    const double without = plain->secondsFor("lines", count);
    const double with = scripted->secondsFor("lines", count);
    const double to_nanoseconds = 1e9 / static_cast<double>(count);
    if (pair > 0) lines.add(with * to_nanoseconds, without * to_nanoseconds);
  }
  const auto expected = count * static_cast<std::uint64_t>(pairs + 1);
  if (linesSeen(*scripted) != expected) report.fault("the script did not see every line");
  report.add({"a line with a script (floor: without)", median(lines.figure), "ns/line",
              median(lines.floor), lines.ratio(), Goal{Goal::Relation::Below, 2.5}});
}

void compareSending(Report& report, bool quick) {
  // Each call's two log lines are left out: they are another benchmark's matter.
  Drovane::global.setLogLevel(LOG_LEVEL_ERROR);
  const std::uint64_t count = quick ? 5'000 : 50'000;
  const auto sink = makeRovik<Sink>(2, "sink");
  const auto net = makeRovik<Net>(1, "scripted");
  openScript(*net);
  startThread(*sink);
  Pairs sent;
  const int pairs = quick ? 1 : 7;
  const auto drained = [&] {
    while (hostOf(*sink).status().queued > 0) std::this_thread::yield();
  };
  for (int pair = 0; pair <= pairs; ++pair) {
    const double floor = net->secondsFor("messages", count);
    drained();
    const double figure = net->secondsFor("send", count);
    drained();
    if (pair > 0) sent.add(static_cast<double>(count) / figure, static_cast<double>(count) / floor);
  }
  sink->stop();
  if (sink->taken != 2 * count * static_cast<std::uint64_t>(pairs + 1))
    report.fault("of what was sent " + std::to_string(sink->taken) + " arrived");
  report.add({"sndDATA from a loop (floor: C++)", median(sent.figure), "calls/s",
              median(sent.floor), sent.ratio(), std::nullopt});
  Drovane::global.setLogLevel(LOG_LEVEL_INFO);
}

void idleMemory(Report& report) {
  const auto net = makeRovik<Net>(1, "idle");
  openScript(*net);
  lua_gc(net->lua_state, LUA_GCCOLLECT, 0);
  const int kilobytes = lua_gc(net->lua_state, LUA_GCCOUNT, 0);
  report.add({"an idle interpreter", static_cast<double>(kilobytes), "KiB", std::nullopt,
              std::nullopt, std::nullopt});
}

int run(const Options& options) {
  const QuietLog log;
  const ScriptFolder folder;
  folder.add("bench.lua", kScript);
  Report report("script", options);
  compareLines(report, options.quick);
  compareSending(report, options.quick);
  idleMemory(report);
  return report.finish();
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
  return bench::runBenchmark(argc, argv, "What a script costs a line, a call and in memory",
                             bench::run);
}
