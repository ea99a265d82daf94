// What the running drovane tells about itself.
#pragma once

#include <chrono>
#include <cstdint>
#include <initializer_list>
#include <string>

#include "framework/MessageJson.h"
#include "support/UnixClient.h"

namespace soak {

// A number of a JSON object, or 0.
std::int64_t numberIn(const cJSON* object, const char* field);
bool trueIn(const cJSON* object, const char* field);
std::string textIn(const cJSON* object, const char* field);

// Sums over all roviks, unless they say otherwise.
struct Status {
  std::int64_t roviks = 0;
  std::int64_t running = 0;
  std::int64_t links = 0;
  std::int64_t held_back = 0;
  std::int64_t queued = 0;
  std::int64_t deepest = 0;  // the longest queue
  std::int64_t received = 0;
  std::int64_t sent = 0;
  std::int64_t dropped = 0;
  std::int64_t undeliverable = 0;
  std::int64_t warnings = 0;
  std::chrono::milliseconds answered_in{};
};

// Every operation throws when the answer does not come in time or is a refusal.
class Control {
 public:
  explicit Control(const std::string& path) : client(path) {}

  Status status();
  drovane::Json statusRows();
  // The reply of a rovik.
  std::string command(const std::string& rovik, const std::string& word);

 private:
  drovane::Json ask(const std::string& request);

  UnixClient client;
};

}  // namespace soak
