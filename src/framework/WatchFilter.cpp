#include "WatchFilter.h"

#include <fnmatch.h>

#include <algorithm>
#include <optional>

#include "MessageFields.h"

namespace drovane {
namespace {

template <typename Record>
std::string keyOf(const RovikMessage& msg) {
  const auto& keyed = static_cast<const Record&>(msg);
  return keyText({keyed.network_id, keyed.node_id, keyed.value_id});
}

// None for the kinds that carry no key.
std::optional<std::string> messageKey(const RovikMessage& msg) {
  if (msg.type == MM_DATA) return keyOf<MMData>(msg);
  if (msg.type == MM_DATA_REQUEST) return keyOf<MMDataRequest>(msg);
  if (msg.type == MM_ACTUATOR_REQUEST) return keyOf<MMActuatorRequest>(msg);
  return std::nullopt;
}

bool concerns(const RovikMessage& msg, const WatchFilter::Address& rovik) {
  if (msg.src == rovik.id || msg.dst == rovik.id) return true;
  return msg.dst == NO_DESTINATION && !msg.dst_s.empty() && msg.dst_s == rovik.name;
}

bool matches(const std::optional<std::string>& key, const std::string& pattern) {
  return key && ::fnmatch(pattern.c_str(), key->c_str(), 0) == 0;
}

}  // namespace

bool WatchFilter::passes(const RovikMessage& msg) const {
  if (!types.empty() && !types.contains(msg.type)) return false;
  if (!roviks.empty() && std::none_of(roviks.begin(), roviks.end(),
                                      [&](const Address& rovik) { return concerns(msg, rovik); }))
    return false;
  if (keys.empty()) return true;
  const auto key = messageKey(msg);
  return std::any_of(keys.begin(), keys.end(),
                     [&](const std::string& pattern) { return matches(key, pattern); });
}

}  // namespace drovane
