#include "MessageText.h"

#include <algorithm>
#include <array>
#include <memory>

#include "RovikMessage.h"
#include "Terminal.h"
#include "framework/ControlRequests.h"
#include "framework/MessageFields.h"
#include "framework/MessageJson.h"
#include "framework/Router.h"

namespace drovane {
namespace {

template <typename Record>
std::string valueText(Record& msg) {
  return msg.value_type == VAL_STRING ? '"' + printable(msg.value_s) + '"' : msg.getValue();
}

std::string dataText(RovikMessage& msg) {
  auto& data = static_cast<MMData&>(msg);
  return data.getKey() + " = " + valueText(data);
}

std::string requestText(RovikMessage& msg) {
  auto& request = static_cast<MMDataRequest&>(msg);
  return request.getKey() + " (" + request.getValueType() + ')';
}

std::string actuatorText(RovikMessage& msg) {
  auto& request = static_cast<MMActuatorRequest&>(msg);
  return request.getKey() + " = " + valueText(request);
}

std::string commandText(RovikMessage& msg) {
  return printable(static_cast<MMCmdRequest&>(msg).cmd);
}

std::string responseText(RovikMessage& msg) {
  return printable(static_cast<MMCmdResponse&>(msg).rsp);
}

std::string freeText(RovikMessage& msg) {
  auto& text = static_cast<MMMsg&>(msg);
  return "channel " + std::to_string(text.channel) + ": " + printable(text.msg);
}

std::string noText(RovikMessage&) { return ""; }

struct Kind {
  const char* name;
  const char* colour;
  std::string (*payload)(RovikMessage&);
};

// By MessageTypes.
constexpr std::array<Kind, 7> kKinds = {{
    {"empty", "\033[37m", noText},
    {"data", "\033[32m", dataText},
    {"data request", "\033[36m", requestText},
    {"actuator", "\033[33m", actuatorText},
    {"command", "\033[35m", commandText},
    {"response", "\033[34m", responseText},
    {"text", "\033[37m", freeText},
}};

std::string numbered(std::uint32_t id, const std::string& name, const RovikNames& names) {
  const auto known = names.find(static_cast<int>(id));
  const std::string shown = known != names.end() ? known->second : printable(name);
  return shown.empty() ? std::to_string(id) : shown + '(' + std::to_string(id) + ')';
}

std::string receiver(const RovikMessage& msg, const RovikNames& names) {
  if (msg.dst != NO_DESTINATION) return numbered(msg.dst, "", names);
  return msg.dst_s.empty() ? "everybody" : printable(msg.dst_s);
}

// The time of day out of ISO 8601.
std::string timeText(const cJSON* message) {
  std::string time;
  readText(message, "time", time);
  const std::size_t day_end = time.find('T');
  return day_end == std::string::npos ? printable(time) : printable(time.substr(day_end + 1, 12));
}

}  // namespace

std::string messageText(cJSON* message, const RovikNames& names, bool colours) {
  const RecordOwner msg(RovikMessage::create(message));
  if (!msg) return "a message of an unknown kind";
  return timeText(message) + ' ' + routeText(*msg, names, colours);
}

std::string routeText(RovikMessage& msg, const RovikNames& names, bool colours) {
  const Kind& kind = kKinds.at(msg.type);
  const std::string word =
      colours ? std::string(kind.colour) + kind.name + "\033[0m" : std::string(kind.name);
  return numbered(msg.src, msg.src_s, names) + " -> " + receiver(msg, names) + ' ' + word + ' ' +
         kind.payload(msg);
}

std::vector<std::string> kindWords() {
  std::vector<std::string> words;
  for (const Kind& kind : kKinds) {
    words.emplace_back(kind.name);
    std::replace(words.back().begin(), words.back().end(), ' ', '-');
  }
  return words;
}

std::string kindOf(const std::string& word) {
  const std::vector<std::string> words = kindWords();
  const auto found = std::find(words.begin(), words.end(), word);
  if (found == words.end()) return "";
  return std::string(messageTypeName(static_cast<std::uint32_t>(found - words.begin())));
}

std::string answerText(cJSON* message) {
  const RecordOwner msg(RovikMessage::create(message));
  if (msg && msg->type == MM_DATA) return static_cast<MMData&>(*msg).getValue();
  if (msg && msg->type == MM_CMD_RESPONSE) return static_cast<MMCmdResponse&>(*msg).rsp;
  return "";
}

}  // namespace drovane
