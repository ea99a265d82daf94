// Making, copying and releasing message records.
#include <gtest/gtest.h>

#include <cstdint>
#include <thread>
#include <vector>

#include "RovikMessage.h"
#include "framework/RecordPool.h"
#include "support/Message.h"

namespace {

using drovane::RecordPool;

const std::vector<MessageTypes> kAllKinds = {
    MM_EMPTY,       MM_DATA,         MM_DATA_REQUEST, MM_ACTUATOR_REQUEST,
    MM_CMD_REQUEST, MM_CMD_RESPONSE, MM_MSG};

// Everything in a record that a new one must not show, by its two text forms.
std::string wholeText(RovikMessage& msg) {
  cJSON* json = msg.toJSON();
  char* printed = cJSON_PrintUnformatted(json);
  std::string text(printed);
  cJSON_free(printed);
  cJSON_Delete(json);
  return text;
}

template <typename Kind>
void fillHeader(Kind& msg, const std::string& text) {
  msg.seqnr = msg.ident = msg.flags = msg.src = msg.dst = msg.last = 77;
  msg.src_s = msg.dst_s = text;
  msg.route = true;
}

// A record of the kind with every field set, its texts to `text`.
Owned<RovikMessage> filled(MessageTypes kind, const std::string& text) {
  Owned<RovikMessage> msg(RovikMessage::create(kind));
  fillHeader(*msg, text);
  if (auto* data = dynamic_cast<MMData*>(msg.get())) {
    data->network_type = data->network_id = data->node_id = data->value_id = 77;
    data->tv_sec = data->tv_usec = data->value_i = 77;
    data->value_type = VAL_STRING;
    data->value_f = 7.5F;
    data->value_s = text;
  } else if (auto* request = dynamic_cast<MMDataRequest*>(msg.get())) {
    request->network_id = request->node_id = request->value_id = request->req_op = 77;
    request->from_tv_sec = request->from_tv_usec = request->to_tv_sec = request->to_tv_usec = 77;
    request->value_type = VAL_FLOAT;
  } else if (auto* actuator = dynamic_cast<MMActuatorRequest*>(msg.get())) {
    actuator->network_id = actuator->node_id = actuator->value_id = actuator->value_i = 77;
    actuator->value_type = VAL_STRING;
    actuator->value_f = 7.5F;
    actuator->value_s = text;
  } else if (auto* command = dynamic_cast<MMCmdRequest*>(msg.get())) {
    command->cmd = text;
  } else if (auto* response = dynamic_cast<MMCmdResponse*>(msg.get())) {
    response->rsp = text;
  } else if (auto* note = dynamic_cast<MMMsg*>(msg.get())) {
    note->channel = 77;
    note->msg = text;
  }
  return msg;
}

void expectBlankHeader(const RovikMessage& msg, MessageTypes kind) {
  EXPECT_EQ(msg.type, kind);
  EXPECT_EQ(msg.seqnr, 0U);
  EXPECT_EQ(msg.ident, 0U);
  EXPECT_EQ(msg.flags, 0U);
  EXPECT_EQ(msg.src, 0U);
  EXPECT_EQ(msg.src_s, "");
  EXPECT_EQ(msg.dst, 16383U);
  EXPECT_EQ(msg.dst_s, "");
  EXPECT_EQ(msg.last, 0U);
  EXPECT_FALSE(msg.route);
}

void expectBlank(RovikMessage& msg, MessageTypes kind) {
  expectBlankHeader(msg, kind);
  if (auto* data = dynamic_cast<MMData*>(&msg)) {
    EXPECT_EQ(data->network_type | data->network_id | data->node_id | data->value_id, 0U);
    EXPECT_EQ(data->tv_sec | data->tv_usec | data->value_type | data->value_i, 0U);
    EXPECT_EQ(data->value_f, 0.0F);
    EXPECT_EQ(data->value_s, "");
  } else if (auto* request = dynamic_cast<MMDataRequest*>(&msg)) {
    EXPECT_EQ(request->network_id | request->node_id | request->value_id, 0U);
    EXPECT_EQ(request->value_type | request->req_op | request->from_tv_sec, 0U);
    EXPECT_EQ(request->from_tv_usec | request->to_tv_sec | request->to_tv_usec, 0U);
  } else if (auto* actuator = dynamic_cast<MMActuatorRequest*>(&msg)) {
    EXPECT_EQ(actuator->network_id | actuator->node_id | actuator->value_id, 0U);
    EXPECT_EQ(actuator->value_type | actuator->value_i, 0U);
    EXPECT_EQ(actuator->value_f, 0.0F);
    EXPECT_EQ(actuator->value_s, "");
  } else {
    EXPECT_EQ(textOf(msg), "");
    const auto* note = dynamic_cast<MMMsg*>(&msg);
    EXPECT_TRUE(note == nullptr || note->channel == 0);
  }
}

TEST(MessageCreateTest, TypesAndValueTypesHaveTheirNumbers) {
  EXPECT_EQ(MM_EMPTY, 0U);
  EXPECT_EQ(MM_DATA, 1U);
  EXPECT_EQ(MM_DATA_REQUEST, 2U);
  EXPECT_EQ(MM_ACTUATOR_REQUEST, 3U);
  EXPECT_EQ(MM_CMD_REQUEST, 4U);
  EXPECT_EQ(MM_CMD_RESPONSE, 5U);
  EXPECT_EQ(MM_MSG, 6U);
  EXPECT_EQ(VAL_INT, 0U);
  EXPECT_EQ(VAL_FLOAT, 1U);
  EXPECT_EQ(VAL_STRING, 2U);
  static_assert(sizeof(MessageTypes) == 4 && sizeof(ValueTypes) == 4);
}

TEST(MessageCreateTest, EachTypeMakesItsOwnKind) {
  EXPECT_NE(dynamic_cast<MMData*>(newMessage<RovikMessage>(MM_DATA).get()), nullptr);
  EXPECT_NE(dynamic_cast<MMDataRequest*>(newMessage<RovikMessage>(MM_DATA_REQUEST).get()), nullptr);
  EXPECT_NE(dynamic_cast<MMActuatorRequest*>(newMessage<RovikMessage>(MM_ACTUATOR_REQUEST).get()),
            nullptr);
  EXPECT_NE(dynamic_cast<MMCmdRequest*>(newMessage<RovikMessage>(MM_CMD_REQUEST).get()), nullptr);
  EXPECT_NE(dynamic_cast<MMCmdResponse*>(newMessage<RovikMessage>(MM_CMD_RESPONSE).get()), nullptr);
  EXPECT_NE(dynamic_cast<MMMsg*>(newMessage<RovikMessage>(MM_MSG).get()), nullptr);
  EXPECT_NE(newMessage<RovikMessage>(MM_EMPTY).get(), nullptr);
}

TEST(MessageCreateTest, ANewRecordIsABroadcastWithEverythingElseZeroOrEmpty) {
  for (const auto kind : kAllKinds) {
    SCOPED_TRACE(kind);
    expectBlank(*newMessage<RovikMessage>(kind), kind);
  }
}

// A record goes from processor to processor line by line.
TEST(MessageCreateTest, EachRecordBeginsAtACacheLine) {
  for (const auto kind : kAllKinds) {
    std::vector<Owned<RovikMessage>> records;
    while (records.size() < 10) records.push_back(newMessage<RovikMessage>(kind));
    for (const auto& record : records)
      EXPECT_EQ(reinterpret_cast<std::uintptr_t>(record.get()) % 64, 0U) << kind;
  }
}

TEST(MessageCreateTest, ARecycledRecordShowsNothingOfItsEarlierLife) {
  for (const auto kind : kAllKinds) {
    SCOPED_TRACE(kind);
    // More than a thread keeps by itself, so that records come back from everywhere.
    std::vector<Owned<RovikMessage>> first;
    for (int i = 0; i < 300; ++i) first.push_back(filled(kind, "of an earlier life"));
    first.clear();
    std::vector<Owned<RovikMessage>> second;
    for (int i = 0; i < 300; ++i) {
      second.push_back(newMessage<RovikMessage>(kind));
      expectBlank(*second.back(), kind);
    }
  }
}

TEST(MessageCreateTest, AnUnknownTypeMakesNoRecord) {
  EXPECT_EQ(RovikMessage::create(static_cast<MessageTypes>(7)), nullptr);
  EXPECT_EQ(RovikMessage::create(static_cast<MessageTypes>(0xFFFFFFFF)), nullptr);
}

TEST(MessageCreateTest, DestroyAcceptsNull) {
  const auto before = RecordPool::inUse();
  RovikMessage::destroy(nullptr);
  EXPECT_EQ(RecordPool::inUse(), before);
}

TEST(MessageCreateTest, ACopyIsEqualAndIndependent) {
  for (const auto kind : kAllKinds) {
    SCOPED_TRACE(kind);
    auto original = filled(kind, std::string("with a zero \0 inside", 20));
    const std::string text = wholeText(*original);
    Owned<RovikMessage> copy(RovikMessage::create(original.get()));
    ASSERT_NE(copy, nullptr);
    EXPECT_NE(copy.get(), original.get());
    original->src_s = "changed";
    original.reset();
    EXPECT_EQ(wholeText(*copy), text);
  }
}

TEST(MessageCreateTest, ACopyOfNothingIsNull) {
  EXPECT_EQ(RovikMessage::create(static_cast<RovikMessage*>(nullptr)), nullptr);
}

TEST(MessageCreateTest, InUseCountsEachRecordOnce) {
  const auto before = RecordPool::inUse();
  {
    const auto one = newMessage<MMData>(MM_DATA);
    const Owned<RovikMessage> two(RovikMessage::create(one.get()));
    EXPECT_EQ(RecordPool::inUse(), before + 2);
  }
  EXPECT_EQ(RecordPool::inUse(), before);
}

TEST(MessageCreateTest, ASharedRecordIsOneRecordUntilItsLastHolderLetsGo) {
  const auto before = RecordPool::inUse();
  RovikMessage* msg = RecordPool::fresh(MM_MSG);
  RecordPool::share(msg, 2);
  RecordPool::release(msg);
  RecordPool::release(msg);
  static_cast<MMMsg*>(msg)->msg = "still there";
  EXPECT_EQ(RecordPool::inUse(), before + 1);
  RecordPool::release(msg);
  EXPECT_EQ(RecordPool::inUse(), before);
}

TEST(MessageCreateTest, LargeTextsDoNotStayInFreeRecords) {
  constexpr std::size_t kLarge = 1 << 20;
  constexpr std::size_t kKept = 1024;
  std::vector<Owned<RovikMessage>> records;
  for (int i = 0; i < 100; ++i) records.push_back(filled(MM_DATA, std::string(kLarge, 'x')));
  records.clear();
  for (int i = 0; i < 100; ++i) {
    records.push_back(newMessage<RovikMessage>(MM_DATA));
    const auto& data = static_cast<MMData&>(*records.back());
    EXPECT_LE(data.value_s.capacity(), kKept);
    EXPECT_LE(data.src_s.capacity(), kKept);
    EXPECT_LE(data.dst_s.capacity(), kKept);
  }
}

#ifndef DROVANE_NO_RECYCLING
TEST(MessageCreateTest, ARecordThatComesBackIsUsedAgainWithTheMemoryOfItsText) {
  auto data = newText(std::string(1000, 'x'));
  const MMData* place = data.get();
  const char* memory = data->value_s.data();
  data.reset();
  data = newText(std::string(900, 'y'));
  EXPECT_EQ(data.get(), place);
  EXPECT_EQ(data->value_s.data(), memory);
}
#endif

TEST(MessageCreateTest, RecordsMayEndOnAnotherThread) {
  const auto before = RecordPool::inUse();
  std::vector<Owned<RovikMessage>> records;
  for (int round = 0; round < 20; ++round) {
    for (int i = 0; i < 200; ++i) records.push_back(filled(MM_DATA, "made here"));
    std::thread([&] {
      for (auto& record : records) EXPECT_EQ(textOf(*record), "made here");
      records.clear();
    }).join();
  }
  EXPECT_EQ(RecordPool::inUse(), before);
}

TEST(MessageCreateTest, TheBooksOfAThreadOutliveIt) {
  const auto before = RecordPool::inUse();
  std::vector<Owned<RovikMessage>> records;
  std::thread([&] {
    for (int i = 0; i < 200; ++i) records.push_back(filled(MM_MSG, "made by a thread"));
  }).join();
  EXPECT_EQ(RecordPool::inUse(), before + 200);
  records.clear();
  EXPECT_EQ(RecordPool::inUse(), before);
}

}  // namespace
