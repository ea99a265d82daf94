// A thousand links in one process, each with a TCP peer that says 100 lines a second: one every
// 10 ms, or ten in one go every 100 ms. Ten lines cost one wake-up, a lone line costs one too, and
// next to that everything else is little.
//
//   sender process ==1,000 x TCP==> 1,000 GenericNet ==router==> one Collector
//   sender process ==1,000 x TCP==> 1,000 threads ==batched queue==> one thread      the floor
//
// What a catch-all or a rule makes of a line goes to every other rovik: here that would be 1,000
// deliveries a line and 100 million a second, which is not what anybody wants of 1,000 links. Who
// has that many switches the catch-all off and lets a script of two lines send each value to the
// one rovik that is to have it. That is measured: every line runs through a script and ends in
// exactly one receiver. (Log level 2: sndDATA says two lines at level 3.) The floor runs no script.
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <future>
#include <iostream>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "Drovane.h"
#include "generic_net/GenericNet.h"
#include "support/BatchQueue.h"
#include "support/Child.h"
#include "support/Limits.h"
#include "support/Options.h"
#include "support/QuietLog.h"
#include "support/Report.h"
#include "support/Roviks.h"
#include "support/Sockets.h"
#include "support/Statistics.h"
#include "support/TempFolder.h"
#include "support/Usage.h"

namespace bench {
namespace {

constexpr std::chrono::seconds kPatience{20};
constexpr int kLinesPerSecond = 100;  // of each link
constexpr const char* kCollector = "collector";

constexpr const char* kScript = R"(
local key = network_id .. "_1_0"
function ROVIK_INIT(me) m_p = me end
function ROVIK_RCVIO(line)
  sndDATA(key, "string", line, "collector")
  return 30000000
end
function ROVIK_RCVOPEN() return 30000000 end
function ROVIK_RCVCLOSE() return 30000000 end
function ROVIK_RCV() return 30000000 end
function ROVIK_PERIODIC() return 30000000 end
)";

struct Job {
  int links;
  int lines;  // of each link
  int burst;  // lines that a peer says in one go
  std::int64_t all() const { return static_cast<std::int64_t>(links) * lines; }
};

// Of the monotonic clock, which all processes share.
std::int64_t nanosecondsNow() {
  return std::chrono::nanoseconds(SteadyClock::now().time_since_epoch()).count();
}

// --- In the sender process
// -------------------------------------------------------------------------

// "LINK NUMBER TIME": who sends it, how many it has sent before, and when.
void appendLine(std::string& text, int link, int number) {
  std::array<char, 80> line{};
  const int length = std::snprintf(line.data(), line.size(), "%d %d %lld\n", link, number,
                                   static_cast<long long>(nanosecondsNow()));
  text.append(line.data(), static_cast<std::size_t>(length));
}

// Burst after burst round the links, evenly over the second.
void sayAll(const std::vector<drovane::Descriptor>& peers, const Job& job) {
  const std::int64_t bursts = job.all() / job.burst;
  const std::int64_t gap =
      1'000'000'000 / (static_cast<std::int64_t>(job.links) * kLinesPerSecond / job.burst);
  const std::int64_t begun = nanosecondsNow();
  std::string text;
  for (std::int64_t said = 0; said < bursts;) {
    const std::int64_t due = std::min(bursts, (nanosecondsNow() - begun) / gap);
    for (; said < due; ++said) {
      const auto link = static_cast<int>(said % job.links);
      const auto number = static_cast<int>(said / job.links) * job.burst;
      text.clear();
      for (int i = 0; i < job.burst; ++i) appendLine(text, link, number + i);
      writeAll(peers[static_cast<std::size_t>(link)].get(), text);
    }
    std::this_thread::sleep_for(std::chrono::microseconds(200));
  }
}

// A first record says how many will connect, a second one that they are ready; the answer is the
// time at which the first line was sent.
void serve(const Listener& listener, int channel) {
  while (const auto job = receiveRecord<Job>(channel)) {
    std::vector<drovane::Descriptor> peers;
    for (int i = 0; i < job->links; ++i) {
      peers.push_back(listener.accept());
      sendAtOnce(peers.back().get());
    }
    if (!receiveRecord<Job>(channel)) return;
    const std::int64_t begun = nanosecondsNow();
    sayAll(peers, *job);
    for (const auto& peer : peers) shutdown(peer.get(), SHUT_WR);
    for (const auto& peer : peers) awaitClose(peer.get());
    sendRecord(channel, begun);
  }
}

// --- At the receiving end
// --------------------------------------------------------------------------

// Every line of every link once and in order.
class Arrivals {
 public:
  explicit Arrivals(const Job& its_job)
      : job(its_job), next(static_cast<std::size_t>(its_job.links), 0) {
    lags.reserve(static_cast<std::size_t>(job.all()));
  }

  void take(int link, std::string_view text) {
    const std::int64_t now = nanosecondsNow();
    std::array<std::int64_t, 3> said{-1, -1, -1};
    read(text, said);
    if (said[0] != link || said[1] != next[static_cast<std::size_t>(link)]++) ++wrong;
    lags.push_back(static_cast<double>(now - said[2]) * 1e-3);
    if (static_cast<std::int64_t>(lags.size()) == job.all()) ended.set_value(now);
  }

  // When the last line came, in nanoseconds; now, when it does not come in time.
  std::int64_t awaitLast() {
    auto last = ended.get_future();
    const auto limit = kPatience + std::chrono::seconds(job.lines / kLinesPerSecond);
    return last.wait_for(limit) == std::future_status::ready ? last.get() : nanosecondsNow();
  }

  // The receiver has ended. Empty when all is well.
  std::string fault() const {
    const auto seen = static_cast<std::int64_t>(lags.size());
    if (seen == job.all() && wrong == 0) return "";
    return std::to_string(seen) + " of " + std::to_string(job.all()) + " lines arrived, " +
           std::to_string(wrong) + " of them out of order or changed";
  }

  // In microseconds.
  double lag(double share) const { return lags.empty() ? 0 : quantile(lags, share); }

 private:
  static void read(std::string_view text, std::array<std::int64_t, 3>& numbers) {
    const char* at = text.data();
    const char* const end = at + text.size();
    for (std::int64_t& number : numbers) {
      at = std::from_chars(at, end, number).ptr;
      if (at != end) ++at;  // the blank
    }
  }

  const Job job;
  std::vector<int> next;
  std::vector<double> lags;
  int wrong = 0;
  std::promise<std::int64_t> ended;
};

struct Run {
  double lines_per_second;
  double cpu_ns;  // of all threads here, per line
  double lag_median_us;
  double lag_p99_us;
  std::string fault;
};

// All links are open and their threads run. `end` is called when the sender has closed its sides.
template <typename End>
Run measure(Child& sender, const Job& job, Arrivals& arrivals, End end) {
  const Usage before = Usage::now();
  sender.send(job);
  const std::int64_t last = arrivals.awaitLast();
  const Usage used = Usage::now() - before;
  const auto first = sender.receive<std::int64_t>();
  end();
  const auto lines = static_cast<double>(job.all());
  return {lines / (static_cast<double>(last - first) * 1e-9), used.cpu_seconds / lines * 1e9,
          arrivals.lag(0.5), arrivals.lag(0.99), arrivals.fault()};
}

// --- The links
// -------------------------------------------------------------------------------------

class Collector : public Rovik {
 public:
  explicit Collector(Arrivals& its_arrivals) : arrivals(its_arrivals) {}
  int selectMM(RovikMessage* msg) override {
    if (msg->type == MM_DATA)
      arrivals.take(static_cast<int>(msg->src) - 1, static_cast<MMData*>(msg)->value_s);
    return 0;
  }

 private:
  Arrivals& arrivals;
};

OwnedRovik<GenericNet> openScriptedLink(int id, int port) {
  auto link = makeRovik<GenericNet>(id, "link" + std::to_string(id));
  command(*link, {"unparsedout", "off"});
  command(*link, {"luafile", "forward.lua"});
  command(*link, {"luaopen"});
  openLink(*link, port);
  return link;
}

Run links(Child& sender, int port, const Job& job) {
  Arrivals arrivals(job);
  const auto collector = makeRovik<Collector>(job.links + 1, kCollector, arrivals);
  std::vector<OwnedRovik<GenericNet>> all;
  sender.send(job);
  for (int id = 1; id <= job.links; ++id) all.push_back(openScriptedLink(id, port));
  startThread(*collector);
  for (const auto& link : all) startThread(*link);
  return measure(sender, job, arrivals, [&] {
    for (const auto& link : all) {
      link->stop();
      command(*link, {"luaclose"});
    }
    collector->stop();
  });
}

// --- The floor
// -------------------------------------------------------------------------------------

struct Line {
  int link;
  std::uint32_t length;
  std::array<char, 64> text;
};
using LineQueue = BatchQueue<std::unique_ptr<Line>>;

std::unique_ptr<Line> record(int link, std::string_view text) {
  auto line = std::make_unique_for_overwrite<Line>();
  line->link = link;
  line->length = static_cast<std::uint32_t>(std::min(text.size(), line->text.size()));
  std::memcpy(line->text.data(), text.data(), line->length);
  return line;
}

// Returns when the peer has closed its side.
void readLines(int link, int socket, LineQueue& queue) {
  std::array<char, 4096> buffer;
  std::size_t held = 0;
  LineQueue::Batch batch;
  while (true) {
    const ssize_t received = read(socket, buffer.data() + held, buffer.size() - held);
    if (received <= 0) return;
    held += static_cast<std::size_t>(received);
    std::string_view rest(buffer.data(), held);
    for (std::size_t end = rest.find('\n'); end != std::string_view::npos; end = rest.find('\n')) {
      batch.push_back(record(link, rest.substr(0, end)));
      rest.remove_prefix(end + 1);
    }
    held = rest.size();
    std::memmove(buffer.data(), rest.data(), held);
    if (!batch.empty()) queue.put(batch);
  }
}

void takeLines(LineQueue& queue, Arrivals& arrivals) {
  LineQueue::Batch batch;
  while (queue.take(batch)) {
    for (auto& line : batch) {
      arrivals.take(line->link, {line->text.data(), line->length});
      line.reset();
    }
    batch.clear();
  }
}

Run threads(Child& sender, int port, const Job& job) {
  Arrivals arrivals(job);
  LineQueue queue;
  std::vector<drovane::Descriptor> sockets;
  std::vector<std::thread> readers;
  sender.send(job);
  for (int link = 0; link < job.links; ++link) sockets.push_back(connectTo(port));
  std::thread receiver([&] { takeLines(queue, arrivals); });
  for (int link = 0; link < job.links; ++link) {
    readers.emplace_back([&queue, link, &socket = sockets[static_cast<std::size_t>(link)]] {
      readLines(link, socket.get(), queue);
      socket.reset();
    });
  }
  return measure(sender, job, arrivals, [&] {
    for (std::thread& reader : readers) reader.join();
    queue.close();
    receiver.join();
  });
}

// --- The pairs
// -------------------------------------------------------------------------------------

class Comparison {
 public:
  void add(const Run& measured, const Run& floor) {
    lines.add(measured.lines_per_second, floor.lines_per_second);
    cpu.add(measured.cpu_ns, floor.cpu_ns);
    lag_median.add(measured.lag_median_us, floor.lag_median_us);
    lag_p99.add(measured.lag_p99_us, floor.lag_p99_us);
  }

  // The lines are sent at a fixed rate; the last ones may take their time to arrive.
  void addTo(Report& report, const Job& job) const {
    const std::string links = std::to_string(job.links) + " links, " +
                              (job.burst == 1 ? "line by line, " : "lines in bursts, ");
    const Goal all_delivered{Goal::Relation::AtLeast, 0.99 * job.links * kLinesPerSecond,
                             Goal::Of::Figure};
    add(report, links + "lines delivered", "lines/s", lines, all_delivered);
    add(report, links + "processor time a line", "ns", cpu, std::nullopt);
    add(report, links + "lag of a line, median", "us", lag_median, std::nullopt);
    add(report, links + "lag of a line, 99 of 100 below", "us", lag_p99, std::nullopt);
  }

 private:
  static void add(Report& report, const std::string& name, const std::string& unit,
                  const Pairs& pairs, std::optional<Goal> goal) {
    report.add({name, median(pairs.figure), unit, median(pairs.floor), pairs.ratio(), goal});
  }

  Pairs lines, cpu, lag_median, lag_p99;
};

void compare(Child& sender, int port, const Job& job, int pairs, Report& report) {
  Comparison comparison;
  for (int pair = 1; pair <= pairs; ++pair) {
    std::cerr << "links: bursts of " << job.burst << ", pair " << pair << " of " << pairs << '\n';
    const Run floor = threads(sender, port, job);
    const Run measured = links(sender, port, job);
    if (!floor.fault.empty()) report.fault("floor: " + floor.fault);
    if (!measured.fault.empty()) report.fault("links: " + measured.fault);
    comparison.add(measured, floor);
  }
  comparison.addTo(report, job);
}

int run(const Options& options) {
  const int count = options.quick ? 50 : 1000;
  const int lines = options.quick ? 30 : 300;
  const int pairs = options.quick ? 1 : 3;
  allowDescriptors(static_cast<rlim_t>(2 * count + 100));
  const Listener listener;
  Child sender([&listener](int channel) { serve(listener, channel); });
  const QuietLog log;
  Drovane::global.setLogLevel(LOG_LEVEL_ERROR);
  const TempFolder root;
  root.write("lua/forward.lua", kScript);
  Drovane::global.setInstRoot(root.path());
  Report report("links", options);
  for (const int burst : {1, 10})
    compare(sender, listener.port, {count, lines, burst}, pairs, report);
  return report.finish();
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
  return bench::runBenchmark(
      argc, argv, "Lines of many links into one rovik, against as many plain threads", bench::run);
}
