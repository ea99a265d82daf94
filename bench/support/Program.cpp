#include "support/Program.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace bench {
namespace {

constexpr int kCannotRun = 127;

[[noreturn]] void fail(const char* call) {
  throw std::system_error(errno, std::generic_category(), call);
}

// In the new process: nothing here may need memory.
[[noreturn]] void become(char* const* words, const char* output, Program::Session session) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (session == Program::Session::Own) setsid();
  const int in = open("/dev/null", O_RDONLY | O_CLOEXEC);
  const int out = open(output, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (dup2(in, STDIN_FILENO) < 0 || dup2(out, STDOUT_FILENO) < 0 || dup2(out, STDERR_FILENO) < 0)
    _exit(kCannotRun);
  execv(words[0], words);
  _exit(kCannotRun);
}

}  // namespace

Program::Program(std::vector<std::string> arguments, const std::string& output, Session session) {
  std::vector<char*> words;
  for (std::string& argument : arguments) words.push_back(argument.data());
  words.push_back(nullptr);
  pid = fork();
  if (pid < 0) fail("fork");
  if (pid == 0) become(words.data(), output.c_str(), session);
}

Program::~Program() {
  if (pid < 0) return;
  kill(pid, SIGKILL);
  waitpid(pid, nullptr, 0);
}

void Program::terminate() const {
  if (kill(pid, SIGTERM) != 0) fail("kill");
}

int Program::wait() {
  int state = 0;
  while (waitpid(pid, &state, 0) < 0)
    if (errno != EINTR) fail("waitpid");
  pid = -1;
  return WIFEXITED(state) ? WEXITSTATUS(state) : 128 + WTERMSIG(state);
}

}  // namespace bench
