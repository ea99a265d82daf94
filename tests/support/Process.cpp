#include "Process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <system_error>
#include <utility>

#include "Eventually.h"

namespace {

using drovane::Descriptor;

void check(int error, const char* call) {
  if (error != 0) throw std::system_error(error, std::generic_category(), call);
}

struct Pipe {
  Descriptor read_end;
  Descriptor write_end;

  Pipe() {
    std::array<int, 2> ends{};
    check(::pipe2(ends.data(), O_CLOEXEC) == 0 ? 0 : errno, "pipe2");
    read_end.reset(ends[0]);
    write_end.reset(ends[1]);
  }
};

std::vector<char*> pointers(std::vector<std::string>& texts) {
  std::vector<char*> result;
  for (std::string& text : texts) result.push_back(text.data());
  result.push_back(nullptr);
  return result;
}

std::vector<std::string> environmentWith(const Process::Environment& extra) {
  std::vector<std::string> entries;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    const std::string text = *entry;
    if (!extra.contains(text.substr(0, text.find('=')))) entries.push_back(text);
  }
  for (const auto& [name, value] : extra) entries.push_back(name + '=' + value);
  return entries;
}

bool readBlock(int descriptor, std::string& text) {
  std::array<char, 65536> block;
  const ssize_t count = ::read(descriptor, block.data(), block.size());
  if (count > 0) text.append(block.data(), static_cast<std::size_t>(count));
  return count > 0;
}

}  // namespace

Process::Process(std::vector<std::string> arguments, const Environment& extra) {
  Pipe out_pipe;
  Pipe err_pipe;
  posix_spawn_file_actions_t actions;
  check(posix_spawn_file_actions_init(&actions), "posix_spawn_file_actions_init");
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, out_pipe.write_end.get(), STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, err_pipe.write_end.get(), STDERR_FILENO);
  std::vector<std::string> environment = environmentWith(extra);
  const int error = posix_spawnp(&child, arguments[0].c_str(), &actions, nullptr,
                                 pointers(arguments).data(), pointers(environment).data());
  posix_spawn_file_actions_destroy(&actions);
  check(error, "posix_spawnp");
  out.end = std::move(out_pipe.read_end);
  err.end = std::move(err_pipe.read_end);
}

Process::~Process() {
  if (status) return;
  ::kill(child, SIGKILL);
  ::waitpid(child, nullptr, 0);
}

void Process::signal(int number) const { check(::kill(child, number) == 0 ? 0 : errno, "kill"); }

void Process::readSome(int milliseconds) {
  std::array<pollfd, 2> watched = {{{out.end.get(), POLLIN, 0}, {err.end.get(), POLLIN, 0}}};
  if (::poll(watched.data(), watched.size(), milliseconds) <= 0) return;
  if (watched[0].revents != 0 && !readBlock(out.end.get(), out.text)) out.end.reset();
  if (watched[1].revents != 0 && !readBlock(err.end.get(), err.text)) err.end.reset();
}

bool Process::waitFor(const Stream& stream, const std::string& text) {
  return eventually([&] {
    readSome(10);
    return stream.text.find(text) != std::string::npos;
  });
}

bool Process::waitForOutput(const std::string& text) { return waitFor(out, text); }
bool Process::waitForErrors(const std::string& text) { return waitFor(err, text); }

std::optional<int> Process::wait() {
  eventually([&] {
    readSome(1);
    if (status) return !out.end && !err.end;
    int state = 0;
    if (::waitpid(child, &state, WNOHANG) != child) return false;
    status = WIFEXITED(state) ? WEXITSTATUS(state) : 128 + WTERMSIG(state);
    return false;
  });
  return status;
}

const std::string& Process::output() {
  readSome(0);
  return out.text;
}

const std::string& Process::errors() {
  readSome(0);
  return err.text;
}

Finished runToEnd(std::vector<std::string> arguments, const Process::Environment& extra) {
  Process process(std::move(arguments), extra);
  Finished finished;
  finished.status = process.wait().value_or(-1);
  finished.output = process.output();
  finished.errors = process.errors();
  return finished;
}
