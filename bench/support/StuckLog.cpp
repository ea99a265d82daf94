#include "support/StuckLog.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <fstream>
#include <string_view>
#include <system_error>
#include <thread>
#include <utility>

#include "Drovane.h"
#include "framework/Descriptor.h"
#include "framework/Log.h"
#include "support/Usage.h"

namespace bench {
namespace {

constexpr std::chrono::seconds kPatience{20};
// More than the log's queue and the pipe hold together.
constexpr std::uint64_t kTooMany = 30'000;
// Of the lines that wait then, so many that what is left in the queue is little.
constexpr std::uint64_t kMostOfThem = 8'192;

enum class Step : int { Open, Drain };

// "… N log lines lost in a flood": N.
std::uint64_t lossIn(std::string_view line) {
  static constexpr std::string_view kReport = " log lines lost in a flood";
  if (!line.ends_with(kReport)) return 0;
  line.remove_suffix(kReport.size());
  return std::stoull(std::string(line.substr(line.rfind(' ') + 1)));
}

// Says when most of what waits is read, and at the end what it was.
LogTotals drain(std::ifstream& pipe, int channel) {
  LogTotals totals{};
  std::uint64_t read = 0;
  for (std::string line; std::getline(pipe, line);) {
    const std::uint64_t lost = lossIn(line);
    ++(lost > 0 ? totals.reports : totals.written);
    totals.lost += lost;
    if (++read == kMostOfThem) sendRecord(channel, totals);
  }
  return totals;
}

// Holds the pipe's reading end, so that it can be opened for writing, and reads when it is told to.
void hold(const std::string& path, int channel) {
  while (receiveRecord<Step>(channel)) {
    const drovane::Descriptor end(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    if (!end) throw std::system_error(errno, std::generic_category(), "open of the pipe");
    sendRecord(channel, Step::Open);
    if (!receiveRecord<Step>(channel)) return;
    std::ifstream pipe(path);
    sendRecord(channel, drain(pipe, channel));
  }
}

std::string pathIn(const TempFolder& folder) { return folder.path() + "/pipe"; }

}  // namespace

StuckLog::StuckLog() : reader([this](int channel) { hold(pathIn(folder), channel); }) {
  if (mkfifo(pathIn(folder).c_str(), 0600) != 0)
    throw std::system_error(errno, std::generic_category(), "mkfifo");
}

StuckLog::~StuckLog() {
  if (!opened) return;
  drain();
  close();
}

void StuckLog::open() {
  // As in the program: should the reader die, the log complains.
  std::signal(SIGPIPE, SIG_IGN);
  reader.send(Step::Open);
  reader.receive<Step>();
  lines = 0;
  drovane::Log::global().openFile(pathIn(folder));
  drovane::Log::global().observe(
      [this](const drovane::LogLine&) { lines.fetch_add(1, std::memory_order_relaxed); });
  opened = true;
  draining = false;
}

void StuckLog::close() {
  drovane::Log::global().close();
  drovane::Log::global().observe(nullptr);
  opened = false;
}

void StuckLog::drain() {
  if (!std::exchange(draining, true)) reader.send(Step::Drain);
}

bool StuckLog::awaitLoss() const {
  const auto deadline = SteadyClock::now() + kPatience;
  while (logged() < kTooMany && SteadyClock::now() < deadline) std::this_thread::yield();
  return logged() >= kTooMany;
}

LogTotals StuckLog::finish() {
  drain();
  reader.receive<LogTotals>();
  Drovane::global.log(LOG_LEVEL_ERROR, drovane::kFrameworkId, drovane::kFrameworkName,
                      "the flood is over\n");
  close();
  return reader.receive<LogTotals>();
}

}  // namespace bench
