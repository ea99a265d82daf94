// A routed message, as the control socket describes it, for people.
#pragma once

#include <cjson/cJSON.h>

#include <map>
#include <string>

namespace drovane {

using RovikNames = std::map<int, std::string>;  // by id

// "02:46:13.123 boiler(5) -> everybody data 5_1_0 = "21.5"". Nothing in it is raw.
std::string messageText(cJSON* message, const RovikNames& names, bool colours);

// The value of an answer to a data request, or the text of a response.
std::string answerText(cJSON* message);

}  // namespace drovane
