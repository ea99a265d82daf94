// Lets a process that ends by _exit or is killed leave its coverage counters behind, which only
// exit does by itself.
#pragma once

// Has `writer` run once when the process ends in such a way. For the program and each library when
// it is loaded. Every program of ours has this, but a library may get into another one.
[[gnu::weak]] void writeOnExit(void (*writer)());
