#include "rivals/Pipeline.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <fstream>
#include <iostream>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace bench {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// How often the memory of programs that end by themselves is looked at: the peak cannot be read
// any more when they have.
constexpr milliseconds kLook{20};

int checked(int result, const char* call) {
  if (result < 0) throw std::system_error(errno, std::generic_category(), call);
  return result;
}

[[noreturn]] void become(const Words& words, int input, int output) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  std::vector<char*> arguments;
  for (const std::string& word : words) arguments.push_back(const_cast<char*>(word.c_str()));
  arguments.push_back(nullptr);
  if (dup2(input, STDIN_FILENO) >= 0 && dup2(output, STDOUT_FILENO) >= 0)
    execv(arguments.front(), arguments.data());
  std::cerr << words.front() << ": " << std::generic_category().message(errno) << std::endl;
  _exit(127);
}

double secondsOf(const timeval& time) {
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) * 1e-6;
}

// Milliseconds for poll, never more than `most`.
int leftUntil(Clock::time_point deadline, milliseconds most) {
  const auto left = std::chrono::duration_cast<milliseconds>(deadline - Clock::now());
  return static_cast<int>(std::min(std::max(left, milliseconds{0}), most).count());
}

struct Pipe {
  drovane::Descriptor reading;
  drovane::Descriptor writing;
};

Pipe newPipe() {
  std::array<int, 2> ends{};
  checked(pipe2(ends.data(), O_CLOEXEC), "pipe2");
  return {drovane::Descriptor(ends[0]), drovane::Descriptor(ends[1])};
}

}  // namespace

Process::Process(const Words& words, int input, int output)
    : program(words.front()), pid(checked(fork(), "fork")) {
  if (pid == 0) become(words, input, output);
  // The library's function has no C linkage in glibc 2.36.
  handle.reset(checked(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)), "pidfd_open"));
}

Process::~Process() {
  if (pid < 0) return;
  kill(pid, SIGKILL);
  waitpid(pid, nullptr, 0);
}

double Process::cpuSeconds() const {
  clockid_t clock{};
  timespec used{};
  if (const int error = clock_getcpuclockid(pid, &clock); error != 0)
    throw std::system_error(error, std::generic_category(), "clock_getcpuclockid: " + program);
  checked(clock_gettime(clock, &used), "clock_gettime");
  return static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) * 1e-9;
}

void Process::terminate() const { checked(kill(pid, SIGTERM), "kill"); }

// Not ru_maxrss, which starts with what the forking process had.
void Process::noteMemory() {
  std::ifstream in("/proc/" + std::to_string(pid) + "/status");
  for (std::string word; in >> word;)
    if (word == "VmHWM:") in >> peak_kilobytes;
}

double Process::awaitEnd(milliseconds patience) {
  pollfd ended{handle.get(), POLLIN, 0};
  if (checked(poll(&ended, 1, static_cast<int>(patience.count())), "poll") == 0)
    throw std::runtime_error(program + " does not end");
  int status = 0;
  rusage used{};
  checked(wait4(std::exchange(pid, -1), &status, 0, &used), "wait4");
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
    throw std::runtime_error(program + " has failed, wait status " + std::to_string(status));
  return secondsOf(used.ru_utime) + secondsOf(used.ru_stime);
}

Pipeline::Pipeline(const std::vector<Words>& programs)
    : output(checked(open("/dev/null", O_RDONLY | O_CLOEXEC), "open")) {
  for (const Words& words : programs) {
    Pipe pipe = newPipe();
    processes.emplace_back(words, output.get(), pipe.writing.get());
    output = std::move(pipe.reading);
  }
}

double Pipeline::cpuSeconds() const {
  double sum = 0;
  for (const Process& process : processes) sum += process.cpuSeconds();
  return sum;
}

std::int64_t Pipeline::peakKilobytes() const {
  std::int64_t sum = 0;
  for (const Process& process : processes) sum += process.peakKilobytes();
  return sum;
}

void Pipeline::noteMemory() {
  for (Process& process : processes) process.noteMemory();
}

Pipeline::Reading Pipeline::read(std::string& text, Clock::time_point deadline) {
  pollfd waiting{output.get(), POLLIN, 0};
  while (checked(poll(&waiting, 1, leftUntil(deadline, kLook)), "poll") == 0) {
    if (Clock::now() >= deadline) return Reading::Late;
    noteMemory();
  }
  std::array<char, 4096> buffer{};
  const ssize_t got = ::read(output.get(), buffer.data(), buffer.size());
  if (got < 0) throw std::system_error(errno, std::generic_category(), "read");
  text.append(buffer.data(), static_cast<std::size_t>(got));
  return got > 0 ? Reading::More : Reading::Ended;
}

std::string Pipeline::readLine(milliseconds patience) {
  const auto deadline = Clock::now() + patience;
  std::string line;
  while (line.find('\n') == std::string::npos && read(line, deadline) == Reading::More) continue;
  return line;
}

std::string Pipeline::readRest(milliseconds patience) {
  const auto deadline = Clock::now() + patience;
  std::string rest;
  while (true) {
    const Reading reading = read(rest, deadline);
    if (reading == Reading::Ended) return rest;
    if (reading == Reading::Late) throw std::runtime_error("its output does not end");
  }
}

void Pipeline::terminate() const {
  for (const Process& process : processes) process.terminate();
}

double Pipeline::awaitEnd(milliseconds patience) {
  double sum = 0;
  for (Process& process : processes) sum += process.awaitEnd(patience);
  return sum;
}

}  // namespace bench
