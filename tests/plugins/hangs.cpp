// A rovik that never comes back from the command "hang", and never answers a request.
#include <unistd.h>

#include <string>

#include "Rovik.h"

namespace {

class Hangs : public Rovik {
 public:
  std::string interpretCmd(char** arg) override {
    if (arg[0] == nullptr) return "";
    while (std::string(arg[0]) == "hang") ::pause();
    return std::string(arg[0]) == "mode" ? "OK" : "";
  }
};

}  // namespace

extern "C" Rovik* maker() { return new Hangs; }
