// What the loader looks for in a plug-in.
#include "GenericNet.h"

extern "C" Rovik* maker() { return new GenericNet; }
