#include "ControlRequests.h"

#include "ConfigFile.h"
#include "ControlProtocol.h"
#include "MessageFields.h"

namespace drovane {
namespace {

constexpr const char* kKeyForm = "three numbers joined by '_', such as 5_1_0";
constexpr const char* kTypeForm = "int, float or string";
constexpr const char* kWordsForm = "the words of a command, such as [\"mode\",\"tcp\"]";

template <typename Record>
std::unique_ptr<Record, RecordDestroy> record(MessageTypes type) {
  std::unique_ptr<Record, RecordDestroy> made(static_cast<Record*>(RovikMessage::create(type)));
  if (!made) throw RequestError("there is no memory for a message");
  return made;
}

template <typename Record>
void fillKeyAndType(Record& msg, const cJSON* request) {
  const std::string key = requiredText(request, "key", kKeyForm);
  if (msg.setKey(key.c_str()) < 0)
    throw RequestError("key " + quotedValue(key) + " is no key; expected " + kKeyForm);
  const std::string type = requiredText(request, "type", kTypeForm);
  if (msg.setValueType(type.c_str()) < 0)
    throw RequestError("type " + quotedValue(type) + " is no value type; expected " + kTypeForm);
}

template <typename Record>
RecordOwner filled(MessageTypes type, const cJSON* request) {
  auto msg = record<Record>(type);
  fillKeyAndType(*msg, request);
  const std::string value = requiredText(request, "value", "the value as a text");
  if (msg->setValue(value.c_str()) < 0) {
    throw RequestError("value " + quotedValue(value) + " does not fit the type; expected " +
                       (msg->value_type == VAL_INT ? "a whole number from -2147483648 to 2147483647"
                                                   : "a decimal number such as 21.5"));
  }
  if (msg->value_type == VAL_STRING) msg->value_s = value;  // with its zero bytes
  return msg;
}

}  // namespace

RecordOwner messageFrom(const cJSON* request) {
  return optionalFlag(request, "actuator") ? filled<MMActuatorRequest>(MM_ACTUATOR_REQUEST, request)
                                           : filled<MMData>(MM_DATA, request);
}

RecordOwner dataRequestFrom(const cJSON* request) {
  auto msg = record<MMDataRequest>(MM_DATA_REQUEST);
  fillKeyAndType(*msg, request);
  return msg;
}

MessageTypes kindFrom(const std::string& name) {
  const auto type = messageTypeFromName(name);
  if (!type)
    throw RequestError("unknown kind " + quotedValue(name) + "; expected a type such as MM_DATA");
  return *type;
}

std::vector<std::string> requiredWords(const cJSON* request) {
  const cJSON* list = cJSON_GetObjectItemCaseSensitive(request, "words");
  std::vector<std::string> words;
  if (!cJSON_IsArray(list))
    throw RequestError(std::string("'words' is missing or no list; expected ") + kWordsForm);
  for (const cJSON* item = list->child; item != nullptr; item = item->next) {
    std::string word;
    if (!readTextItem(item, "word", word))
      throw RequestError(std::string("a word is no text; expected ") + kWordsForm);
    words.push_back(std::move(word));
  }
  if (words.empty()) throw RequestError(std::string("there is no word; expected ") + kWordsForm);
  return words;
}

}  // namespace drovane
