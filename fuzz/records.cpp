// Message records and their text form: every record survives the way there and back, and a text
// that is taken for a record is one.
//
// Input: a text (it begins with "{" or "[" or a blank), or else bytes that a record is filled with.
#include <fuzzer/FuzzedDataProvider.h>

#include <array>
#include <cmath>
#include <cstddef>
#include <string>
#include <string_view>

#include "Owned.h"
#include "RovikMessage.h"
#include "framework/MessageJson.h"
#include "support/Property.h"

using drovane::Json;
using fuzzing::require;
using fuzzing::requireSame;

namespace {

std::string lineOf(RovikMessage& msg) {
  const Json json(msg.toJSON());
  return drovane::jsonLine(json.get());
}

OwnedMessage<> recordOf(std::string line) {
  return OwnedMessage<>(RovikMessage::create(line.data()));
}

// Well-formed, in the shortest form, and nothing but characters.
bool isUtf8(std::string_view text) {
  for (std::size_t at = 0; at < text.size();) {
    const unsigned int lead = static_cast<unsigned char>(text[at++]);
    const int more = lead < 0x80 ? 0 : lead < 0xC0 ? -1 : lead < 0xE0 ? 1 : lead < 0xF0 ? 2 : 3;
    if (more < 0 || lead > 0xF7) return false;
    unsigned int code = more == 0 ? lead : lead & (0x3FU >> more);
    for (int i = 0; i < more; ++i, ++at) {
      if (at == text.size() || (text[at] & 0xC0) != 0x80) return false;
      code = code << 6 | (static_cast<unsigned char>(text[at]) & 0x3FU);
    }
    constexpr std::array<unsigned int, 4> kFirst = {0, 0x80, 0x800, 0x10000};
    const bool surrogate = code >= 0xD800 && code <= 0xDFFF;
    if (code < kFirst[static_cast<std::size_t>(more)] || surrogate || code > 0x10FFFF) return false;
  }
  return true;
}

// As C texts, which end at the first zero byte, cut to the buffer.
void checkForPeople(RovikMessage& msg, int room) {
  const std::string text = msg.toString();
  const auto buf = std::make_unique<char[]>(static_cast<std::size_t>(room) + 1);
  const int length = msg.toString(buf.get(), room);
  require(length >= 0 && (length < room || room == 0), "toString stays in its buffer");
  require(text.find('\n') == std::string::npos, "the form for people is one line");
  if (room > 0)
    requireSame(text.substr(0, static_cast<std::size_t>(room) - 1),
                {buf.get(), static_cast<std::size_t>(length)}, "a small buffer cuts the text");
}

template <typename Record>
void checkKey(Record& record) {
  Record other = record;
  require(other.setKey(record.getKey().c_str()) >= 0 && other.network_id == record.network_id &&
              other.node_id == record.node_id && other.value_id == record.value_id,
          "a key survives the way there and back");
  require(other.setValueType(record.getValueType().c_str()) >= 0 &&
              other.value_type == record.value_type,
          "a value type survives the way there and back");
}

template <typename Record>
void checkValue(Record& record) {
  checkKey(record);
  Record other = record;
  other.value_i = 0;
  other.value_f = 0;
  const std::string text = record.getValue();
  require(other.setValue(text.c_str()) >= 0, "a value's text is a value");
  if (record.value_type == VAL_INT) require(other.value_i == record.value_i, "an int survives");
  if (record.value_type == VAL_FLOAT)
    require(other.value_f == record.value_f ||
                (std::isnan(other.value_f) && std::isnan(record.value_f)),
            "a float survives");
}

void checkFields(RovikMessage& msg) {
  if (msg.type == MM_DATA) checkValue(static_cast<MMData&>(msg));
  if (msg.type == MM_ACTUATOR_REQUEST) checkValue(static_cast<MMActuatorRequest&>(msg));
  if (msg.type == MM_DATA_REQUEST) checkKey(static_cast<MMDataRequest&>(msg));
}

void checkRecord(RovikMessage& msg, int room) {
  const std::string line = lineOf(msg);
  require(line.find('\n') == std::string::npos, "the text form is one line");
  require(isUtf8(line), "the text form is UTF-8");
  const OwnedMessage<> again = recordOf(line);
  require(again != nullptr, "the text form of a record is a record");
  requireSame(line, lineOf(*again), "a record survives the way there and back");
  const OwnedMessage<> copy(RovikMessage::create(&msg));
  requireSame(line, lineOf(*copy), "a copy is the same record");
  checkForPeople(msg, room);
  checkFields(msg);
}

void checkText(const std::string& text) {
  const OwnedMessage<> msg = recordOf(text);
  if (msg != nullptr) checkRecord(*msg, static_cast<int>(text.size() % 100));
}

// --- Records out of bytes ---

std::string textFrom(FuzzedDataProvider& bytes) { return bytes.ConsumeRandomLengthString(64); }

void fillHeader(RovikMessage& msg, FuzzedDataProvider& bytes) {
  for (std::uint32_t* number : {&msg.seqnr, &msg.ident, &msg.flags, &msg.src, &msg.dst, &msg.last})
    *number = bytes.ConsumeIntegral<std::uint32_t>();
  msg.route = bytes.ConsumeBool();
  msg.src_s = textFrom(bytes);
  msg.dst_s = textFrom(bytes);
}

template <typename Record>
void fillKey(Record& record, FuzzedDataProvider& bytes) {
  for (std::uint32_t* number : {&record.network_id, &record.node_id, &record.value_id})
    *number = bytes.ConsumeIntegral<std::uint32_t>();
  record.value_type = bytes.ConsumeIntegralInRange<std::uint32_t>(VAL_INT, VAL_STRING);
}

template <typename Record>
void fillValue(Record& record, FuzzedDataProvider& bytes) {
  fillKey(record, bytes);
  record.value_i = bytes.ConsumeIntegral<std::uint32_t>();
  record.value_f = bytes.ConsumeFloatingPoint<float>();
  record.value_s = textFrom(bytes);
}

void fillPayload(MMData& data, FuzzedDataProvider& bytes) {
  fillValue(data, bytes);
  for (std::uint32_t* number : {&data.network_type, &data.tv_sec, &data.tv_usec})
    *number = bytes.ConsumeIntegral<std::uint32_t>();
}

void fillPayload(MMDataRequest& request, FuzzedDataProvider& bytes) {
  fillKey(request, bytes);
  for (std::uint32_t* number : {&request.req_op, &request.from_tv_sec, &request.from_tv_usec,
                                &request.to_tv_sec, &request.to_tv_usec})
    *number = bytes.ConsumeIntegral<std::uint32_t>();
}

void fill(RovikMessage& msg, FuzzedDataProvider& bytes) {
  fillHeader(msg, bytes);
  if (msg.type == MM_DATA) fillPayload(static_cast<MMData&>(msg), bytes);
  if (msg.type == MM_DATA_REQUEST) fillPayload(static_cast<MMDataRequest&>(msg), bytes);
  if (msg.type == MM_ACTUATOR_REQUEST) fillValue(static_cast<MMActuatorRequest&>(msg), bytes);
  if (msg.type == MM_CMD_REQUEST) static_cast<MMCmdRequest&>(msg).cmd = textFrom(bytes);
  if (msg.type == MM_CMD_RESPONSE) static_cast<MMCmdResponse&>(msg).rsp = textFrom(bytes);
  if (msg.type != MM_MSG) return;
  static_cast<MMMsg&>(msg).channel = bytes.ConsumeIntegral<std::uint32_t>();
  static_cast<MMMsg&>(msg).msg = textFrom(bytes);
}

void checkFilled(const std::uint8_t* data, std::size_t size) {
  FuzzedDataProvider bytes(data, size);
  const std::uint32_t type = bytes.ConsumeIntegral<std::uint8_t>() % 8U;
  const OwnedMessage<> msg(RovikMessage::create(static_cast<MessageTypes>(type)));
  require((msg != nullptr) == (type <= MM_MSG), "there are records of the kinds that there are");
  if (msg == nullptr) return;
  fill(*msg, bytes);
  checkRecord(*msg, bytes.ConsumeIntegral<std::uint8_t>());
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzzing::silenceLog();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const fuzzing::Balance balance;
  const std::string_view input = fuzzing::asText(data, size);
  if (size > 0 && std::string_view("{[ \n\t").find(input[0]) != std::string_view::npos)
    checkText(std::string(input));
  else
    checkFilled(data, size);
  balance.check();
  return 0;
}
