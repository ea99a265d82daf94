// What links cost that are open and silent: memory, threads and descriptors.
//
// The floor is one plain thread with a 4096-byte buffer per connection. Every size is measured in a
// process of its own.
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "generic_net/GenericNet.h"
#include "support/Child.h"
#include "support/Options.h"
#include "support/QuietLog.h"
#include "support/Report.h"
#include "support/Roviks.h"
#include "support/Sockets.h"
#include "support/Usage.h"

namespace bench {
namespace {

constexpr std::chrono::seconds kPatience{60};

struct Footprint {
  double resident_kb;
  double threads;
  double descriptors;
};

enum class Arm : int { Links, PlainThreads };

struct Job {
  Arm arm;
  int links;
};

double residentKilobytes() {
  std::ifstream in("/proc/self/smaps_rollup");
  for (std::string word; in >> word;) {
    double kilobytes = 0;
    if (word == "Rss:" && in >> kilobytes) return kilobytes;
  }
  std::ifstream pages("/proc/self/statm");
  double total = 0;
  double resident = 0;
  pages >> total >> resident;
  return resident * static_cast<double>(sysconf(_SC_PAGESIZE)) / 1024;
}

double entriesOf(const char* folder) {
  return static_cast<double>(std::distance(std::filesystem::directory_iterator(folder), {}));
}

// Once memory has stopped changing: threads that were just made are still on their way to sleep.
Footprint settledFootprint() {
  const auto deadline = SteadyClock::now() + kPatience;
  double before = -1;
  for (int unchanged = 0; unchanged < 5 && SteadyClock::now() < deadline;) {
    const double now = residentKilobytes();
    unchanged = now == before ? unchanged + 1 : 0;
    before = now;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return {before, entriesOf("/proc/self/task"), entriesOf("/proc/self/fd")};
}

// --- In the process that is measured
// -----------------------------------------------------------------

Footprint measureLinks(int count, int port) {
  const QuietLog log;
  std::vector<OwnedRovik<GenericNet>> links;
  for (int id = 1; id <= count; ++id) {
    links.push_back(makeRovik<GenericNet>(id, "link" + std::to_string(id)));
    openLink(*links.back(), port);
    startThread(*links.back());
  }
  const Footprint footprint = settledFootprint();
  for (const auto& link : links)
    if (!hostOf(*link).status().link_open) throw std::runtime_error("a link has closed");
  for (const auto& link : links) link->stop();
  return footprint;
}

Footprint measurePlainThreads(int count, int port) {
  const QuietLog log;
  std::vector<drovane::Descriptor> sockets;
  std::vector<std::thread> threads;
  for (int i = 0; i < count; ++i) {
    sockets.push_back(connectTo(port));
    threads.emplace_back([socket = sockets.back().get()] {
      std::array<char, 4096> buffer{};
      while (read(socket, buffer.data(), buffer.size()) > 0) continue;
    });
  }
  const Footprint footprint = settledFootprint();
  for (const auto& socket : sockets) shutdown(socket.get(), SHUT_RDWR);
  for (auto& thread : threads) thread.join();
  return footprint;
}

void serve(int port, int channel) {
  const auto job = receiveRecord<Job>(channel);
  if (!job) return;
  sendRecord(channel, job->arm == Arm::Links ? measureLinks(job->links, port)
                                             : measurePlainThreads(job->links, port));
}

// --- In the process that listens
// ---------------------------------------------------------------------

Footprint footprintOf(Arm arm, int links) {
  const Listener listener;
  Child child([&listener](int channel) { serve(listener.port, channel); });
  child.send(Job{arm, links});
  std::vector<drovane::Descriptor> peers;
  for (int i = 0; i < links; ++i) peers.push_back(listener.accept());
  return child.receive<Footprint>();
}

// Every link takes a descriptor here, and more than one over there.
void allowManyDescriptors() {
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
}

struct Measured {
  Footprint links;
  Footprint plain;
};

void reportOne(const std::string& what, const std::string& unit, double Footprint::*part,
               const Measured& at, Report& report) {
  report.add({what, at.links.*part, unit, at.plain.*part, {}, {}});
}

void reportPerLink(const std::string& what, const std::string& unit, double Footprint::*part,
                   const Measured& most, const Measured& one, int links, Report& report) {
  const double each = (most.links.*part - one.links.*part) / (links - 1);
  const double plain = (most.plain.*part - one.plain.*part) / (links - 1);
  report.add({what, each, unit, plain, Spread{each / plain, each / plain, each / plain}, {}});
}

int run(const Options& options) {
  allowManyDescriptors();
  Report report("idle_links", options);
  const std::vector<int> sizes =
      options.quick ? std::vector<int>{1, 20} : std::vector<int>{1, 100, 500};
  Measured one{};
  for (const int links : sizes) {
    std::cerr << "idle_links: " << links << '\n';
    const Measured now{footprintOf(Arm::Links, links), footprintOf(Arm::PlainThreads, links)};
    const std::string name = std::to_string(links) + (links == 1 ? " link, " : " links, ");
    reportOne(name + "resident", "KB", &Footprint::resident_kb, now, report);
    reportOne(name + "threads", "", &Footprint::threads, now, report);
    reportOne(name + "descriptors", "", &Footprint::descriptors, now, report);
    if (now.links.threads < links) report.fault("fewer threads than links");
    if (links == 1) one = now;
    if (links != sizes.back()) continue;
    reportPerLink("each further link, resident", "KB", &Footprint::resident_kb, now, one, links,
                  report);
    reportPerLink("each further link, threads", "", &Footprint::threads, now, one, links, report);
    reportPerLink("each further link, descriptors", "", &Footprint::descriptors, now, one, links,
                  report);
  }
  return report.finish();
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
  return bench::runBenchmark(argc, argv,
                             "Memory, threads and descriptors of idle links, against plain threads",
                             bench::run);
}
