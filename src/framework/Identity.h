// The id and the name for the rovik that this thread is about to construct.
#pragma once

#include <string>

namespace drovane {

struct Identity {
  int id = 0;
  std::string name;
};

// maker() takes nothing, yet a constructor already logs with its id and name: whoever calls maker()
// sets both aside first, for this thread and the life of this object.
class IdentityForConstruction {
 public:
  IdentityForConstruction(int id, std::string name);
  ~IdentityForConstruction();
  IdentityForConstruction(const IdentityForConstruction&) = delete;
  IdentityForConstruction& operator=(const IdentityForConstruction&) = delete;

  // What was set aside; id 0 without a name when nothing was.
  static const Identity& current();
};

}  // namespace drovane
