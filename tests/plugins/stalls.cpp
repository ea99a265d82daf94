// A rovik that reads from pipes and waits there until something comes: "read PIPE" in the command,
// "tick PIPE" in the next tick of the timer, which comes at once.
#include <fcntl.h>
#include <unistd.h>

#include <string>

#include "Rovik.h"

namespace {

class Stalls : public Rovik {
 public:
  std::string interpretCmd(char** arg) override {
    if (arg[0] == nullptr || arg[1] == nullptr) return "";
    const std::string word = arg[0];
    if (word == "read") return readFrom(arg[1]);
    if (word != "tick") return "";
    pipe = arg[1];
    timer.set(TimeValue(0, 0), false);
    return "OK";
  }

  int selectTI() override {
    if (!pipe.empty()) readFrom(pipe);
    pipe.clear();
    return 0;
  }

 private:
  static std::string readFrom(const std::string& path) {
    const int file = ::open(path.c_str(), O_RDWR | O_CLOEXEC);  // does not wait for a writer
    char byte = 0;
    const bool came = ::read(file, &byte, 1) == 1;
    ::close(file);
    return came ? "OK" : "ERROR";
  }

  std::string pipe;
};

}  // namespace

extern "C" Rovik* maker() { return new Stalls; }
