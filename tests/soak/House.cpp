#include "House.h"

#include <signal.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <set>
#include <stdexcept>

#include "Configuration.h"
#include "support/Eventually.h"

namespace soak {
namespace {

namespace fs = std::filesystem;

const char kExample[] = DROVANE_SOURCE_DIR "/examples/house";
const char kScripts[] = DROVANE_SOURCE_DIR "/tests/soak/lua";
const char kConfiguration[] = "house.conf";
const char kControl[] = "control";
const char kLog[] = "log";

// The promise is five seconds; one more is for a slow machine.
constexpr std::chrono::seconds kEndsWithin{6};

std::string contentOf(const std::string& path) {
  std::ifstream file(path);
  if (!file) throw std::runtime_error("cannot read " + path);
  return {std::istreambuf_iterator<char>(file), {}};
}

// The last word of a device's greeting: a port or a path.
std::string placeOf(Process& device) {
  const std::string greeting = device.output();
  const std::size_t begin = greeting.rfind(' ') + 1;
  return greeting.substr(begin, greeting.find('\n') - begin);
}

// In a session of its own, so that Ctrl-C reaches the soak only.
std::vector<std::string> apart(std::vector<std::string> line) {
  line.insert(line.begin(), "setsid");
  return line;
}

bool answers(const std::string& control, std::unique_ptr<Control>& connection) {
  try {
    if (connection == nullptr) connection = std::make_unique<Control>(control);
    const Status now = connection->status();
    return now.running == now.roviks;
  } catch (const std::system_error&) {
    return false;
  }
}

}  // namespace

House::House(const std::vector<Link>& links, Neighbourhood& neighbours,
             const std::string& its_folder)
    : folder(its_folder),
      boiler(device("boiler", {"--port", "0", "--interval", "0.5"})),
      meter(device("meter", {"--link", folder + "/meter", "--interval", "0.5"})),
      panel(device("panel", {"--port", "0", "--interval", "0.5"})) {
  copyScripts();
  std::ofstream(folder + '/' + kConfiguration)
      << furnished() << ledgerConfiguration(links)
      << neighbours.with([](const Peers& peers) { return linkConfiguration(peers); });
  drovane = std::make_unique<Process>(
      apart({DROVANE_PROGRAM, "run", folder + '/' + kConfiguration, "--plugins",
             DROVANE_TEST_PLUGINS, "--control", folder + '/' + kControl, "--log-level", "2",
             "--log-file", folder + '/' + kLog}));
  if (!eventually([&] { return answers(folder + '/' + kControl, connection); },
                  std::chrono::seconds(60)))
    throw std::runtime_error("the house did not start: " + drovane->errors());
}

House::Device House::device(const char* name, const std::vector<std::string>& options) const {
  std::vector<std::string> line = {DROVANE_DEVICES + std::string("/") + name};
  line.insert(line.end(), options.begin(), options.end());
  auto started = std::make_unique<Process>(apart(line));
  if (!started->waitForOutput("\n"))
    throw std::runtime_error(std::string(name) + " did not start: " + started->errors());
  return started;
}

// The example house, with its devices where they really are.
std::string House::furnished() const {
  std::string text = contentOf(kExample + std::string("/house.conf"));
  const auto place = [&text](const std::string& part, const std::string& where) {
    const std::size_t at = text.find(part);
    if (at == std::string::npos) throw std::runtime_error("house.conf has no " + part);
    text.replace(at, part.size(), where);
  };
  place("port 7001\n", "port " + placeOf(*boiler) + '\n');
  place("tty /tmp/drovane-meter\n", "tty " + placeOf(*meter) + '\n');
  place("port 7002\n", "port " + placeOf(*panel) + '\n');
  return text;
}

void House::copyScripts() const {
  for (const std::string& from : {kExample + std::string("/lua"), std::string(kScripts)})
    fs::copy(from, folder + "/lua", fs::copy_options::recursive);
}

void House::drain() {
  for (const Device& each :
       {std::cref(boiler), std::cref(meter), std::cref(panel), std::cref(drovane)}) {
    each->output();
    each->errors();
  }
}

std::vector<std::string> House::end() {
  std::vector<std::string> wrong;
  connection.reset();
  const auto begun = std::chrono::steady_clock::now();
  drovane->signal(SIGTERM);
  const std::optional<int> status = drovane->wait();
  const auto took = std::chrono::steady_clock::now() - begun;
  if (status != 0)
    wrong.push_back("drovane ended with status " + std::to_string(status.value_or(-1)) +
                    ", expected 0: " + drovane->errors());
  if (took > kEndsWithin)
    wrong.push_back("drovane needed " +
                    std::to_string(std::chrono::duration_cast<std::chrono::seconds>(took).count()) +
                    " s to end, expected at most 5");
  for (Process* const each : {boiler.get(), meter.get(), panel.get()}) {
    each->signal(SIGTERM);
    if (each->wait() != 0) wrong.push_back("a simulated device did not end in good order");
  }
  for (const std::string& file : leftBehind()) wrong.push_back("left behind: " + file);
  return wrong;
}

std::vector<std::string> House::leftBehind() const {
  const std::set<std::string> known = {kConfiguration, kLog, "lua", "lines"};
  std::vector<std::string> files;
  for (const auto& entry : fs::directory_iterator(folder)) {
    const std::string name = entry.path().filename();
    if (!known.contains(name) && !name.starts_with(kLog + std::string("."))) files.push_back(name);
  }
  return files;
}

}  // namespace soak
