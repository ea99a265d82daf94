// An event of a link, as the control socket describes it, for people and for recordings.
#pragma once

#include <cjson/cJSON.h>

#include <cstdint>
#include <optional>
#include <string>

#include "Recording.h"

namespace drovane {

struct TracedEvent {
  LinkSign sign = LinkSign::Opened;
  std::string bytes;
  std::int64_t microseconds = 0;  // since the trace was begun
  std::string time;               // of day, with milliseconds
};

// Nothing when the line is about something else.
std::optional<TracedEvent> tracedEvent(const cJSON* line);

struct TraceStyle {
  bool hex = false;
  bool colours = false;
};

// "02:46:13.123 < T=21.5\r\n", or with hex a line for each 16 bytes. Without an end of line.
std::string traceText(const TracedEvent& event, const TraceStyle& style);

}  // namespace drovane
