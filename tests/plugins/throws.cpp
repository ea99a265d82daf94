// A rovik that throws from every slot.
#include <stdexcept>
#include <string>

#include "Rovik.h"

namespace {

class Throws : public Rovik {
 public:
  Throws() { timer.set(TimeValue(0, 0), false); }
  std::string interpretCmd(char**) override { throw std::runtime_error("no command"); }
  int getDescription(cJSON*) override { throw std::runtime_error("no description"); }
  int selectMM(RovikMessage*) override { throw std::runtime_error("no message"); }
  int selectFD() override { throw std::runtime_error("no link"); }
  int selectTI() override { throw std::runtime_error("no timer"); }
};

}  // namespace

extern "C" Rovik* maker() { return new Throws; }
