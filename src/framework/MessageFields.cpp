#include "MessageFields.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstring>

namespace drovane {
namespace {

constexpr std::array<std::string_view, 3> kValueTypes = {"int", "float", "string"};
constexpr std::array<std::string_view, 7> kMessageTypes = {
    "MM_EMPTY",       "MM_DATA",         "MM_DATA_REQUEST", "MM_ACTUATOR_REQUEST",
    "MM_CMD_REQUEST", "MM_CMD_RESPONSE", "MM_MSG"};

template <std::size_t N>
std::string_view nameAt(const std::array<std::string_view, N>& names, std::uint32_t number) {
  return number < N ? names[number] : "?";
}

template <typename Enum, std::size_t N>
std::optional<Enum> numberOf(const std::array<std::string_view, N>& names, std::string_view name) {
  const auto found = std::find(names.begin(), names.end(), name);
  if (found == names.end()) return std::nullopt;
  return static_cast<Enum>(found - names.begin());
}

// One number of a key, up to `end`; null when there is none.
const char* readNumber(const char* at, const char* end, std::uint32_t& number) {
  std::int64_t value = 0;
  const auto [after, error] = std::from_chars(at, end, value);
  if (error != std::errc() || value < INT32_MIN || value > std::int64_t{UINT32_MAX}) return nullptr;
  number = static_cast<std::uint32_t>(value);
  return after;
}

template <typename Number>
std::optional<Number> parseWhole(std::string_view text) {
  Number number{};
  const char* end = text.data() + text.size();
  const auto [after, error] = std::from_chars(text.data(), end, number);
  if (error != std::errc() || after != end) return std::nullopt;
  return number;
}

}  // namespace

std::optional<MessageKey> parseKey(std::string_view text) {
  MessageKey key;
  const char* at = text.data();
  const char* const end = at + text.size();
  at = readNumber(at, end, key.network_id);
  if (at == nullptr || at == end || *at != '_') return std::nullopt;
  at = readNumber(at + 1, end, key.node_id);
  if (at == nullptr || at == end || *at != '_') return std::nullopt;
  at = readNumber(at + 1, end, key.value_id);
  if (at != end) return std::nullopt;
  return key;
}

std::string keyText(const MessageKey& key) {
  std::string text = std::to_string(static_cast<std::int32_t>(key.network_id));
  text += '_';
  text += std::to_string(static_cast<std::int32_t>(key.node_id));
  text += '_';
  text += std::to_string(static_cast<std::int32_t>(key.value_id));
  return text;
}

std::string_view valueTypeName(std::uint32_t value_type) { return nameAt(kValueTypes, value_type); }

std::optional<ValueTypes> valueTypeFromName(std::string_view name) {
  return numberOf<ValueTypes>(kValueTypes, name);
}

std::string_view messageTypeName(std::uint32_t type) { return nameAt(kMessageTypes, type); }

std::optional<MessageTypes> messageTypeFromName(std::string_view name) {
  return numberOf<MessageTypes>(kMessageTypes, name);
}

std::string floatText(float value) {
  std::array<char, 64> buffer;
  char* const end = std::to_chars(buffer.data(), buffer.data() + buffer.size(), value).ptr;
  return {buffer.data(), end};
}

std::optional<float> parseFloat(std::string_view text) { return parseWhole<float>(text); }

std::optional<std::int32_t> parseInt(std::string_view text) {
  return parseWhole<std::int32_t>(text);
}

int copyText(std::string_view text, char* buf, int size) {
  if (buf == nullptr || size < 1) return 0;
  const std::size_t length = std::min(text.size(), static_cast<std::size_t>(size) - 1);
  std::memcpy(buf, text.data(), length);
  buf[length] = '\0';
  return static_cast<int>(length);
}

}  // namespace drovane
