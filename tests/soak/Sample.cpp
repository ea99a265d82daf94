#include "Sample.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>

namespace soak {
namespace {

std::string procFile(pid_t process, const char* name) {
  return "/proc/" + std::to_string(process) + '/' + name;
}

std::ptrdiff_t descriptorsOf(pid_t process) {
  const std::filesystem::directory_iterator listed(procFile(process, "fd"));
  return std::distance(begin(listed), end(listed));
}

// A number of /proc/PID/status.
double statusNumber(pid_t process, const std::string& field) {
  std::ifstream file(procFile(process, "status"));
  for (std::string line; std::getline(file, line);)
    if (line.starts_with(field + ':')) return std::stod(line.substr(field.size() + 1));
  throw std::runtime_error("no " + field + " of process " + std::to_string(process));
}

// Of the system's clock, in user mode and in the kernel: the 14th and 15th field, and the name
// before them may hold blanks.
double processorTicks(pid_t process) {
  std::ifstream file(procFile(process, "stat"));
  std::string text;
  std::getline(file, text);
  std::istringstream fields(text.substr(text.rfind(')') + 1));
  std::string skipped;
  for (int i = 3; i < 14; ++i) fields >> skipped;
  double user = 0;
  double kernel = 0;
  fields >> user >> kernel;
  return user + kernel;
}

constexpr double kMegabyte = 1024 * 1024;

}  // namespace

const std::vector<Quantity>& quantities() {
  static const std::vector<Quantity> kQuantities = {
      {"descriptors", [](const Sample& sample) { return sample.descriptors; }},
      {"links", [](const Sample& sample) { return sample.links; }},
      {"descriptors without links", [](const Sample& sample) { return sample.own(); }},
      {"threads", [](const Sample& sample) { return sample.threads; }},
      {"memory, MB", [](const Sample& sample) { return sample.resident_mb; }},
      {"memory in use, MB", [](const Sample& sample) { return sample.heap_mb; }},
      {"messages that wait", [](const Sample& sample) { return sample.queued; }},
      {"longest queue", [](const Sample& sample) { return sample.deepest; }},
      {"links held back", [](const Sample& sample) { return sample.held_back; }},
      {"messages sent per s", [](const Sample& sample) { return sample.sent; }},
      {"messages received per s", [](const Sample& sample) { return sample.received; }},
      {"processor, %", [](const Sample& sample) { return sample.processor; }},
      {"status answered in, ms", [](const Sample& sample) { return sample.answer_ms; }},
  };
  return kQuantities;
}

Sample Watcher::look() {
  const Status status = control.status();
  const auto now = Clock::now();
  const double ticks = processorTicks(process);
  const double seconds = std::chrono::duration<double>(now - before).count();
  const auto rate = [seconds](auto count) { return static_cast<double>(count) / seconds; };
  Sample sample;
  sample.at = std::chrono::duration<double>(now - begun).count();
  sample.descriptors = static_cast<double>(descriptorsOf(process));
  sample.links = static_cast<double>(status.links);
  sample.threads = statusNumber(process, "Threads");
  sample.resident_mb = statusNumber(process, "RssAnon") * 1024 / kMegabyte;
  sample.heap_mb = std::stod(control.command("ledger", "heap")) / kMegabyte;
  peak_mb = std::max(peak_mb, sample.heap_mb);
  sample.peak_mb = peak_mb;
  sample.queued = static_cast<double>(status.queued);
  sample.deepest = static_cast<double>(status.deepest);
  sample.held_back = static_cast<double>(status.held_back);
  sample.received = rate(status.received - status_before.received);
  sample.sent = rate(status.sent - status_before.sent);
  sample.processor = rate(ticks - ticks_before) * 100 / static_cast<double>(sysconf(_SC_CLK_TCK));
  sample.answer_ms = static_cast<double>(status.answered_in.count());
  sample.dropped = static_cast<double>(status.dropped);
  sample.undeliverable = static_cast<double>(status.undeliverable);
  sample.warnings = static_cast<double>(status.warnings);
  before = now;
  status_before = status;
  ticks_before = ticks;
  return sample;
}

std::string csv(const std::vector<Sample>& samples) {
  std::ostringstream lines;
  lines << "seconds";
  for (const Quantity& quantity : quantities()) lines << ",\"" << quantity.name << '"';
  for (const Sample& sample : samples) {
    lines << '\n' << sample.at;
    for (const Quantity& quantity : quantities()) lines << ',' << quantity.of(sample);
  }
  lines << '\n';
  return lines.str();
}

std::string lineOf(const Sample& sample) {
  std::array<char, 256> line;
  std::snprintf(line.data(), line.size(),
                "%6.0f s: %.0f links, %.0f descriptors, %.0f threads, %.1f MB (%.1f in use), "
                "%.0f wait, %.0f sent/s, %.0f received/s, %.0f dropped, processor %.0f %%",
                sample.at, sample.links, sample.descriptors, sample.threads, sample.resident_mb,
                sample.heap_mb, sample.queued, sample.sent, sample.received, sample.dropped,
                sample.processor);
  return line.data();
}

}  // namespace soak
