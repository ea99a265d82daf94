// The language of the control socket: one JSON object a line, each answered with one line.
#pragma once

#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "MessageJson.h"

namespace drovane {

// What is wrong with a request and what was expected; becomes the "error" of the reply.
class RequestError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The object in the line. Throws RequestError.
Json parseRequest(const std::string& line);

// A text field (or its _hex form). Throws RequestError: it is missing, or no text.
std::string requiredText(const cJSON* request, const char* field, const char* expected);
std::optional<std::string> optionalText(const cJSON* request, const char* field);
// A list of texts, empty when there is none. Throws RequestError: it is no list of texts.
std::vector<std::string> optionalTexts(const cJSON* request, const char* field);
bool optionalFlag(const cJSON* request, const char* field);

// {"ok":true}, for further fields.
Json okReply();
// {"ok":false,"error":"..."}
std::string errorReply(std::string_view error);

}  // namespace drovane
