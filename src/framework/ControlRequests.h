// Messages and command words out of the fields of a control request.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "MessageJson.h"
#include "RovikMessage.h"

namespace drovane {

struct RecordDestroy {
  void operator()(RovikMessage* msg) const { RovikMessage::destroy(msg); }
};
using RecordOwner = std::unique_ptr<RovikMessage, RecordDestroy>;

// All throw RequestError, which names the value that is wrong and what was expected.

// "key", "type" and "value" as an MM_DATA, or with "actuator" true an MM_ACTUATOR_REQUEST.
RecordOwner messageFrom(const cJSON* request);
// "key" and "type" as an MM_DATA_REQUEST.
RecordOwner dataRequestFrom(const cJSON* request);
// The kind of this name, such as "MM_DATA".
MessageTypes kindFrom(const std::string& name);
// "words", at least one: texts, or {"word_hex":"..."} for what JSON cannot carry.
std::vector<std::string> requiredWords(const cJSON* request);

}  // namespace drovane
