// The main road with a script on it: lines from a TCP peer that GenericNet shows to ROVIK_RCVIO,
// the catch-all off.
//
//   sender process ==TCP==> GenericNet, script ==router==> Receiver
//   sender process ==TCP==> thread ==batched queue==> thread         the floor of the empty
//   callback sender process ==TCP==> lua5.2 with LuaSocket                    the same Lua without
//   any routing
#include <cstdint>
#include <iostream>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "Drovane.h"
#include "support/LineFloor.h"
#include "support/LineRoad.h"
#include "support/LineRun.h"
#include "support/Lines.h"
#include "support/LuaProcess.h"
#include "support/Options.h"
#include "support/QuietLog.h"
#include "support/Report.h"
#include "support/Roviks.h"
#include "support/ScriptFolder.h"
#include "support/Statistics.h"

namespace bench {
namespace {

// The closing of the link comes behind every line.
constexpr const char* kEmpty = R"(
function ROVIK_INIT(me) m_p = me end
function ROVIK_RCVIO() end
function ROVIK_RCVCLOSE() sndDATA("1_1_0", "string", "end", 2) end
)";

// Shows that every line comes to the callback; its figure is not used.
constexpr const char* kCounting = R"(
local lines = 0
function ROVIK_INIT(me) m_p = me end
function ROVIK_RCVIO(line) if #line == 9 then lines = lines + 1 end end
function ROVIK_RCVCLOSE() sndDATA("1_1_0", "string", string.format("%d", lines), 2) end
)";

constexpr const char* kExtracting = R"(
function ROVIK_INIT(me) m_p = me end
function ROVIK_RCVIO(line)
  local value = string.match(line, "^T17=([0-9.]+)$")
  if value then sndDATA("1_1_0", "string", value, 2) end
end
)";

// The same function, and what takes the place of the framework around it.
constexpr const char* kLuaSocket = R"(
local peer = assert(require("socket").connect("127.0.0.1", tonumber(arg[1])))
local sent, last = 0, nil
function sndDATA(key, kind, value, to) sent = sent + 1 last = value end
function ROVIK_RCVIO(line)
  local value = string.match(line, "^T17=([0-9.]+)$")
  if value then sndDATA("1_1_0", "string", value, 2) end
end
io.stdout:write("ready\n") io.stdout:flush()
for line in function() return peer:receive() end do ROVIK_RCVIO(line) end
io.stdout:write(string.format("%d %s\n", sent, last))
)";

struct Plan {
  std::uint64_t lines;
  int pairs;
};

std::vector<Words> settings(const std::string& script) {
  std::vector<Words> words = scriptCommands(script);
  words.push_back({"unparsedout", "off"});
  return words;
}

// What the script sends when the link has closed, and nothing else.
class MarkerCheck {
 public:
  explicit MarkerCheck(std::string its_expected) : expected(std::move(its_expected)) {}
  void take(const std::string& text) {
    ++taken;
    if (taken > 1) return;
    marker = text;
    ending.reached();
  }
  std::string fault() const {
    if (taken == 1 && marker == expected) return "";
    return std::to_string(taken) + " messages, the first '" + marker + "' instead of '" + expected +
           "'";
  }
  Ending ending;

 private:
  const std::string expected;
  int taken = 0;
  std::string marker;
};

class Roads {
 public:
  Roads(LineSource& its_source, const ScriptFolder& folder, Report& its_report)
      : source(its_source),
        report(its_report),
        lua_socket(folder.add("luasocket.lua", kLuaSocket)) {
    folder.add("empty.lua", kEmpty);
    folder.add("counting.lua", kCounting);
    folder.add("extracting.lua", kExtracting);
  }

  void emptyCallback(const Plan& plan) {
    const Job job = jobOf(plan);
    MarkerCheck counted(std::to_string(plan.lines));
    note("counting callback", road(source, job, settings("counting.lua"), counted));
    Pairs lines, cpu;
    for (int pair = 0; pair <= plan.pairs; ++pair) {
      progress("empty callback", pair, plan);
      LineCheck floor_check(block, LineCheck::Wanted::Line, plan.lines);
      const Run floor = note("floor", floorRun<kLineSize>(source, job, floor_check));
      MarkerCheck marker("end");
      const Run measured = note("empty callback", road(source, job, settings("empty.lua"), marker));
      if (pair > 0) addPair(lines, cpu, plan, measured, floor);
    }
    show("an empty callback (floor: two threads), lines", "lines/s", lines,
         Goal{Goal::Relation::AtLeast, 0.3});
    show("an empty callback, processor time a line", "ns", cpu, std::nullopt);
  }

  // Each send logs two lines at level 3.
  void extracting(const Plan& plan) {
    Drovane::global.setLogLevel(LOG_LEVEL_ERROR);
    const bool rival = luaSocketInstalled();
    Pairs lines;
    for (int pair = 0; pair <= plan.pairs; ++pair) {
      progress("match and sndDATA", pair, plan);
      const double without = rival ? luaSocket(jobOf(plan)) : 0;
      LineCheck check(block, LineCheck::Wanted::Value, plan.lines);
      const Run measured =
          note("match and sndDATA", road(source, jobOf(plan), settings("extracting.lua"), check));
      const auto count = static_cast<double>(plan.lines);
      if (pair > 0) lines.add(count / measured.seconds, rival ? count / without : 0);
    }
    showExtracting(lines, rival);
    Drovane::global.setLogLevel(LOG_LEVEL_INFO);
  }

 private:
  static constexpr std::uint32_t kLineSize = 10;

  static Job jobOf(const Plan& plan) { return {LineForm::Reading, kLineSize, plan.lines}; }

  static void progress(const std::string& arm, int pair, const Plan& plan) {
    std::cerr << "script_road: " << arm << ", pair " << pair << " of " << plan.pairs << '\n';
  }

  Run note(const std::string& arm, Run run) {
    if (!run.fault.empty()) report.fault(arm + ": " + run.fault);
    return run;
  }

  static void addPair(Pairs& lines, Pairs& cpu, const Plan& plan, const Run& run,
                      const Run& floor) {
    const auto count = static_cast<double>(plan.lines);
    lines.add(count / run.seconds, count / floor.seconds);
    cpu.add(run.usage.cpu_seconds / count * 1e9, floor.usage.cpu_seconds / count * 1e9);
  }

  // Seconds. Its end is when it says what it has seen.
  double luaSocket(const Job& job) {
    LuaProcess lua(lua_socket, std::to_string(source.port()));
    if (lua.readLine() != "ready") throw std::runtime_error("LuaSocket does not connect");
    const auto begun = SteadyClock::now();
    source.send(job);
    const std::string seen = lua.readLine();
    const auto ended = SteadyClock::now();
    const std::size_t last = static_cast<std::size_t>((job.lines - 1) % block.count);
    const std::string expected = std::to_string(job.lines) + ' ' + std::string(block.value(last));
    if (seen != expected) report.fault("LuaSocket: '" + seen + "' instead of '" + expected + "'");
    return secondsSince(begun, ended);
  }

  void show(const std::string& name, const std::string& unit, const Pairs& pairs,
            std::optional<Goal> goal) {
    report.add({name, median(pairs.figure), unit, median(pairs.floor), pairs.ratio(), goal});
  }

  void showExtracting(const Pairs& lines, bool rival) {
    const std::string name = "match and sndDATA, lines";
    const Goal goal{Goal::Relation::AtLeast, 1e6, Goal::Of::Figure};
    if (rival) {
      show(name + " (floor: LuaSocket, no routing)", "lines/s", lines, goal);
      return;
    }
    report.add({name, median(lines.figure), "lines/s", std::nullopt, std::nullopt, goal});
    std::cerr << "script_road: the same Lua with LuaSocket: not measured: lua-socket is not "
                 "installed\n";
  }

  LineSource& source;
  Report& report;
  const std::string lua_socket;
  const Block block{LineForm::Reading, kLineSize};
};

int run(const Options& options) {
  LineSource source;
  const QuietLog log;
  const ScriptFolder folder;
  Report report("script_road", options);
  Roads roads(source, folder, report);
  roads.emptyCallback(options.quick ? Plan{20'000, 1} : Plan{2'000'000, 7});
  roads.extracting(options.quick ? Plan{10'000, 1} : Plan{1'000'000, 7});
  return report.finish();
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
  return bench::runBenchmark(argc, argv,
                             "Lines from a TCP peer that a script sees, against two plain threads "
                             "and against LuaSocket",
                             bench::run);
}
