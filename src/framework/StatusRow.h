// One rovik in the answer to "status".
#pragma once

#include <string>

#include "House.h"

namespace drovane {

// JSON with everything that the status display shows of it; a brief one without the description,
// and without flags that are false, counts that are 0 and texts that are empty. Throws
// std::bad_alloc. Control thread, while it looks at the member.
std::string statusRow(const House::Member& of, bool brief);

}  // namespace drovane
