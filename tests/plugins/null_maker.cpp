// A plug-in whose maker has nothing to give.
#include "Rovik.h"

extern "C" Rovik* maker() { return nullptr; }
