// A routed message, as the control socket describes it, for people.
#pragma once

#include <cjson/cJSON.h>

#include <map>
#include <string>
#include <vector>

class RovikMessage;

namespace drovane {

using RovikNames = std::map<int, std::string>;  // by id

// "02:46:13.123 boiler(5) -> everybody data 5_1_0 = "21.5"". Nothing in it is raw.
std::string messageText(cJSON* message, const RovikNames& names, bool colours);

// The same without the time.
std::string routeText(RovikMessage& msg, const RovikNames& names, bool colours);

// The kinds of messages as one types them: "data", "data-request", "actuator", ...
std::vector<std::string> kindWords();
// The name of its type, such as "MM_DATA"; empty for what is none of kindWords.
std::string kindOf(const std::string& word);

// The value of an answer to a data request, or the text of a response.
std::string answerText(cJSON* message);

}  // namespace drovane
