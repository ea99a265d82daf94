// A plug-in whose maker throws what is no exception of the standard library.
#include "Rovik.h"

extern "C" Rovik* maker() { throw 5; }
