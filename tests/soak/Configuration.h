// The part of the configuration that is made for the soak.
#pragma once

#include <string>
#include <vector>

#include "Neighbourhood.h"
#include "Plan.h"

namespace soak {

std::string ledgerConfiguration(const std::vector<Link>& links);
std::string linkConfiguration(const Peers& peers);

}  // namespace soak
