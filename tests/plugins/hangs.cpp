// A rovik that never comes back from the command "hang", and never answers a request.
#include <unistd.h>

#include <string>

#include "Drovane.h"
#include "Rovik.h"

namespace {

class Hangs : public Rovik {
 public:
  std::string interpretCmd(char** arg) override {
    if (arg[0] == nullptr) return "";
    if (std::string(arg[0]) == "hang") hang();
    return std::string(arg[0]) == "mode" ? "OK" : "";
  }

 private:
  [[noreturn]] void hang() {
    Drovane::global.log(LOG_LEVEL_INFO, id, name, "hangs now\n");
    while (true) ::pause();
  }
};

}  // namespace

extern "C" Rovik* maker() { return new Hangs; }
