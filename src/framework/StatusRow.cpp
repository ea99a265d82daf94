#include "StatusRow.h"

#include <cmath>
#include <cstdint>
#include <optional>
#include <string>

#include "Busy.h"
#include "Clock.h"
#include "LinkTraffic.h"
#include "LocalTime.h"
#include "RovikUtil.h"

namespace drovane {
namespace {

void addCount(const Json& object, const char* field, std::uint64_t count) {
  cJSON_AddNumberToObject(object.get(), field, static_cast<double>(count));
}

double secondsSince(std::int64_t moment) {
  return static_cast<double>(Clock::now() - moment) / Clock::kNanosecondsPerSecond;
}

// With three digits behind the point. Printed here: the library looks for the shortest form of a
// fraction, which takes as long as all the rest of a rovik's row.
void addSeconds(const Json& object, const char* field, double seconds) {
  const long long milliseconds = std::llround(std::abs(seconds) * 1000);
  const std::string text =
      RovikUtil::vsnprintftostr("%s%lld.%03lld", seconds < 0 && milliseconds > 0 ? "-" : "",
                                milliseconds / 1000, milliseconds % 1000);
  cJSON_AddRawToObject(object.get(), field, text.c_str());
}

// Nothing for a slot that has only just been entered: it would come and go with every look.
void addBusy(const Json& row, const std::optional<Busy>& busy) {
  const double seconds = busy ? secondsSince(busy->since) : 0;
  if (seconds < 1) return;
  cJSON_AddStringToObject(row.get(), "slot", busy->slot);
  addSeconds(row, "slot_seconds", seconds);
}

struct DirectionFields {
  const char* bytes;
  const char* units;
  const char* last;
  const char* last_seconds;
};

void addDirection(const Json& row, const DirectionFields& fields,
                  const LinkTraffic::Direction& figures) {
  addCount(row, fields.bytes, figures.bytes);
  addCount(row, fields.units, figures.units);
  if (figures.last_time == 0) return;
  addText(row.get(), fields.last, figures.last);
  addSeconds(row, fields.last_seconds, secondsSince(figures.last_time));
}

// Nothing for a rovik that never had a link.
void addTraffic(const Json& row, const LinkTraffic::Figures& figures) {
  if (figures.link_changed == 0) return;
  addSeconds(row, "link_seconds", secondsSince(figures.link_changed));
  addDirection(row, {"bytes_in", "units_in", "last_in", "last_in_seconds"}, figures.in);
  addDirection(row, {"bytes_out", "units_out", "last_out", "last_out_seconds"}, figures.out);
  addCount(row, "units_dropped", figures.dropped);
}

}  // namespace

Json statusRow(const House::Member& of) {
  const RovikStatus now = of.host().status();
  Json row(cJSON_CreateObject());
  cJSON_AddNumberToObject(row.get(), "id", now.id);
  cJSON_AddStringToObject(row.get(), "name", now.name.c_str());
  cJSON_AddStringToObject(row.get(), "plug_in", of.config.plug_in.c_str());
  cJSON_AddNumberToObject(row.get(), "type", now.type);
  cJSON_AddBoolToObject(row.get(), "starting", of.state == House::Member::State::Configuring);
  cJSON_AddBoolToObject(row.get(), "running", now.running);
  cJSON_AddBoolToObject(row.get(), "link_open", now.link_open);
  cJSON_AddBoolToObject(row.get(), "held_back", now.held_back);
  addCount(row, "queued", now.queued);
  addCount(row, "in", now.received);
  addCount(row, "out", now.sent);
  addCount(row, "dropped", now.dropped);
  addText(row.get(), "warning", now.warning);
  const bool warned = now.warning_count > 0;
  cJSON_AddStringToObject(row.get(), "warning_time",
                          warned ? localTime(now.warning_time, 0).c_str() : "");
  addCount(row, "warning_count", now.warning_count);
  if (warned) addSeconds(row, "warning_seconds", secondsSince(now.warning_clock));
  addBusy(row, now.busy);
  addTraffic(row, now.traffic);
  addCount(row, "script_memory", now.script_memory);
  if (now.timer_expiry) addSeconds(row, "timer_seconds", -secondsSince(*now.timer_expiry));
  // JSON already, printed by the rovik's host; there is none before it has started.
  cJSON_AddRawToObject(row.get(), "description",
                       now.description.empty() ? "{}" : now.description.c_str());
  return row;
}

}  // namespace drovane
