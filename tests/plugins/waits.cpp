// A rovik whose command "wait FILE" comes back when there is such a file, whatever anybody asks for
// meanwhile.
#include <poll.h>
#include <unistd.h>

#include <string>

#include "Drovane.h"
#include "Rovik.h"

namespace {

class Waits : public Rovik {
 public:
  std::string interpretCmd(char** arg) override {
    if (arg[0] == nullptr || std::string(arg[0]) != "wait" || arg[1] == nullptr) return "";
    Drovane::global.log(LOG_LEVEL_INFO, id, name, "waits now\n");
    while (::access(arg[1], F_OK) != 0) ::poll(nullptr, 0, 2);
    return "OK";
  }
};

}  // namespace

extern "C" Rovik* maker() { return new Waits; }
