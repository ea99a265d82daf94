// Where and when figures were measured.
#pragma once

#include "framework/MessageJson.h"

namespace bench {

// A new document of results: the date, the machine, its load, and an empty array "figures".
drovane::Json newResults();

}  // namespace bench
