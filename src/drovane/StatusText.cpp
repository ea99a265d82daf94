#include "StatusText.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <iostream>

#include "RovikUtil.h"
#include "Terminal.h"
#include "framework/MessageJson.h"

namespace drovane {
namespace {

constexpr std::size_t kColumns = 80;
constexpr std::size_t kLeastColumns = 20;  // behind a long label
constexpr double kMinute = 60;
constexpr double kHour = 60 * kMinute;
constexpr double kDay = 24 * kHour;

}  // namespace

std::string statusText(const cJSON* object, const char* field) {
  std::string value;
  readText(object, field, value);
  return printable(value);
}

double statusNumber(const cJSON* object, const char* field) {
  const cJSON* item = cJSON_GetObjectItemCaseSensitive(object, field);
  return cJSON_IsNumber(item) ? item->valuedouble : 0;
}

bool statusFlag(const cJSON* object, const char* field) {
  return cJSON_IsTrue(cJSON_GetObjectItemCaseSensitive(object, field)) != 0;
}

bool hasField(const cJSON* object, const char* field) {
  return cJSON_GetObjectItemCaseSensitive(object, field) != nullptr;
}

std::string statusCount(const cJSON* object, const char* field) {
  constexpr double kMost = 1e18;  // whatever the other side says, it fits
  double value = statusNumber(object, field);
  const char* unit = "";
  for (const char* const next : {"k", "M", "G", "T", "P"}) {
    if (value < 1e6) break;
    value = std::floor(value / 1000);
    unit = next;
  }
  return std::to_string(static_cast<std::int64_t>(std::clamp(value, -kMost, kMost))) + unit;
}

std::string linkText(const cJSON* row) {
  if (!statusFlag(row, "running")) return statusFlag(row, "starting") ? "starts" : "stopped";
  if (statusFlag(row, "held_back")) return "waits";
  return statusFlag(row, "link_open") ? "open" : "closed";
}

// Two of a unit are still told in the smaller one.
std::string ageText(double seconds) {
  seconds = std::max(seconds, 0.0);
  if (seconds < 9.95) return RovikUtil::vsnprintftostr("%.1f s", seconds);
  if (seconds < 2 * kMinute) return RovikUtil::vsnprintftostr("%.0f s", seconds);
  if (seconds < 2 * kHour)
    return RovikUtil::vsnprintftostr("%.0f min", std::floor(seconds / kMinute));
  if (seconds < 2 * kDay) return RovikUtil::vsnprintftostr("%.0f h", std::floor(seconds / kHour));
  return RovikUtil::vsnprintftostr("%.0f d", std::floor(seconds / kDay));
}

std::string durationText(double seconds) {
  const auto whole = static_cast<std::int64_t>(std::max(seconds, 0.0));
  const std::int64_t days = whole / 86400;
  const std::string clock =
      RovikUtil::vsnprintftostr("%02d:%02d:%02d", static_cast<int>(whole % 86400 / 3600),
                                static_cast<int>(whole % 3600 / 60), static_cast<int>(whole % 60));
  return days > 0 ? std::to_string(days) + " d " + clock : clock;
}

std::string dueText(double seconds) { return seconds > 0 ? "in " + ageText(seconds) : "now"; }

std::string momentText(const std::string& time) {
  return time.size() < 19 ? time : time.substr(0, 10) + ' ' + time.substr(11, 8);
}

void printWrapped(const std::string& first, const std::string& indent, const std::string& line) {
  const std::string* lead = &first;
  const std::size_t width = kColumns - std::min(first.size(), kColumns - kLeastColumns);
  for (const std::string& part : wrapped(line, width)) {
    std::cout << *lead << part << '\n';
    lead = &indent;
  }
}

}  // namespace drovane
