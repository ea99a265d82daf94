// A large house, run by the real program: how long its start takes, and how long `drovane status`
// takes while peers flood.
//
// Every rovik has a link to a peer, every second one rules, every fifth a script. The start is over
// when the program says so in its log: every rovik then has run its commands, `open` with its
// connect among them. Its floor are as many plain threads that connect.
//
// There are two floods. Scripts count the lines of the first and tell one rovik about each
// thousandth: a few threads are busy, the others sleep. Of the second every line is reported to all
// other roviks, so that each of the 500 threads has work all the time. The floor of an answer in a
// flood is the same answer of the same house in silence; that of the command, which is a new
// process, a program that does nothing, started in turns with it in the same flood.
#include <poll.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <deque>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "drovane/ControlClient.h"
#include "support/Child.h"
#include "support/Flood.h"
#include "support/Limits.h"
#include "support/Options.h"
#include "support/Program.h"
#include "support/Report.h"
#include "support/Sockets.h"
#include "support/Statistics.h"
#include "support/TempFolder.h"
#include "support/Usage.h"

namespace bench {
namespace {

constexpr std::chrono::seconds kPatience{20};
constexpr std::chrono::milliseconds kBetweenRequests{5};
constexpr std::chrono::seconds kLongestSeries{8};  // of requests; fewer of them fit when it is slow
constexpr std::size_t kFlooded = 4;                // links, of each kind
constexpr std::size_t kCounting = 0;               // the first of those that count lines
constexpr std::size_t kReporting = 4;              // the first of those that report each
constexpr double kLinesOfReport = 1000;            // of a link that counts
constexpr Flood::Lines kLines{20, 200};

constexpr const char* kScript = R"lua(
local heard = 0
function ROVIK_INIT(me) m_p = me end
function ROVIK_RCVIO(line) return 30000000 end
function ROVIK_RCV(msg) heard = heard + 1 return 30000000 end
function ROVIK_RCVOPEN() return 30000000 end
function ROVIK_RCVCLOSE() return 30000000 end
function ROVIK_PERIODIC() return 30000000 end
)lua";

constexpr const char* kCountingScript = R"lua(
local lines = 0
function ROVIK_INIT(me) m_p = me end
function ROVIK_RCVIO(line)
  lines = lines + 1
  if lines % 1000 == 0 then sndDATA(network_id .. "_1_0", "int", lines, "device10") end
  return 30000000
end
function ROVIK_RCV(msg) return 30000000 end
function ROVIK_RCVOPEN() return 30000000 end
function ROVIK_RCVCLOSE() return 30000000 end
function ROVIK_PERIODIC() return 30000000 end
)lua";

struct Plan {
  int roviks;
  int starts;
  int requests;
  int commands;
};

// --- In the process of the peers
// -------------------------------------------------------------------

struct Request {
  enum class What : int { Accept, Flood, Calm, End } what;
  int connections;  // of Accept: how many; of Flood: the first of some
};

struct Peer {
  explicit Peer(drovane::Descriptor its_socket) : socket(std::move(its_socket)) {}

  const drovane::Descriptor socket;
  std::atomic<std::uint64_t> sent{0};
  std::optional<Flood> flood;
};

// Until a peer connects. False when the benchmark is gone; what it says meanwhile comes later.
bool awaitConnection(const Listener& listener, int channel) {
  std::array<pollfd, 2> watched = {{{listener.socket.get(), POLLIN, 0}, {channel, 0, 0}}};
  if (poll(watched.data(), watched.size(), -1) < 0)
    throw std::system_error(errno, std::generic_category(), "poll");
  return (watched[1].revents & POLLHUP) == 0;
}

void flood(std::deque<Peer>& peers, std::size_t first) {
  for (std::size_t i = first; i < first + kFlooded; ++i)
    peers[i].flood.emplace(peers[i].socket.get(), kLines, peers[i].sent);
}

void serve(const Listener& listener, int channel) {
  std::deque<Peer> peers;
  while (const auto request = receiveRecord<Request>(channel)) {
    switch (request->what) {
      case Request::What::Accept:
        for (int i = 0; i < request->connections && awaitConnection(listener, channel); ++i)
          peers.emplace_back(listener.accept());
        break;
      case Request::What::Flood:
        flood(peers, static_cast<std::size_t>(request->connections));
        break;
      case Request::What::Calm:
        for (Peer& peer : peers) peer.flood.reset();
        break;
      case Request::What::End:
        peers.clear();
        break;
    }
  }
}

// --- The house
// -------------------------------------------------------------------------------------

std::string configuration(int roviks, int port) {
  std::string text = "root .\nlog level 3\n";
  for (int id = 1; id <= roviks; ++id) {
    const std::string number = std::to_string(id);
    text += "rovik " + number + " device" + number + " generic_net\n";
    text += "  mode tcp\n  host 127.0.0.1\n  port " + std::to_string(port) + "\n  chopeol on\n";
    if (id % 2 == 0) {
      text += "  reg on\n";
      text += "  regin " + number + "_1_0 '^T=([0-9.]+)$' '\\1'\n";
      text += "  regin " + number + "_2_0 '^H=([0-9.]+)%$' '\\1'\n";
      text += "  regin " + number + "_3_0 '^STATE (ON|OFF)$' '\\1'\n";
    }
    if (static_cast<std::size_t>(id) <= kCounting + kFlooded)
      text += "  unparsedout off\n  luafile counting.lua\n  luaopen\n";
    else if (id % 5 == 0)
      text += "  luafile house.lua\n  luaopen\n";
    text += "  open\n";
  }
  return text;
}

// A file that grows.
class LogFile {
 public:
  explicit LogFile(std::string its_path) : path(std::move(its_path)) {}

  // Looks every millisecond.
  void await(const std::string& text) {
    const auto deadline = SteadyClock::now() + kPatience;
    while (!seen(text)) {
      if (SteadyClock::now() > deadline) throw std::runtime_error("the house does not start");
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  }

 private:
  bool seen(const std::string& text) {
    if (!in.is_open()) in.open(path);
    if (!in.is_open()) return false;
    in.clear();
    held.append(std::istreambuf_iterator<char>(in), {});
    const bool found = held.find(text) != std::string::npos;
    // The rest of what was looked through may be the beginning of the text.
    if (held.size() > text.size()) held.erase(0, held.size() - text.size());
    return found;
  }

  const std::string path;
  std::ifstream in;
  std::string held;
};

struct State {
  int running_and_open = 0;
  double sent = 0;  // messages of all roviks
  double dropped = 0;
};

class House {
 public:
  House(const Plan& its_plan, int port) : plan(its_plan) {
    folder.write("lua/house.lua", kScript);
    folder.write("lua/counting.lua", kCountingScript);
    config = folder.write("house.conf", configuration(plan.roviks, port));
  }

  // Milliseconds from the program's start to its word that all is up.
  double start() {
    std::error_code ignored;
    std::filesystem::remove(inFolder("log"), ignored);
    LogFile log(inFolder("log"));
    const auto begun = SteadyClock::now();
    program.emplace(words({"run", config, "--log-file", inFolder("log")}), inFolder("output"),
                    Program::Session::Own);
    log.await("house.conf: " + std::to_string(plan.roviks) + " roviks");
    return secondsSince(begun, SteadyClock::now()) * 1e3;
  }

  void stop() {
    program->terminate();
    const int status = program->wait();
    if (status != 0) throw std::runtime_error("drovane ended with " + std::to_string(status));
    program.reset();
  }

  // What the control socket says.
  State state() const {
    const drovane::Json reply = drovane::ControlClient(socketPath()).request(statusRequest());
    const cJSON* rovik = nullptr;
    State now;
    cJSON_ArrayForEach(rovik, cJSON_GetObjectItemCaseSensitive(reply.get(), "roviks")) {
      const auto field = [&](const char* name) {
        return cJSON_GetObjectItemCaseSensitive(rovik, name);
      };
      if (cJSON_IsTrue(field("running")) && cJSON_IsTrue(field("link_open")))
        ++now.running_and_open;
      now.sent += cJSON_GetNumberValue(field("out"));
      now.dropped += cJSON_GetNumberValue(field("dropped"));
    }
    return now;
  }

  // Milliseconds until an answer on the control socket is read and taken apart, many times.
  std::vector<double> requests() const {
    drovane::ControlClient client(socketPath());
    return samples(plan.requests, [&] { client.request(statusRequest()); });
  }

  struct Commands {
    std::vector<double> status;   // milliseconds until `drovane status` has printed and ended
    std::vector<double> nothing;  // the same of a program that does nothing
  };
  Commands commands() const {
    Commands times;
    samples(plan.commands, [&] {
      times.status.push_back(runFor(words({"status"}), inFolder("table")));
      times.nothing.push_back(runFor({"/bin/true"}, inFolder("output of nothing")));
    });
    return times;
  }

  // Of the table that was printed last.
  int linesOfTable() const {
    std::ifstream in(inFolder("table"));
    return static_cast<int>(std::count(std::istreambuf_iterator<char>(in), {}, '\n'));
  }

 private:
  std::string inFolder(const std::string& name) const { return folder.path() + "/" + name; }
  std::string socketPath() const { return inFolder("control"); }

  std::vector<std::string> words(const std::vector<std::string>& subcommand) const {
    std::vector<std::string> all{DROVANE_PROGRAM};
    all.insert(all.end(), subcommand.begin(), subcommand.end());
    all.insert(all.end(), {"--control", socketPath()});
    return all;
  }

  static double runFor(const std::vector<std::string>& command, const std::string& output) {
    const auto begun = SteadyClock::now();
    if (Program(command, output).wait() != 0)
      throw std::runtime_error(command.front() + " has failed");
    return secondsSince(begun, SteadyClock::now()) * 1e3;
  }

  static drovane::Json statusRequest() { return drovane::newRequest("status"); }

  template <typename Ask>
  static std::vector<double> samples(int count, Ask ask) {
    std::vector<double> milliseconds;
    const auto deadline = SteadyClock::now() + kLongestSeries;
    for (int i = 0; i < count && SteadyClock::now() < deadline; ++i) {
      const auto begun = SteadyClock::now();
      ask();
      milliseconds.push_back(secondsSince(begun, SteadyClock::now()) * 1e3);
      std::this_thread::sleep_for(kBetweenRequests);
    }
    return milliseconds;
  }

  const Plan plan;
  const TempFolder folder;
  std::string config;
  std::optional<Program> program;
};

// --- The start
// -------------------------------------------------------------------------------------

// Milliseconds until as many plain threads have connected.
double plainThreads(Child& peers, int port, int count) {
  peers.send(Request{Request::What::Accept, count});
  std::vector<drovane::Descriptor> sockets(static_cast<std::size_t>(count));
  std::vector<std::thread> threads;
  const auto begun = SteadyClock::now();
  for (drovane::Descriptor& socket : sockets)
    threads.emplace_back([&socket, port] { socket = connectTo(port); });
  for (std::thread& thread : threads) thread.join();
  const double milliseconds = secondsSince(begun, SteadyClock::now()) * 1e3;
  peers.send(Request{Request::What::End, 0});
  return milliseconds;
}

double startHouse(Child& peers, House& house, const Plan& plan, Report& report) {
  peers.send(Request{Request::What::Accept, plan.roviks});
  const double milliseconds = house.start();
  const int up = house.state().running_and_open;
  if (up != plan.roviks)
    report.fault("only " + std::to_string(up) + " roviks run and have a link after the start");
  return milliseconds;
}

void stopHouse(Child& peers, House& house) {
  house.stop();
  peers.send(Request{Request::What::End, 0});
}

Goal below(double milliseconds) { return {Goal::Relation::Below, milliseconds, Goal::Of::Figure}; }

void measureStarts(Child& peers, int port, House& house, const Plan& plan, Report& report) {
  Pairs starts;
  for (int i = 1; i <= plan.starts; ++i) {
    std::cerr << "house: start " << i << " of " << plan.starts << '\n';
    const double floor = plainThreads(peers, port, plan.roviks);
    starts.add(startHouse(peers, house, plan, report), floor);
    stopHouse(peers, house);
  }
  report.add({std::to_string(plan.roviks) + " roviks, start", median(starts.figure), "ms",
              median(starts.floor), starts.ratio(), below(1000)});
}

// --- The status
// ------------------------------------------------------------------------------------

struct Answers {
  std::vector<double> requests;
  House::Commands commands;
};

void addTimes(const std::string& name, const std::vector<double>& flooded,
              const std::vector<double>& floor, Report& report) {
  report.add({name + ", median", median(flooded), "ms", median(floor), std::nullopt, below(50)});
  report.add({name + ", 99 of 100 below", quantile(flooded, 0.99), "ms", quantile(floor, 0.99),
              std::nullopt, below(50)});
}

Answers answers(const House& house) { return {house.requests(), house.commands()}; }

struct FloodKind {
  std::string name;
  std::size_t first;         // of the links
  double lines_per_message;  // that they send
};

void measureFlood(Child& peers, const House& house, const FloodKind& kind, const Answers& silent,
                  Report& report) {
  std::cerr << "house: status in a flood, " << kind.name << '\n';
  peers.send(Request{Request::What::Flood, static_cast<int>(kind.first)});
  const State before = house.state();
  const auto begun = SteadyClock::now();
  const Answers flooded = answers(house);
  const State after = house.state();
  const double seconds = secondsSince(begun, SteadyClock::now());
  peers.send(Request{Request::What::Calm, 0});
  if (after.sent <= before.sent) report.fault("there was no flood");
  if (after.dropped > 0) report.fault("messages were dropped");
  report.add({kind.name + ", lines", (after.sent - before.sent) * kind.lines_per_message / seconds,
              "/s", std::nullopt, std::nullopt, std::nullopt});
  addTimes(kind.name + ", request", flooded.requests, silent.requests, report);
  addTimes(kind.name + ", drovane status", flooded.commands.status, flooded.commands.nothing,
           report);
}

void measureStatus(Child& peers, House& house, const Plan& plan, Report& report) {
  startHouse(peers, house, plan, report);
  std::cerr << "house: status in silence\n";
  const Answers silent = answers(house);
  if (house.linesOfTable() < plan.roviks) report.fault("a table without some of the roviks");
  measureFlood(peers, house, {"lines counted", kCounting, kLinesOfReport}, silent, report);
  measureFlood(peers, house, {"lines to all", kReporting, 1}, silent, report);
  stopHouse(peers, house);
}

int run(const Options& options) {
  const Plan plan = options.quick ? Plan{20, 1, 10, 3} : Plan{500, 5, 300, 150};
  allowDescriptors(static_cast<rlim_t>(2 * plan.roviks + 100));
  const Listener listener;
  Child peers([&listener](int channel) { serve(listener, channel); });
  House house(plan, listener.port);
  Report report("house", options);
  measureStarts(peers, listener.port, house, plan, report);
  measureStatus(peers, house, plan, report);
  return report.finish();
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
  return bench::runBenchmark(argc, argv, "Start and status of a large house", bench::run);
}
