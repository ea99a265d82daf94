// Owner of a cJSON tree, and the small steps in which records and control lines are built.
#pragma once

#include <cjson/cJSON.h>

#include <memory>
#include <string>
#include <string_view>

namespace drovane {

struct JsonDelete {
  void operator()(cJSON* json) const { cJSON_Delete(json); }
  void operator()(char* text) const { cJSON_free(text); }
};
using Json = std::unique_ptr<cJSON, JsonDelete>;

// One line, without blanks and without a line end.
std::string jsonLine(const cJSON* json);

// Adds a text under `field`, or under `field`_hex in hexadecimal digits when it is not UTF-8 or
// holds a zero byte, which JSON cannot carry.
void addText(cJSON* object, const char* field, std::string_view text);

// Reads what addText wrote; false, with `text` unchanged, when there is neither or the digits are
// wrong.
bool readText(const cJSON* object, const char* field, std::string& text);

// The same for a text in a list: a plain string, or an object with `field`_hex.
Json textItem(const char* field, std::string_view text);
bool readTextItem(const cJSON* item, const char* field, std::string& text);

}  // namespace drovane
