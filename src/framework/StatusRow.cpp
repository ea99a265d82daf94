#include "StatusRow.h"

#include <cmath>
#include <cstdint>
#include <new>
#include <optional>
#include <string>
#include <string_view>

#include "Busy.h"
#include "Clock.h"
#include "LinkTraffic.h"
#include "LocalTime.h"
#include "MessageJson.h"
#include "RovikUtil.h"

namespace drovane {
namespace {

double secondsSince(std::int64_t moment) {
  return static_cast<double>(Clock::now() - moment) / Clock::kNanosecondsPerSecond;
}

// An object that grows field by field; a brief one without what is false, 0 or empty.
//
// Numbers are printed here: the library looks for the shortest form of each, which takes longer
// than all the rest of a rovik's row. It also leaves out, and says nothing, what it has no memory
// for: so the fields are counted.
class Row {
 public:
  explicit Row(bool its_brief) : brief(its_brief), object(cJSON_CreateObject()) {}

  void flag(const char* field, bool value) {
    if (!value && brief) return;
    ++fields;
    cJSON_AddBoolToObject(object.get(), field, value);
  }
  template <typename Integer>
  void count(const char* field, Integer value) {
    if (value != 0 || !brief) json(field, std::to_string(value));
  }
  void text(const char* field, std::string_view value) {
    if (value.empty() && brief) return;
    ++fields;
    addText(object.get(), field, value);
  }
  // With three digits behind the point.
  void seconds(const char* field, double value) {
    const long long milliseconds = std::llround(std::abs(value) * 1000);
    json(field, RovikUtil::vsnprintftostr("%s%lld.%03lld", value < 0 && milliseconds > 0 ? "-" : "",
                                          milliseconds / 1000, milliseconds % 1000));
  }
  void json(const char* field, const std::string& value) {
    ++fields;
    cJSON_AddRawToObject(object.get(), field, value.c_str());
  }

  std::string line() const {
    if (cJSON_GetArraySize(object.get()) != fields) throw std::bad_alloc();
    return jsonLine(object.get());
  }

  const bool brief;

 private:
  const Json object;
  int fields = 0;
};

void addWarning(Row& row, const RovikStatus& now) {
  const bool warned = now.warning_count > 0;
  row.text("warning", now.warning);
  row.text("warning_time", warned ? localTime(now.warning_time, 0) : "");
  row.count("warning_count", now.warning_count);
  if (warned) row.seconds("warning_seconds", secondsSince(now.warning_clock));
}

// Nothing for a slot that has only just been entered: it would come and go with every look.
void addBusy(Row& row, const std::optional<Busy>& busy) {
  const double seconds = busy ? secondsSince(busy->since) : 0;
  if (seconds < 1) return;
  row.text("slot", busy->slot);
  row.seconds("slot_seconds", seconds);
}

struct DirectionFields {
  const char* bytes;
  const char* units;
  const char* last;
  const char* last_seconds;
};

void addDirection(Row& row, const DirectionFields& fields, const LinkTraffic::Direction& figures) {
  row.count(fields.bytes, figures.bytes);
  row.count(fields.units, figures.units);
  if (figures.last_time == 0) return;
  row.text(fields.last, figures.last);
  row.seconds(fields.last_seconds, secondsSince(figures.last_time));
}

// Nothing for a rovik that never had a link.
void addTraffic(Row& row, const LinkTraffic::Figures& figures) {
  if (figures.link_changed == 0) return;
  row.seconds("link_seconds", secondsSince(figures.link_changed));
  addDirection(row, {"bytes_in", "units_in", "last_in", "last_in_seconds"}, figures.in);
  addDirection(row, {"bytes_out", "units_out", "last_out", "last_out_seconds"}, figures.out);
  row.count("units_dropped", figures.dropped);
}

// JSON already, printed by the rovik's host; there is none before it has started.
void addDescription(Row& row, const std::string& description) {
  if (!row.brief) row.json("description", description.empty() ? "{}" : description);
}

}  // namespace

std::string statusRow(const House::Member& of, bool brief) {
  const RovikStatus now = of.host().status();
  Row row(brief);
  row.count("id", now.id);
  row.text("name", now.name);
  row.text("plug_in", of.config.plug_in);
  row.count("type", now.type);
  row.flag("starting", of.state == House::Member::State::Configuring);
  row.flag("running", now.running);
  row.flag("link_open", now.link_open);
  row.flag("held_back", now.held_back);
  row.count("queued", now.queued);
  row.count("in", now.received);
  row.count("out", now.sent);
  row.count("dropped", now.dropped);
  addWarning(row, now);
  addBusy(row, now.busy);
  addTraffic(row, now.traffic);
  row.count("script_memory", now.script_memory);
  if (now.timer_expiry) row.seconds("timer_seconds", -secondsSince(*now.timer_expiry));
  addDescription(row, now.description);
  return row.line();
}

}  // namespace drovane
