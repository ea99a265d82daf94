#include "Precedence.h"

#include <sys/resource.h>

namespace drovane {
namespace {

constexpr int kSteps = 10;
constexpr id_t kThisThread = 0;

bool setNice(int value) { return ::setpriority(PRIO_PROCESS, kThisThread, value) == 0; }

}  // namespace

Precedence::Precedence()
    : usual(::getpriority(PRIO_PROCESS, kThisThread)), raised(setNice(usual - kSteps)) {}

Precedence::~Precedence() {
  if (raised) setNice(usual);
}

Precedence::Waived::Waived(const Precedence& of) : precedence(of) {
  if (precedence.raised) setNice(precedence.usual);
}

Precedence::Waived::~Waived() {
  if (precedence.raised) setNice(precedence.usual - kSteps);
}

}  // namespace drovane
