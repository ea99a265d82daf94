#include "MessageJson.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <iterator>
#include <limits>
#include <optional>

#include "MessageFields.h"
#include "RovikMessage.h"

namespace drovane {
namespace {

// Well-formed by RFC 3629: no overlong forms, no surrogates, nothing above U+10FFFF.
std::size_t utf8Length(const unsigned char* at, std::size_t left) {
  const unsigned char lead = at[0];
  if (lead < 0x80) return 1;
  const std::size_t length = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
  if (lead < 0xC2 || lead > 0xF4 || left < length) return 0;
  for (std::size_t i = 1; i < length; ++i)
    if ((at[i] & 0xC0) != 0x80) return 0;
  if (lead == 0xE0 && at[1] < 0xA0) return 0;
  if (lead == 0xED && at[1] > 0x9F) return 0;
  if (lead == 0xF0 && at[1] < 0x90) return 0;
  if (lead == 0xF4 && at[1] > 0x8F) return 0;
  return length;
}

bool fitsJson(std::string_view text) {
  const auto* at = reinterpret_cast<const unsigned char*>(text.data());
  for (std::size_t i = 0; i < text.size();) {
    const std::size_t length = at[i] == 0 ? 0 : utf8Length(at + i, text.size() - i);
    if (length == 0) return false;
    i += length;
  }
  return true;
}

std::string toHex(std::string_view bytes) {
  constexpr std::string_view kDigits = "0123456789abcdef";
  std::string hex;
  hex.reserve(2 * bytes.size());
  for (const char byte : bytes) {
    hex += kDigits[static_cast<unsigned char>(byte) >> 4];
    hex += kDigits[static_cast<unsigned char>(byte) & 15];
  }
  return hex;
}

std::optional<std::string> fromHex(std::string_view hex) {
  if (hex.size() % 2 != 0) return std::nullopt;
  std::string bytes;
  bytes.reserve(hex.size() / 2);
  for (std::size_t i = 0; i < hex.size(); i += 2) {
    unsigned int byte = 0;
    const char* end = hex.data() + i + 2;
    if (std::from_chars(hex.data() + i, end, byte, 16).ptr != end) return std::nullopt;
    bytes += static_cast<char>(byte);
  }
  return bytes;
}

void addNumber(cJSON* object, const char* field, std::uint32_t number) {
  cJSON_AddNumberToObject(object, field, number);
}

// Absent is fine and leaves the number alone; anything but a whole number between `lowest` and the
// largest of 32 bits is not.
bool readNumber(const cJSON* object, const char* field, std::uint32_t& number, double lowest = 0) {
  const cJSON* item = cJSON_GetObjectItemCaseSensitive(object, field);
  if (item == nullptr) return true;
  if (!cJSON_IsNumber(item)) return false;
  const double value = item->valuedouble;
  if (!(value >= lowest && value <= UINT32_MAX) || value != std::trunc(value)) return false;
  number = static_cast<std::uint32_t>(static_cast<std::int64_t>(value));
  return true;
}

bool readOptionalText(const cJSON* object, const char* field, std::string& text) {
  const std::string hex = std::string(field) + "_hex";
  if (!cJSON_HasObjectItem(object, field) && !cJSON_HasObjectItem(object, hex.c_str())) return true;
  return readText(object, field, text);
}

// Through its shortest text a single-precision 0.1 shows as 0.1, not as 0.10000000149011612.
void addFloat(cJSON* object, const char* field, float value) {
  if (std::isfinite(value))
    cJSON_AddNumberToObject(object, field, std::strtod(floatText(value).c_str(), nullptr));
  else
    cJSON_AddStringToObject(object, field, floatText(value).c_str());
}

// The shortest text of the largest float is a little above it: what rounds to it is it.
bool readFloat(const cJSON* item, float& value) {
  if (cJSON_IsNumber(item)) {
    constexpr double kLargest = std::numeric_limits<float>::max();
    constexpr double kHalfStep = 0x1p103;
    if (!(std::abs(item->valuedouble) < kLargest + kHalfStep)) return false;
    value = static_cast<float>(std::clamp(item->valuedouble, -kLargest, kLargest));
    return true;
  }
  const auto parsed = cJSON_IsString(item) ? parseFloat(item->valuestring) : std::nullopt;
  if (parsed) value = *parsed;
  return parsed.has_value();
}

template <typename Record>
void addKey(cJSON* object, Record& record) {
  cJSON_AddStringToObject(object, "key", record.getKey().c_str());
}

template <typename Record>
bool readKey(const cJSON* object, Record& record) {
  const cJSON* key = cJSON_GetObjectItemCaseSensitive(object, "key");
  return cJSON_IsString(key) && record.setKey(key->valuestring) >= 0;
}

template <typename Record>
void addValueType(cJSON* object, Record& record) {
  cJSON_AddStringToObject(object, "value_type", record.getValueType().c_str());
}

template <typename Record>
bool readValueType(const cJSON* object, Record& record) {
  const cJSON* name = cJSON_GetObjectItemCaseSensitive(object, "value_type");
  return cJSON_IsString(name) && record.setValueType(name->valuestring) >= 0;
}

template <typename Record>
void addValue(cJSON* object, Record& record) {
  if (record.value_type == VAL_INT)
    cJSON_AddNumberToObject(object, "value", static_cast<std::int32_t>(record.value_i));
  else if (record.value_type == VAL_FLOAT)
    addFloat(object, "value", record.value_f);
  else
    addText(object, "value", record.value_s);
}

template <typename Record>
bool readValue(const cJSON* object, Record& record) {
  const cJSON* item = cJSON_GetObjectItemCaseSensitive(object, "value");
  if (record.value_type == VAL_STRING) return readText(object, "value", record.value_s);
  if (record.value_type == VAL_FLOAT) return readFloat(item, record.value_f);
  return item != nullptr && readNumber(object, "value", record.value_i, INT32_MIN);
}

bool readHeader(const cJSON* object, RovikMessage& msg) {
  const cJSON* route = cJSON_GetObjectItemCaseSensitive(object, "route");
  msg.route = cJSON_IsTrue(route) != 0;
  return readNumber(object, "seqnr", msg.seqnr) && readNumber(object, "ident", msg.ident) &&
         readNumber(object, "flags", msg.flags) && readNumber(object, "src", msg.src) &&
         readOptionalText(object, "src_s", msg.src_s) && readNumber(object, "dst", msg.dst) &&
         readOptionalText(object, "dst_s", msg.dst_s) && readNumber(object, "last", msg.last);
}

bool readPayload(const cJSON* object, MMData& data) {
  return readKey(object, data) && readValueType(object, data) && readValue(object, data) &&
         readNumber(object, "network_type", data.network_type) &&
         readNumber(object, "tv_sec", data.tv_sec) && readNumber(object, "tv_usec", data.tv_usec);
}

bool readPayload(const cJSON* object, MMDataRequest& request) {
  return readKey(object, request) && readValueType(object, request) &&
         readNumber(object, "req_op", request.req_op) &&
         readNumber(object, "from_tv_sec", request.from_tv_sec) &&
         readNumber(object, "from_tv_usec", request.from_tv_usec) &&
         readNumber(object, "to_tv_sec", request.to_tv_sec) &&
         readNumber(object, "to_tv_usec", request.to_tv_usec);
}

bool readPayload(const cJSON* object, MMActuatorRequest& request) {
  return readKey(object, request) && readValueType(object, request) && readValue(object, request);
}

bool readPayload(const cJSON* object, RovikMessage& msg) {
  switch (msg.type) {
    case MM_DATA:
      return readPayload(object, static_cast<MMData&>(msg));
    case MM_DATA_REQUEST:
      return readPayload(object, static_cast<MMDataRequest&>(msg));
    case MM_ACTUATOR_REQUEST:
      return readPayload(object, static_cast<MMActuatorRequest&>(msg));
    case MM_CMD_REQUEST:
      return readText(object, "cmd", static_cast<MMCmdRequest&>(msg).cmd);
    case MM_CMD_RESPONSE:
      return readText(object, "rsp", static_cast<MMCmdResponse&>(msg).rsp);
    case MM_MSG:
      return readNumber(object, "channel", static_cast<MMMsg&>(msg).channel, INT32_MIN) &&
             readText(object, "msg", static_cast<MMMsg&>(msg).msg);
    default:
      return true;
  }
}

}  // namespace

std::string jsonLine(const cJSON* json) {
  const std::unique_ptr<char, JsonDelete> text(cJSON_PrintUnformatted(json));
  if (!text && json != nullptr) throw std::bad_alloc();
  return text ? text.get() : "";
}

void addText(cJSON* object, const char* field, std::string_view text) {
  if (fitsJson(text)) {
    cJSON_AddStringToObject(object, field, std::string(text).c_str());
    return;
  }
  cJSON_AddStringToObject(object, (std::string(field) + "_hex").c_str(), toHex(text).c_str());
}

bool readText(const cJSON* object, const char* field, std::string& text) {
  const cJSON* plain = cJSON_GetObjectItemCaseSensitive(object, field);
  if (cJSON_IsString(plain)) {
    text = plain->valuestring;
    return true;
  }
  const cJSON* hex =
      cJSON_GetObjectItemCaseSensitive(object, (std::string(field) + "_hex").c_str());
  const auto bytes = cJSON_IsString(hex) ? fromHex(hex->valuestring) : std::nullopt;
  if (bytes) text = *bytes;
  return bytes.has_value();
}

Json textItem(const char* field, std::string_view text) {
  Json holder(cJSON_CreateObject());
  addText(holder.get(), field, text);
  Json plain(cJSON_DetachItemFromObjectCaseSensitive(holder.get(), field));
  return plain ? std::move(plain) : std::move(holder);
}

bool readTextItem(const cJSON* item, const char* field, std::string& text) {
  if (!cJSON_IsString(item)) return readText(item, field, text);
  text = item->valuestring;
  return true;
}

}  // namespace drovane

RovikMessage* RovikMessage::create(char* text) {
  constexpr cJSON_bool kNothingBehindIt = 1;
  const drovane::Json json(text != nullptr ? cJSON_ParseWithOpts(text, nullptr, kNothingBehindIt)
                                           : nullptr);
  return create(json.get());
}

RovikMessage* RovikMessage::create(cJSON* json) {
  const cJSON* name = cJSON_GetObjectItemCaseSensitive(json, "type");
  const auto kind =
      cJSON_IsString(name) ? drovane::messageTypeFromName(name->valuestring) : std::nullopt;
  RovikMessage* msg = kind ? create(*kind) : nullptr;
  if (msg == nullptr) return nullptr;
  if (drovane::readHeader(json, *msg) && drovane::readPayload(json, *msg)) return msg;
  destroy(msg);
  return nullptr;
}

cJSON* RovikMessage::headerToJSON() {
  cJSON* json = cJSON_CreateObject();
  cJSON_AddStringToObject(json, "type", std::string(drovane::messageTypeName(type)).c_str());
  drovane::addNumber(json, "seqnr", seqnr);
  drovane::addNumber(json, "ident", ident);
  drovane::addNumber(json, "flags", flags);
  drovane::addNumber(json, "src", src);
  drovane::addText(json, "src_s", src_s);
  drovane::addNumber(json, "dst", dst);
  drovane::addText(json, "dst_s", dst_s);
  drovane::addNumber(json, "last", last);
  cJSON_AddBoolToObject(json, "route", route);
  return json;
}

cJSON* RovikMessage::toJSON() { return headerToJSON(); }

cJSON* MMData::toJSON() {
  cJSON* json = headerToJSON();
  drovane::addNumber(json, "network_type", network_type);
  drovane::addKey(json, *this);
  drovane::addNumber(json, "tv_sec", tv_sec);
  drovane::addNumber(json, "tv_usec", tv_usec);
  drovane::addValueType(json, *this);
  drovane::addValue(json, *this);
  return json;
}

cJSON* MMDataRequest::toJSON() {
  cJSON* json = headerToJSON();
  drovane::addKey(json, *this);
  drovane::addValueType(json, *this);
  drovane::addNumber(json, "req_op", req_op);
  drovane::addNumber(json, "from_tv_sec", from_tv_sec);
  drovane::addNumber(json, "from_tv_usec", from_tv_usec);
  drovane::addNumber(json, "to_tv_sec", to_tv_sec);
  drovane::addNumber(json, "to_tv_usec", to_tv_usec);
  return json;
}

cJSON* MMActuatorRequest::toJSON() {
  cJSON* json = headerToJSON();
  drovane::addKey(json, *this);
  drovane::addValueType(json, *this);
  drovane::addValue(json, *this);
  return json;
}

cJSON* MMCmdRequest::toJSON() {
  cJSON* json = headerToJSON();
  drovane::addText(json, "cmd", cmd);
  return json;
}

cJSON* MMCmdResponse::toJSON() {
  cJSON* json = headerToJSON();
  drovane::addText(json, "rsp", rsp);
  return json;
}

cJSON* MMMsg::toJSON() {
  cJSON* json = headerToJSON();
  drovane::addNumber(json, "channel", channel);
  drovane::addText(json, "msg", msg);
  return json;
}
