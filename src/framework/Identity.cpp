#include "Identity.h"

#include <utility>

namespace drovane {
namespace {

thread_local Identity set_aside;

}  // namespace

IdentityForConstruction::IdentityForConstruction(int id, std::string name) {
  set_aside = {id, std::move(name)};
}

IdentityForConstruction::~IdentityForConstruction() { set_aside = {}; }

const Identity& IdentityForConstruction::current() { return set_aside; }

}  // namespace drovane
