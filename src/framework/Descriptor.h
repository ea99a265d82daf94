// Owners of file descriptors.
#pragma once

#include <unistd.h>

#include <utility>

namespace drovane {

// Closes its descriptor at the end of its life. -1 when it holds none.
class Descriptor {
 public:
  Descriptor() = default;
  explicit Descriptor(int descriptor) : held(descriptor) {}
  ~Descriptor() { reset(); }
  Descriptor(Descriptor&& other) noexcept : held(other.release()) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    if (this != &other) reset(other.release());
    return *this;
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  int get() const { return held; }
  explicit operator bool() const { return held >= 0; }
  int release() { return std::exchange(held, -1); }
  void reset(int descriptor = -1) {
    if (held >= 0) ::close(held);
    held = descriptor;
  }

 private:
  int held = -1;
};

// Moves a descriptor of the framework's own to a number of FD_SETSIZE or above, so that the low
// numbers, the only ones that fit into a rovik's readfds, stay free for links. Where the
// descriptor limit does not allow it, the descriptor stays what it is.
Descriptor moveAboveLinks(Descriptor low);

}  // namespace drovane
