#include "TraceText.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <string_view>

#include "RovikUtil.h"
#include "Terminal.h"
#include "framework/MessageJson.h"

namespace drovane {
namespace {

struct Kind {
  const char* name;  // in the control socket's language
  LinkSign sign;
  const char* colour;
  const char* words;  // for people, where there are no bytes
};

constexpr std::array<Kind, 4> kKinds = {{
    {"received", LinkSign::FromDevice, "\033[32m", ""},
    {"sent", LinkSign::ToDevice, "\033[33m", ""},
    {"opened", LinkSign::Opened, "\033[36m", "link open"},
    {"closed", LinkSign::Closed, "\033[36m", "link closed"},
}};

constexpr std::size_t kBytesPerLine = 16;

const Kind& kindOf(LinkSign sign) {
  return *std::find_if(kKinds.begin(), kKinds.end(),
                       [sign](const Kind& kind) { return kind.sign == sign; });
}

std::string signText(const Kind& kind, bool colours) {
  const std::string sign(1, static_cast<char>(kind.sign));
  return colours ? kind.colour + sign + "\033[0m" : sign;
}

// "0010  41 42 43 ...                     |ABC|"
std::string hexLine(std::size_t offset, std::string_view bytes) {
  std::string line = RovikUtil::vsnprintftostr("%04zx ", offset);
  std::string shown;
  for (std::size_t i = 0; i < kBytesPerLine; ++i) {
    if (i % 8 == 0) line += ' ';
    if (i >= bytes.size()) {
      line += "   ";
      continue;
    }
    const auto byte = static_cast<unsigned char>(bytes[i]);
    line += RovikUtil::vsnprintftostr("%02x ", static_cast<unsigned int>(byte));
    shown += byte >= 0x20 && byte < 0x7F ? bytes[i] : '.';
  }
  return line + " |" + shown + '|';
}

// The lines behind the first have no time.
std::string hexText(const std::string& time, const std::string& sign, std::string_view bytes) {
  std::string text;
  for (std::size_t offset = 0; offset < bytes.size(); offset += kBytesPerLine) {
    text += offset == 0 ? time : '\n' + std::string(time.size(), ' ');
    text += ' ' + sign + ' ' + hexLine(offset, bytes.substr(offset, kBytesPerLine));
  }
  return text;
}

// Out of ISO 8601.
std::string timeOfDay(const std::string& time) {
  const std::size_t day_end = time.find('T');
  return printable(day_end == std::string::npos ? time : time.substr(day_end + 1, 12));
}

}  // namespace

std::optional<TracedEvent> tracedEvent(const cJSON* line) {
  std::string name;
  readText(line, "event", name);
  const auto* const kind = std::find_if(kKinds.begin(), kKinds.end(),
                                        [&](const Kind& each) { return name == each.name; });
  if (kind == kKinds.end()) return std::nullopt;
  TracedEvent event;
  event.sign = kind->sign;
  readText(line, "bytes", event.bytes);
  const cJSON* const seconds = cJSON_GetObjectItemCaseSensitive(line, "seconds");
  if (cJSON_IsNumber(seconds)) event.microseconds = std::llround(seconds->valuedouble * 1e6);
  std::string time;
  readText(line, "time", time);
  event.time = timeOfDay(time);
  return event;
}

std::string traceText(const TracedEvent& event, const TraceStyle& style) {
  const Kind& kind = kindOf(event.sign);
  const std::string sign = signText(kind, style.colours);
  if (event.bytes.empty()) return event.time + ' ' + sign + ' ' + kind.words;
  if (style.hex) return hexText(event.time, sign, event.bytes);
  return event.time + ' ' + sign + ' ' + escapedBytes(event.bytes);
}

}  // namespace drovane
