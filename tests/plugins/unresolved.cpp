// A plug-in that needs a function which nobody has.
#include "Rovik.h"

extern "C" Rovik* function_that_nobody_has();

extern "C" Rovik* maker() { return function_that_nobody_has(); }
