// Keys, value types and values: how the fields of a record are written and read as text.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "RovikMessage.h"

namespace drovane {

// The three numbers of a key. They are 32-bit two's complement in unsigned fields: network 2^32-1
// is written -1.
struct MessageKey {
  std::uint32_t network_id = 0;
  std::uint32_t node_id = 0;
  std::uint32_t value_id = 0;
};

std::optional<MessageKey> parseKey(std::string_view text);
std::string keyText(const MessageKey& key);

// "int", "float" or "string"; "?" for a number that is no ValueTypes.
std::string_view valueTypeName(std::uint32_t value_type);
std::optional<ValueTypes> valueTypeFromName(std::string_view name);

// The shortest text that reads back as the same single-precision number.
std::string floatText(float value);
std::optional<float> parseFloat(std::string_view text);

// An int value is within -2^31 and 2^31-1.
std::optional<std::int32_t> parseInt(std::string_view text);

// Writes `text` into `buf`, NUL-terminated and cut to `size` bytes; returns what was written.
int copyText(std::string_view text, char* buf, int size);

// "MM_DATA" and so on; "?" for a number that is no MessageTypes.
std::string_view messageTypeName(std::uint32_t type);
std::optional<MessageTypes> messageTypeFromName(std::string_view name);

}  // namespace drovane
