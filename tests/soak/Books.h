// The books at the end: what each peer has said against what the ledger has got, and what the
// ledger and the scripts have sent against what the peers have heard.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "Control.h"
#include "Neighbourhood.h"

namespace soak {

// What the scripts said when they were told to rest: the number of their last line or request.
using LastWords = std::map<std::string, std::string>;

// Every difference, in words. None: nothing was lost, doubled or put out of order.
std::vector<std::string> differences(const Peers& peers, const cJSON* ledger,
                                     const LastWords& words);

// What the peers have done, in words: how much there was to get lost.
std::string deeds(const Peers& peers);

// What should have happened and has not: a load that does not press proves nothing.
std::vector<std::string> omissions(const Peers& peers);

}  // namespace soak
