// A plug-in whose maker fails.
#include <stdexcept>

#include "Rovik.h"

extern "C" Rovik* maker() { throw std::runtime_error("the device is on fire"); }
