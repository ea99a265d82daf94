// The main road: lines from a TCP peer, through GenericNet and the router, into another rovik.
//
//   sender process ==TCP==> GenericNet ==router==> Counter
//   sender process ==TCP==> thread ==batched queue==> thread        the floor
//
// Both arms read the same bytes from the same sender and hand every line over on its own.
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <future>
#include <iostream>
#include <iterator>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "generic_net/GenericNet.h"
#include "support/Allocations.h"
#include "support/Child.h"
#include "support/Options.h"
#include "support/QuietLog.h"
#include "support/Report.h"
#include "support/Roviks.h"
#include "support/Sockets.h"
#include "support/Statistics.h"
#include "support/Usage.h"

namespace bench {
namespace {

constexpr std::chrono::seconds kPatience{40};
constexpr std::size_t kBlockBytes = 250'000;  // of ready-made lines; stays in a core's cache
constexpr std::size_t kNumberDigits = 9;

// Numbered lines of `size` bytes, line feed included, to be sent round and round.
class Block {
 public:
  explicit Block(std::size_t line_size) : size(line_size), count(kBlockBytes / line_size) {
    for (std::size_t i = 0; i < count; ++i) {
      const std::string number = std::to_string(i);
      bytes.append(kNumberDigits - number.size(), '0').append(number);
      bytes.append(size - 1 - kNumberDigits, 'x').append("\n");
    }
  }
  std::string_view text(std::size_t index) const { return {&bytes[index * size], size - 1}; }

  const std::size_t size;
  const std::size_t count;
  std::string bytes;
};

struct Job {
  std::uint32_t line_size;
  std::uint64_t lines;
};

// Sends what is asked for to whoever has connected, and then the end of the stream.
void serve(const Listener& listener, int channel) {
  while (const auto job = receiveRecord<Job>(channel)) {
    const Block block(job->line_size);
    const drovane::Descriptor peer = listener.accept();
    for (std::uint64_t left = job->lines; left > 0;) {
      const auto now = static_cast<std::size_t>(std::min<std::uint64_t>(left, block.count));
      writeAll(peer.get(), std::string_view(block.bytes).substr(0, now * block.size));
      left -= now;
    }
    shutdown(peer.get(), SHUT_WR);
    awaitClose(peer.get());
  }
}

// At the receiving end: every line once, in order, with its text.
class LineCheck {
 public:
  LineCheck(const Block& its_block, std::uint64_t lines, bool count_allocations)
      : block(its_block), expected(lines), counting(count_allocations) {}

  void take(std::string_view text) {
    if (text != block.text(index)) ++wrong;
    index = index + 1 == block.count ? 0 : index + 1;
    ++seen;
    if (seen == expected / 2 && counting) beginAllocationCount();
    if (seen == expected) {
      if (counting) allocations = endAllocationCount();
      ended.set_value(SteadyClock::now());
    }
  }

  // When the last line came; now, when it does not come in time.
  SteadyClock::time_point awaitLast() {
    auto last = ended.get_future();
    return last.wait_for(kPatience) == std::future_status::ready ? last.get() : SteadyClock::now();
  }

  // The receiver has ended. Empty when all is well.
  std::string fault() const {
    if (seen == expected && wrong == 0) return "";
    return std::to_string(seen) + " of " + std::to_string(expected) + " lines arrived, " +
           std::to_string(wrong) + " of them out of order or changed";
  }
  double allocationsPerLine() const {
    return static_cast<double>(allocations) / static_cast<double>(expected - expected / 2);
  }

 private:
  const Block& block;
  const std::uint64_t expected;
  const bool counting;
  std::size_t index = 0;
  std::uint64_t seen = 0;
  std::uint64_t wrong = 0;
  std::uint64_t allocations = 0;
  std::promise<SteadyClock::time_point> ended;
};

struct Run {
  double seconds;
  Usage usage;
  double allocations;  // per line, in the second half
  std::string fault;
};

// Lets the sender go and waits for the last line.
Run measure(Child& sender, const Job& job, LineCheck& check) {
  const Usage before = Usage::now();
  const auto begun = SteadyClock::now();
  sender.send(job);
  const auto ended = check.awaitLast();
  return {secondsSince(begun, ended), Usage::now() - before, check.allocationsPerLine(), ""};
}

// --- The road
// --------------------------------------------------------------------------------------

class Counter : public Rovik {
 public:
  explicit Counter(LineCheck& its_check) : check(its_check) {}
  int selectMM(RovikMessage* msg) override {
    if (msg->type == MM_DATA) check.take(static_cast<MMData*>(msg)->value_s);
    return 0;
  }

 private:
  LineCheck& check;
};

// GenericNet closes its link at the end of the stream: then every line is on its way.
void awaitQuiet(Rovik& link, Rovik& counter) {
  const auto deadline = SteadyClock::now() + kPatience;
  while (hostOf(link).status().link_open || hostOf(counter).status().queued > 0) {
    if (SteadyClock::now() > deadline) throw std::runtime_error("the link does not close");
    std::this_thread::yield();
  }
}

Run road(Child& sender, int port, const Job& job, LineCheck& check) {
  const auto counter = makeRovik<Counter>(2, "counter", check);
  const auto link = makeRovik<GenericNet>(1, "link");
  openLink(*link, port);
  startThread(*counter);
  startThread(*link);
  Run run = measure(sender, job, check);
  awaitQuiet(*link, *counter);
  link->stop();
  counter->stop();
  run.fault = check.fault();
  return run;
}

// --- The floor
// -------------------------------------------------------------------------------------

template <std::size_t Size>
struct Line {
  std::uint32_t length;
  std::array<char, Size> text;
};

template <std::size_t Size>
class LineQueue {
 public:
  using Batch = std::vector<std::unique_ptr<Line<Size>>>;

  // Leaves `lines` empty.
  void put(Batch& lines) {
    {
      const std::lock_guard guard(lock);
      if (waiting.empty()) {
        waiting.swap(lines);
      } else {
        std::move(lines.begin(), lines.end(), std::back_inserter(waiting));
      }
    }
    more.notify_one();
    lines.clear();
  }

  void close() {
    const std::lock_guard guard(lock);
    closed = true;
    more.notify_one();
  }

  // False when nothing waits and nothing more will come.
  bool take(Batch& lines) {
    std::unique_lock guard(lock);
    more.wait(guard, [this] { return closed || !waiting.empty(); });
    lines.swap(waiting);
    return !lines.empty();
  }

 private:
  std::mutex lock;
  std::condition_variable more;
  Batch waiting;
  bool closed = false;
};

template <std::size_t Size>
void readLines(int socket, LineQueue<Size>& queue) {
  std::array<char, 4096> buffer;
  std::size_t held = 0;
  typename LineQueue<Size>::Batch batch;
  while (true) {
    const ssize_t received = read(socket, buffer.data() + held, buffer.size() - held);
    if (received <= 0) break;
    held += static_cast<std::size_t>(received);
    const char* begin = buffer.data();
    const char* const end = begin + held;
    while (const void* eol = std::memchr(begin, '\n', static_cast<std::size_t>(end - begin))) {
      auto line = std::make_unique_for_overwrite<Line<Size>>();
      line->length = static_cast<std::uint32_t>(static_cast<const char*>(eol) - begin);
      std::memcpy(line->text.data(), begin, line->length);
      begin += line->length + 1;
      batch.push_back(std::move(line));
    }
    held = static_cast<std::size_t>(end - begin);
    std::memmove(buffer.data(), begin, held);
    if (!batch.empty()) queue.put(batch);
  }
  queue.close();
}

template <std::size_t Size>
Run floorRun(Child& sender, int port, const Job& job, LineCheck& check) {
  LineQueue<Size> queue;
  const drovane::Descriptor socket = connectTo(port);
  std::thread receiver([&] {
    typename LineQueue<Size>::Batch batch;
    while (queue.take(batch)) {
      for (auto& line : batch) {
        check.take({line->text.data(), line->length});
        line.reset();
      }
      batch.clear();
    }
  });
  std::thread reader([&] { readLines<Size>(socket.get(), queue); });
  Run run = measure(sender, job, check);
  reader.join();
  receiver.join();
  run.fault = check.fault();
  return run;
}

// --- The pairs
// -------------------------------------------------------------------------------------

struct Plan {
  std::uint64_t lines;
  int pairs;
};

class Sizes {
 public:
  Sizes(Child& its_sender, int its_port, Report& its_report)
      : sender(its_sender), port(its_port), report(its_report) {}

  template <std::size_t Size>
  void compare(const Plan& plan) {
    const Block block(Size);
    const Job job{Size, plan.lines};
    Pairs lines, bytes, cpu, sleeps, allocations;
    // The pair before the first warms up, and counts allocations, which costs time.
    for (int pair = 0; pair <= plan.pairs; ++pair) {
      std::cerr << "line_road: " << Size << " bytes, pair " << pair << " of " << plan.pairs << '\n';
      LineCheck floor_check(block, plan.lines, pair == 0);
      const Run floor = floorRun<Size>(sender, port, job, floor_check);
      LineCheck road_check(block, plan.lines, pair == 0);
      const Run measured = road(sender, port, job, road_check);
      note("floor", floor);
      note("road", measured);
      const auto count = static_cast<double>(plan.lines);
      if (pair == 0) {
        allocations.add(measured.allocations, floor.allocations);
        continue;
      }
      lines.add(count / measured.seconds, count / floor.seconds);
      bytes.add(count * Size / measured.seconds / 1e6, count * Size / floor.seconds / 1e6);
      cpu.add(measured.usage.cpu_seconds / count * 1e9, floor.usage.cpu_seconds / count * 1e9);
      sleeps.add(static_cast<double>(measured.usage.sleeps) / count * 1e3,
                 static_cast<double>(floor.usage.sleeps) / count * 1e3);
    }
    const std::string size = std::to_string(Size) + " B, ";
    add(size + "lines", "lines/s", lines, Goal{Goal::Relation::AtLeast, 0.35});
    add(size + "bytes", "MB/s", bytes, std::nullopt);
    add(size + "processor time a line", "ns", cpu, std::nullopt);
    report.add({size + "sleeps in 1,000 lines", median(sleeps.figure), "", median(sleeps.floor),
                std::nullopt, std::nullopt});
    report.add({size + "allocations a line", median(allocations.figure), "",
                median(allocations.floor), std::nullopt, std::nullopt});
  }

 private:
  void note(const std::string& arm, const Run& run) {
    if (!run.fault.empty()) report.fault(arm + ": " + run.fault);
  }
  void add(const std::string& name, const std::string& unit, const Pairs& pairs,
           std::optional<Goal> goal) {
    report.add({name, median(pairs.figure), unit, median(pairs.floor), pairs.ratio(), goal});
  }

  Child& sender;
  const int port;
  Report& report;
};

int run(const Options& options) {
  const Listener listener;
  Child sender([&listener](int channel) { serve(listener, channel); });
  const QuietLog log;
  Report report("line_road", options);
  Sizes sizes(sender, listener.port, report);
  sizes.compare<10>(options.quick ? Plan{50'000, 1} : Plan{3'000'000, 7});
  sizes.compare<1000>(options.quick ? Plan{5'000, 1} : Plan{500'000, 7});
  return report.finish();
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
  return bench::runBenchmark(
      argc, argv, "Lines from a TCP peer to another rovik, against two plain threads", bench::run);
}
