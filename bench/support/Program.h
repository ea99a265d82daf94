// Another program that a benchmark starts.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace bench {

class Program {
 public:
  // Whose share of the processor it has where the kernel deals it out by session: the benchmark's,
  // as a command has its shell's, or its own, as a service has.
  enum class Session { Shared, Own };

  // arguments[0] is the file. What it prints and complains about goes to the file `output`, which
  // it begins anew. It is killed when the benchmark ends before it. Throws std::system_error.
  Program(std::vector<std::string> arguments, const std::string& output,
          Session session = Session::Shared);
  // Kills it if it still runs.
  ~Program();
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;

  void terminate() const;  // asks it to end
  // Waits for its end. The exit status, 127 when the file cannot be run; 128 and the signal's
  // number when one ended it.
  int wait();

 private:
  pid_t pid = -1;  // -1: it has ended
};

}  // namespace bench
