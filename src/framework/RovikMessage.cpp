#include "RovikMessage.h"

#include "Drovane.h"
#include "MessageFields.h"
#include "RecordPool.h"

using drovane::copyText;
using drovane::RecordPool;

Mutex RovikMessage::messageLock;

RovikMessage::RovikMessage(MessageTypes kind)
    : type(kind),
      seqnr(0),
      ident(0),
      flags(0),
      src(0),
      dst(NO_DESTINATION),
      last(0),
      route(false) {}

RovikMessage* RovikMessage::create(MessageTypes type) { return RecordPool::fresh(type); }

RovikMessage* RovikMessage::create(RovikMessage* original) {
  return original != nullptr ? RecordPool::copy(*original) : nullptr;
}

void RovikMessage::destroy(RovikMessage* msg) {
  if (msg != nullptr) RecordPool::release(msg);
}

int RovikMessage::toString(char* buf, int size) { return copyText(toString(), buf, size); }

void RovikMessage::print() {
  Drovane::global.log(LOG_LEVEL_INFO, static_cast<int>(src), src_s, "%s\n", toString().c_str());
}

namespace {

template <typename Record>
int setKeyOf(Record& record, const char* key) {
  const auto parsed = key != nullptr ? drovane::parseKey(key) : std::nullopt;
  if (!parsed) return -1;
  record.network_id = parsed->network_id;
  record.node_id = parsed->node_id;
  record.value_id = parsed->value_id;
  return 0;
}

template <typename Record>
std::string keyOf(const Record& record) {
  return drovane::keyText({record.network_id, record.node_id, record.value_id});
}

template <typename Record>
int setValueTypeOf(Record& record, const char* name) {
  const auto parsed = name != nullptr ? drovane::valueTypeFromName(name) : std::nullopt;
  if (!parsed) return -1;
  record.value_type = *parsed;
  return 0;
}

template <typename Record>
int setValueOf(Record& record, const char* text) {
  if (text == nullptr) return -1;
  if (record.value_type == VAL_INT) {
    const auto number = drovane::parseInt(text);
    if (!number) return -1;
    record.value_i = static_cast<std::uint32_t>(*number);
  } else if (record.value_type == VAL_FLOAT) {
    const auto number = drovane::parseFloat(text);
    if (!number) return -1;
    record.value_f = *number;
  } else if (record.value_type == VAL_STRING) {
    record.value_s = text;
  } else {
    return -1;
  }
  return 0;
}

template <typename Record>
std::string valueOf(const Record& record) {
  if (record.value_type == VAL_INT)
    return std::to_string(static_cast<std::int32_t>(record.value_i));
  if (record.value_type == VAL_FLOAT) return drovane::floatText(record.value_f);
  return record.value_s;
}

}  // namespace

int MMData::setKey(const char* key) { return setKeyOf(*this, key); }
std::string MMData::getKey() { return keyOf(*this); }
int MMData::getKey(char* buf, int size) { return copyText(getKey(), buf, size); }
int MMData::setValueType(const char* type_name) { return setValueTypeOf(*this, type_name); }
std::string MMData::getValueType() { return std::string(drovane::valueTypeName(value_type)); }
int MMData::getValueType(char* buf, int size) { return copyText(getValueType(), buf, size); }
int MMData::setValue(const char* text) { return setValueOf(*this, text); }
std::string MMData::getValue() { return valueOf(*this); }
int MMData::getValue(char* buf, int size) { return copyText(getValue(), buf, size); }

int MMDataRequest::setKey(const char* key) { return setKeyOf(*this, key); }
std::string MMDataRequest::getKey() { return keyOf(*this); }
int MMDataRequest::getKey(char* buf, int size) { return copyText(getKey(), buf, size); }
int MMDataRequest::setValueType(const char* type_name) { return setValueTypeOf(*this, type_name); }
std::string MMDataRequest::getValueType() {
  return std::string(drovane::valueTypeName(value_type));
}
int MMDataRequest::getValueType(char* buf, int size) { return copyText(getValueType(), buf, size); }

int MMActuatorRequest::setKey(const char* key) { return setKeyOf(*this, key); }
std::string MMActuatorRequest::getKey() { return keyOf(*this); }
int MMActuatorRequest::getKey(char* buf, int size) { return copyText(getKey(), buf, size); }
int MMActuatorRequest::setValueType(const char* type_name) {
  return setValueTypeOf(*this, type_name);
}
std::string MMActuatorRequest::getValueType() {
  return std::string(drovane::valueTypeName(value_type));
}
int MMActuatorRequest::getValueType(char* buf, int size) {
  return copyText(getValueType(), buf, size);
}
int MMActuatorRequest::setValue(const char* text) { return setValueOf(*this, text); }
std::string MMActuatorRequest::getValue() { return valueOf(*this); }
int MMActuatorRequest::getValue(char* buf, int size) { return copyText(getValue(), buf, size); }
