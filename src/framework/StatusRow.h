// One rovik in the answer to "status".
#pragma once

#include "House.h"
#include "MessageJson.h"

namespace drovane {

// A new object with everything that the status display shows of it. Control thread, while it looks
// at the member.
Json statusRow(const House::Member& of);

}  // namespace drovane
