#include "ControlProtocol.h"

#include <new>

namespace drovane {
namespace {

bool present(const cJSON* request, const char* field) {
  const std::string hex = std::string(field) + "_hex";
  return cJSON_GetObjectItemCaseSensitive(request, field) != nullptr ||
         cJSON_GetObjectItemCaseSensitive(request, hex.c_str()) != nullptr;
}

std::string inQuotes(const char* field) { return "'" + std::string(field) + "'"; }

}  // namespace

Json parseRequest(const std::string& line) {
  // The whole line has to be one value; a zero byte would end it early.
  Json json(line.find('\0') == std::string::npos
                ? cJSON_ParseWithLengthOpts(line.c_str(), line.size() + 1, nullptr, 1)
                : nullptr);
  if (!cJSON_IsObject(json.get()))
    throw RequestError("the line is no JSON object; expected one such as {\"op\":\"status\"}");
  return json;
}

std::string requiredText(const cJSON* request, const char* field, const char* expected) {
  if (!present(request, field))
    throw RequestError(inQuotes(field) + " is missing; expected " + expected);
  std::string text;
  if (!readText(request, field, text))
    throw RequestError(inQuotes(field) + " is no text; expected " + expected);
  return text;
}

std::optional<std::string> optionalText(const cJSON* request, const char* field) {
  if (!present(request, field)) return std::nullopt;
  return requiredText(request, field, "a text, or no such field");
}

std::vector<std::string> optionalTexts(const cJSON* request, const char* field) {
  const cJSON* list = cJSON_GetObjectItemCaseSensitive(request, field);
  const RequestError no_list(inQuotes(field) +
                             " is no list of texts; expected one, or no such field");
  if (list != nullptr && !cJSON_IsArray(list)) throw no_list;
  std::vector<std::string> texts;
  const cJSON* item = nullptr;
  cJSON_ArrayForEach(item, list) {
    if (!cJSON_IsString(item)) throw no_list;
    texts.emplace_back(item->valuestring);
  }
  return texts;
}

bool optionalFlag(const cJSON* request, const char* field) {
  const cJSON* item = cJSON_GetObjectItemCaseSensitive(request, field);
  if (item != nullptr && !cJSON_IsBool(item))
    throw RequestError(inQuotes(field) + " is neither true nor false; expected one of them");
  return cJSON_IsTrue(item) != 0;
}

Json okReply() {
  Json reply(cJSON_CreateObject());
  if (cJSON_AddTrueToObject(reply.get(), "ok") == nullptr) throw std::bad_alloc();
  return reply;
}

std::string errorReply(std::string_view error) {
  const Json reply(cJSON_CreateObject());
  cJSON_AddFalseToObject(reply.get(), "ok");
  addText(reply.get(), "error", error);
  return jsonLine(reply.get());
}

}  // namespace drovane
