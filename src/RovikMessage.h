// The records that roviks exchange: one header and six kinds.
//
// Life of a record: create -> fill -> Rovik::messageSnd or messageSndBlock -> destroy, all by the
// rovik that made it. Sending copies; the sender keeps its own record and destroys it. A record
// that is handed to Rovik::selectMM belongs to the framework, may be shared with other receivers
// and must not be changed.
//
// create and destroy may be called from any thread. A record is used by one thread at a time.
#pragma once

#include <cjson/cJSON.h>

#include <cstdint>
#include <string>

#include "Mutex.h"

namespace drovane {
class RecordPool;
}

enum MessageTypes : std::uint32_t {
  MM_EMPTY = 0,             // no payload
  MM_DATA = 1,              // MMData
  MM_DATA_REQUEST = 2,      // MMDataRequest
  MM_ACTUATOR_REQUEST = 3,  // MMActuatorRequest
  MM_CMD_REQUEST = 4,       // MMCmdRequest
  MM_CMD_RESPONSE = 5,      // MMCmdResponse
  MM_MSG = 6,               // MMMsg
};

// Which of the value fields of a record counts. Their names in texts: "int", "float", "string".
enum ValueTypes : std::uint32_t { VAL_INT = 0, VAL_FLOAT = 1, VAL_STRING = 2 };

// The value of `dst` that means "not addressed by number".
inline constexpr std::uint32_t NO_DESTINATION = 16383;

// The header that all kinds share. Addressing: `dst` a rovik's number; or `dst` NO_DESTINATION
// and a name in `dst_s`; or, with neither, every rovik but the sender.
class RovikMessage {
 public:
  static Mutex messageLock;  // guards the stock of free records

  std::uint32_t type;   // a MessageTypes value, fixed by create
  std::uint32_t seqnr;  // given by the framework on sending when 0
  std::uint32_t ident;  // the sender's own
  std::uint32_t flags;  // the sender's own
  std::uint32_t src;    // number of the sending rovik, given on sending when 0
  std::string src_s;    // name of the sending rovik, given on sending when empty
  std::uint32_t dst;
  std::string dst_s;
  std::uint32_t last;  // framework bookkeeping
  bool route;          // framework bookkeeping

  // A new record of the kind, a broadcast, every other field zero or empty. Null when the type is
  // none of MessageTypes or memory is short.
  static RovikMessage* create(MessageTypes type);
  // From the text form: one line of JSON, as toJSON prints it. Null when it is none.
  static RovikMessage* create(char* text);
  // From the JSON form, which stays the caller's. Null when it describes no record.
  static RovikMessage* create(cJSON* json);
  // A copy, the caller's own.
  static RovikMessage* create(RovikMessage* original);
  // Releases a record that one of the create operations made; null is accepted.
  static void destroy(RovikMessage* msg);

  // Writes the one-line form for people into `buf`, NUL-terminated and cut to `size` bytes, and
  // returns the number of characters written.
  int toString(char* buf, int size);
  std::string toString();
  // Logs the one-line form at level 3.
  void print();

  // The whole record, or its header only, as a new JSON object that the caller deletes with
  // cJSON_Delete. A text that is not UTF-8, or that holds a zero byte, is written as hexadecimal
  // digits under its field's name with "_hex" behind it, so every record survives the way there
  // and back.
  virtual cJSON* toJSON();
  cJSON* headerToJSON();

 protected:
  explicit RovikMessage(MessageTypes kind);
  RovikMessage(const RovikMessage&) = default;
  RovikMessage& operator=(const RovikMessage&) = default;
  virtual ~RovikMessage() = default;

  // The payload in the one-line form.
  virtual std::string payloadText();

 private:
  friend class drovane::RecordPool;

  // Belongs to the place in memory, not to the value: copying a record leaves it alone.
  struct Bookkeeping {
    Bookkeeping() = default;
    Bookkeeping(const Bookkeeping&) {}
    Bookkeeping& operator=(const Bookkeeping&) { return *this; }
    // How many hold the record (std::atomic_ref): a broadcast is one record with many receivers.
    std::uint32_t holders = 1;
  };
  Bookkeeping book;
};

// Three kinds carry a key, "%d_%d_%d" of network_id, node_id and value_id: three decimal numbers,
// each with an optional minus sign and within 32 bits, with nothing around them.

// MM_DATA: a measured or reported value.
class MMData : public RovikMessage {
 public:
  MMData() : RovikMessage(MM_DATA) {}

  std::uint32_t network_type = 0;
  std::uint32_t network_id = 0;
  std::uint32_t node_id = 0;
  std::uint32_t value_id = 0;
  std::uint32_t tv_sec = 0;   // time of the value, given on sending when both are 0
  std::uint32_t tv_usec = 0;  // microseconds
  std::uint32_t value_type = VAL_INT;
  std::uint32_t value_i = 0;  // 32-bit two's complement
  float value_f = 0;
  std::string value_s;

  // Negative when `key` is not a key; the fields are then unchanged.
  int setKey(const char* key);
  // Writes the key into `buf`, NUL-terminated and cut to `size` bytes; returns its length.
  int getKey(char* buf, int size);
  std::string getKey();
  // Negative when the name is not "int", "float" or "string".
  int setValueType(const char* name);
  int getValueType(char* buf, int size);
  std::string getValueType();
  // Reads `text` as the value type says; negative when it does not fit, and nothing changes.
  int setValue(const char* text);
  int getValue(char* buf, int size);
  std::string getValue();

  cJSON* toJSON() override;

 protected:
  std::string payloadText() override;
};

// MM_DATA_REQUEST: asks for the current or recorded value of a key.
class MMDataRequest : public RovikMessage {
 public:
  MMDataRequest() : RovikMessage(MM_DATA_REQUEST) {}

  std::uint32_t network_id = 0;
  std::uint32_t node_id = 0;
  std::uint32_t value_id = 0;
  std::uint32_t value_type = VAL_INT;
  std::uint32_t req_op = 0;  // request operation code
  std::uint32_t from_tv_sec = 0;
  std::uint32_t from_tv_usec = 0;
  std::uint32_t to_tv_sec = 0;
  std::uint32_t to_tv_usec = 0;

  int setKey(const char* key);
  int getKey(char* buf, int size);
  std::string getKey();
  int setValueType(const char* name);
  int getValueType(char* buf, int size);
  std::string getValueType();

  cJSON* toJSON() override;

 protected:
  std::string payloadText() override;
};

// MM_ACTUATOR_REQUEST: asks to set a value on a device.
class MMActuatorRequest : public RovikMessage {
 public:
  MMActuatorRequest() : RovikMessage(MM_ACTUATOR_REQUEST) {}

  std::uint32_t network_id = 0;
  std::uint32_t node_id = 0;
  std::uint32_t value_id = 0;
  std::uint32_t value_type = VAL_INT;
  std::uint32_t value_i = 0;
  float value_f = 0;
  std::string value_s;

  int setKey(const char* key);
  int getKey(char* buf, int size);
  std::string getKey();
  int setValueType(const char* name);
  int getValueType(char* buf, int size);
  std::string getValueType();
  int setValue(const char* text);
  int getValue(char* buf, int size);
  std::string getValue();

  cJSON* toJSON() override;

 protected:
  std::string payloadText() override;
};

// MM_CMD_REQUEST: a command line for the receiving rovik.
class MMCmdRequest : public RovikMessage {
 public:
  MMCmdRequest() : RovikMessage(MM_CMD_REQUEST) {}
  std::string cmd;
  cJSON* toJSON() override;

 protected:
  std::string payloadText() override;
};

// MM_CMD_RESPONSE: the reply text to a command request.
class MMCmdResponse : public RovikMessage {
 public:
  MMCmdResponse() : RovikMessage(MM_CMD_RESPONSE) {}
  std::string rsp;
  cJSON* toJSON() override;

 protected:
  std::string payloadText() override;
};

// MM_MSG: free text.
class MMMsg : public RovikMessage {
 public:
  MMMsg() : RovikMessage(MM_MSG) {}
  std::uint32_t channel = 0;
  std::string msg;
  cJSON* toJSON() override;

 protected:
  std::string payloadText() override;
};
