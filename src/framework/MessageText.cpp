// The one-line form of a record for people, such as
//   MM_DATA 5_1_0 = "21.5" from 5 boiler to everybody #17
// Texts are escaped and quoted, so that the line stays one line.
#include "MessageFields.h"
#include "RovikMessage.h"
#include "RovikUtil.h"

namespace {

std::string printable(const std::string& text) {
  std::string escaped;
  RovikUtil::escape(escaped, text.data(), text.size());
  return escaped;
}

std::string quoted(const std::string& text) { return '"' + printable(text) + '"'; }

template <typename Record>
std::string valueText(Record& record) {
  return record.value_type == VAL_STRING ? quoted(record.value_s) : record.getValue();
}

std::string destination(const RovikMessage& msg) {
  if (msg.dst != NO_DESTINATION) return std::to_string(msg.dst);
  return msg.dst_s.empty() ? "everybody" : printable(msg.dst_s);
}

}  // namespace

std::string RovikMessage::toString() {
  std::string text(drovane::messageTypeName(type));
  text += payloadText();
  text += " from " + std::to_string(src);
  if (!src_s.empty()) text += ' ' + printable(src_s);
  text += " to " + destination(*this) + " #" + std::to_string(seqnr);
  return text;
}

std::string RovikMessage::payloadText() { return ""; }
std::string MMData::payloadText() { return ' ' + getKey() + " = " + valueText(*this); }
std::string MMDataRequest::payloadText() { return ' ' + getKey() + " (" + getValueType() + ')'; }
std::string MMActuatorRequest::payloadText() { return ' ' + getKey() + " = " + valueText(*this); }
std::string MMCmdRequest::payloadText() { return ' ' + quoted(cmd); }
std::string MMCmdResponse::payloadText() { return ' ' + quoted(rsp); }
std::string MMMsg::payloadText() {
  return " channel " + std::to_string(static_cast<std::int32_t>(channel)) + ' ' + quoted(msg);
}
