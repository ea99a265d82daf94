// What links cost that are open and silent: memory, threads, descriptors and processor time;
// without a script and with a small one.
//
// The floor is one plain thread with a 4096-byte buffer per connection. Every size of every kind is
// measured in a process of its own. The processor time is that of a stretch in which the timer of
// every link, which asks for 30 s, expires once.
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <iostream>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "Drovane.h"
#include "generic_net/GenericNet.h"
#include "support/Child.h"
#include "support/Limits.h"
#include "support/Memory.h"
#include "support/Options.h"
#include "support/QuietLog.h"
#include "support/Report.h"
#include "support/Roviks.h"
#include "support/Sockets.h"
#include "support/TempFolder.h"
#include "support/Usage.h"

namespace bench {
namespace {

constexpr std::chrono::seconds kPatience{60};

constexpr const char* kScript = R"lua(
local last, seen = nil, 0
function ROVIK_INIT(me) m_p = me end
function ROVIK_RCVIO(line)
  local value = tonumber(line:match("^T=([%d.]+)"))
  seen = seen + 1
  if value and value ~= last then sndDATA(network_id .. "_1_0", "float", value, "BC") end
  last = value
  return 30000000
end
function ROVIK_RCV(msg) return 30000000 end
function ROVIK_RCVOPEN() return 30000000 end
function ROVIK_RCVCLOSE() return 30000000 end
function ROVIK_PERIODIC() return 30000000 end
function count() return seen end
)lua";

struct Footprint {
  double resident_kb;
  double threads;
  double descriptors;
  double processor_percent;  // of one core
};

enum class Arm : int { PlainThreads, Links, ScriptedLinks };

struct Job {
  Arm arm;
  int links;
  int idle_ms;  // how long the processor time is taken
};

double entriesOf(const char* folder) {
  return static_cast<double>(std::distance(std::filesystem::directory_iterator(folder), {}));
}

// Once memory has stopped changing: threads that were just made are still on their way to sleep.
double settledKilobytes() {
  const auto deadline = SteadyClock::now() + kPatience;
  double before = -1;
  for (int unchanged = 0; unchanged < 5 && SteadyClock::now() < deadline;) {
    const double now = residentKilobytes();
    unchanged = now == before ? unchanged + 1 : 0;
    before = now;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return before;
}

double processorPercent(int idle_ms) {
  const auto begun = SteadyClock::now();
  const Usage before = Usage::now();
  std::this_thread::sleep_for(std::chrono::milliseconds(idle_ms));
  const Usage used = Usage::now() - before;
  return used.cpu_seconds / secondsSince(begun, SteadyClock::now()) * 100;
}

Footprint footprint(int idle_ms) {
  const double resident_kb = settledKilobytes();
  const double processor = processorPercent(idle_ms);
  return {resident_kb, entriesOf("/proc/self/task"), entriesOf("/proc/self/fd"), processor};
}

// --- In the process that is measured
// -----------------------------------------------------------------

void openScript(GenericNet& link) {
  command(link, {"luafile", "idle.lua"});
  command(link, {"luaopen"});
}

Footprint measureLinks(const Job& job, int port) {
  const QuietLog log;
  const TempFolder root;
  root.write("lua/idle.lua", kScript);
  Drovane::global.setInstRoot(root.path());
  std::vector<OwnedRovik<GenericNet>> links;
  for (int id = 1; id <= job.links; ++id) {
    links.push_back(makeRovik<GenericNet>(id, "link" + std::to_string(id)));
    if (job.arm == Arm::ScriptedLinks) openScript(*links.back());
    openLink(*links.back(), port);
    startThread(*links.back());
  }
  const Footprint all = footprint(job.idle_ms);
  for (const auto& link : links)
    if (!hostOf(*link).status().link_open) throw std::runtime_error("a link has closed");
  for (const auto& link : links) link->stop();
  return all;
}

Footprint measurePlainThreads(const Job& job, int port) {
  const QuietLog log;
  std::vector<drovane::Descriptor> sockets;
  std::vector<std::thread> threads;
  for (int i = 0; i < job.links; ++i) {
    sockets.push_back(connectTo(port));
    threads.emplace_back([socket = sockets.back().get()] {
      std::array<char, 4096> buffer{};
      while (read(socket, buffer.data(), buffer.size()) > 0) continue;
    });
  }
  const Footprint all = footprint(job.idle_ms);
  for (const auto& socket : sockets) shutdown(socket.get(), SHUT_RDWR);
  for (auto& thread : threads) thread.join();
  return all;
}

void serve(int port, int channel) {
  const auto job = receiveRecord<Job>(channel);
  if (!job) return;
  sendRecord(channel, job->arm == Arm::PlainThreads ? measurePlainThreads(*job, port)
                                                    : measureLinks(*job, port));
}

// --- In the process that listens
// ---------------------------------------------------------------------

// A process that is measured, and its peers.
class Subject {
 public:
  Subject() : child([this](int channel) { serve(listener.port, channel); }) {}

  void begin(const Job& job) {
    child.send(job);
    for (int i = 0; i < job.links; ++i) peers.push_back(listener.accept());
  }
  Footprint end() { return child.receive<Footprint>(); }

 private:
  const Listener listener;
  Child child;
  std::vector<drovane::Descriptor> peers;
};

struct Measured {
  Footprint plain;
  Footprint links;
  Footprint scripted;
};

// The three side by side: what is measured is that they do next to nothing.
Measured measure(int links, int idle_ms) {
  Subject plain;
  Subject unscripted;
  Subject scripted;
  plain.begin({Arm::PlainThreads, links, idle_ms});
  unscripted.begin({Arm::Links, links, idle_ms});
  scripted.begin({Arm::ScriptedLinks, links, idle_ms});
  return {plain.end(), unscripted.end(), scripted.end()};
}

Goal below(double limit) { return {Goal::Relation::Below, limit, Goal::Of::Figure}; }

void reportSize(int links, const Measured& at, Report& report) {
  const std::string name = std::to_string(links) + (links == 1 ? " link, " : " links, ");
  const auto add = [&](const std::string& what, const std::string& unit, const Footprint& kind,
                       double Footprint::*part) {
    report.add({name + what, kind.*part, unit, at.plain.*part, std::nullopt, std::nullopt});
  };
  add("resident", "KB", at.links, &Footprint::resident_kb);
  add("resident, with a script", "KB", at.scripted, &Footprint::resident_kb);
  add("threads", "", at.links, &Footprint::threads);
  add("descriptors", "", at.links, &Footprint::descriptors);
  if (at.links.threads < links || at.scripted.threads < links)
    report.fault("fewer threads than links");
}

void reportEach(int links, const Measured& most, const Measured& one, Report& report) {
  const auto add = [&](const std::string& what, const std::string& unit, Footprint Measured::*kind,
                       double Footprint::*part, std::optional<Goal> goal) {
    const auto each = [&](Footprint Measured::*which) {
      return (most.*which.*part - one.*which.*part) / (links - 1);
    };
    const double ratio = each(kind) / each(&Measured::plain);
    report.add({"each further link, " + what, each(kind), unit, each(&Measured::plain),
                Spread{ratio, ratio, ratio}, goal});
  };
  add("resident", "KB", &Measured::links, &Footprint::resident_kb, below(40));
  add("resident, with a script", "KB", &Measured::scripted, &Footprint::resident_kb, below(100));
  add("threads", "", &Measured::links, &Footprint::threads, std::nullopt);
  add("descriptors", "", &Measured::links, &Footprint::descriptors, std::nullopt);
}

void reportProcessor(int links, const Measured& at, Report& report) {
  const std::string name = std::to_string(links) + " links, processor share of a core";
  const double floor = at.plain.processor_percent;
  report.add({name, at.links.processor_percent, "%", floor, std::nullopt, below(1)});
  report.add({name + ", with a script", at.scripted.processor_percent, "%", floor, std::nullopt,
              below(1)});
}

int run(const Options& options) {
  const std::vector<int> sizes =
      options.quick ? std::vector<int>{1, 20} : std::vector<int>{1, 100, 1000};
  const int most = sizes.back();
  allowDescriptors(static_cast<rlim_t>(2 * most + 100));
  Report report("idle_links", options);
  Measured one{};
  for (const int links : sizes) {
    std::cerr << "idle_links: " << links << '\n';
    const int idle_ms = links < most ? 0 : options.quick ? 100 : 31'000;
    const Measured now = measure(links, idle_ms);
    reportSize(links, now, report);
    if (links == 1) one = now;
    if (links < most) continue;
    reportEach(links, now, one, report);
    reportProcessor(links, now, report);
  }
  return report.finish();
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
  return bench::runBenchmark(argc, argv, "What idle links cost, against plain threads", bench::run);
}
