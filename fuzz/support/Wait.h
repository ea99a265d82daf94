// Waiting for a descriptor.
#pragma once

namespace fuzzing {

// True when one of the events of poll(2) is there within so many milliseconds. The alarm by which
// libFuzzer watches the time interrupts every call that waits: the wait begins anew then.
bool await(int descriptor, short events, int milliseconds);

}  // namespace fuzzing
