// A process that has run out of descriptors, or of those that fit into an fd_set.
#pragma once

#include <sys/resource.h>
#include <sys/select.h>
#include <unistd.h>

#include <algorithm>
#include <stdexcept>
#include <utility>
#include <vector>

#include "framework/Descriptor.h"

// The number that the next descriptor gets: two that are equal mean that nothing was leaked.
inline int nextDescriptor() { return drovane::Descriptor(::dup(0)).get(); }

// The limit of open descriptors while a test needs another one.
class DescriptorLimit {
 public:
  explicit DescriptorLimit(rlim_t wanted) {
    getrlimit(RLIMIT_NOFILE, &before);
    const rlimit now{wanted, before.rlim_max};
    set = setrlimit(RLIMIT_NOFILE, &now) == 0;
  }
  ~DescriptorLimit() { setrlimit(RLIMIT_NOFILE, &before); }
  DescriptorLimit(const DescriptorLimit&) = delete;
  DescriptorLimit& operator=(const DescriptorLimit&) = delete;

  bool isSet() const { return set; }

 private:
  rlimit before{};
  bool set = false;
};

// Takes every descriptor below FD_SETSIZE for as long as it lives.
class LowDescriptorsTaken {
 public:
  LowDescriptorsTaken() {
    while (possible()) {
      drovane::Descriptor next(::dup(0));
      if (!next) throw std::runtime_error("no more descriptors");
      if (next.get() >= FD_SETSIZE) return;
      taken.push_back(std::move(next));
    }
  }
  LowDescriptorsTaken(const LowDescriptorsTaken&) = delete;
  LowDescriptorsTaken& operator=(const LowDescriptorsTaken&) = delete;

  // Not when the hard limit is below FD_SETSIZE.
  bool possible() const { return raised.isSet(); }

 private:
  static rlim_t enough() {
    rlimit now{};
    getrlimit(RLIMIT_NOFILE, &now);
    return std::max<rlim_t>(now.rlim_cur, FD_SETSIZE + 64);
  }

  DescriptorLimit raised{enough()};
  std::vector<drovane::Descriptor> taken;
};
