// Which messages somebody who watches wants to see.
#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "RovikMessage.h"

namespace drovane {

// What is empty lets everything through; a message is shown when it passes all three.
struct WatchFilter {
  struct Address {
    std::uint32_t id;
    std::string name;
  };

  std::vector<Address> roviks;    // the sender or the receiver is one of these
  std::set<std::uint32_t> types;  // MessageTypes
  std::vector<std::string> keys;  // the key matches one of these patterns, fnmatch(3)

  bool passes(const RovikMessage& msg) const;
};

}  // namespace drovane
