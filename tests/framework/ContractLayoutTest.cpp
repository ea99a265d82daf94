// What a plug-in that was compiled against the contract headers relies on: slots, members, order.
#include <gtest/gtest.h>

#include <cstdint>
#include <type_traits>
#include <vector>

#include "framework/Identity.h"
#include "support/Message.h"
#include "support/SlotOf.h"
#include "support/TestRovik.h"

namespace {

TEST(ContractLayoutTest, TheSlotsStandInTheirOrder) {
  constexpr std::size_t kDestructors = 2;
  EXPECT_EQ(slotOf(&Rovik::main), 0U);
  EXPECT_EQ(slotOf(&Rovik::stop), 1 + kDestructors);
  EXPECT_EQ(slotOf(&Rovik::interpretCmd), 2 + kDestructors);
  EXPECT_EQ(slotOf(&Rovik::getDescription), 3 + kDestructors);
  EXPECT_EQ(slotOf(&Rovik::selectMM), 4 + kDestructors);
  EXPECT_EQ(slotOf(&Rovik::selectFD), 5 + kDestructors);
  EXPECT_EQ(slotOf(&Rovik::selectTI), 6 + kDestructors);
  EXPECT_EQ(slotOf(&Thread::main), 0U);
  EXPECT_EQ(slotOf(&Thread::stop), 1 + kDestructors);
}

TEST(ContractLayoutTest, AVirtualOfADerivedClassStandsBehindThem) {
  class Derived : public Rovik {
   public:
    virtual int first() { return 0; }
  };
  EXPECT_EQ(slotOf(&Derived::first), 9U);
}

TEST(ContractLayoutTest, TheBasesAreThoseOfTheContract) {
  static_assert(std::is_base_of_v<Thread, Rovik>);
  static_assert(std::has_virtual_destructor_v<Thread>);
  static_assert(std::is_same_v<decltype(TestRovik::fd), int>);
  static_assert(std::is_same_v<decltype(TestRovik::period), TimeValue>);
  static_assert(std::is_same_v<decltype(TestRovik::timer), Timer>);
  static_assert(std::is_same_v<decltype(TestRovik::readfds), fd_set>);
  static_assert(std::is_same_v<decltype(TestRovik::id), int>);
  static_assert(std::is_same_v<decltype(TestRovik::type), int>);
  static_assert(std::is_same_v<decltype(TestRovik::name), std::string>);
  static_assert(MT_NETWORK_GENERIC == 1 && MT_LUA == 8 && sizeof(RovikTypes) == 4);
}

// True when each member begins behind the one before it.
bool inOrder(const std::vector<const void*>& members) {
  for (std::size_t i = 1; i < members.size(); ++i)
    if (!std::less<>()(members[i - 1], members[i])) return false;
  return true;
}

TEST(ContractLayoutTest, TheMembersOfARovikStandInTheirOrder) {
  const drovane::IdentityForConstruction identity(5, "boiler");
  TestRovik rovik;
  EXPECT_TRUE(inOrder({&rovik.fd, &rovik.period, &rovik.timer, &rovik.readfds, &rovik.id,
                       &rovik.type, &rovik.name}));
}

TEST(ContractLayoutTest, TheHeaderFieldsStandInTheirOrder) {
  const auto msg = newMessage<RovikMessage>(MM_EMPTY);
  EXPECT_TRUE(inOrder({&msg->type, &msg->seqnr, &msg->ident, &msg->flags, &msg->src, &msg->src_s,
                       &msg->dst, &msg->dst_s, &msg->last, &msg->route}));
  static_assert(std::is_same_v<decltype(RovikMessage::messageLock), Mutex>);
  static_assert(std::is_same_v<decltype(msg->route), bool>);
}

TEST(ContractLayoutTest, ThePayloadFieldsStandInTheirOrder) {
  const auto data = newMessage<MMData>(MM_DATA);
  EXPECT_TRUE(inOrder({&data->route, &data->network_type, &data->network_id, &data->node_id,
                       &data->value_id, &data->tv_sec, &data->tv_usec, &data->value_type,
                       &data->value_i, &data->value_f, &data->value_s}));
  const auto request = newMessage<MMDataRequest>(MM_DATA_REQUEST);
  EXPECT_TRUE(inOrder({&request->route, &request->network_id, &request->node_id, &request->value_id,
                       &request->value_type, &request->req_op, &request->from_tv_sec,
                       &request->from_tv_usec, &request->to_tv_sec, &request->to_tv_usec}));
  const auto actuator = newMessage<MMActuatorRequest>(MM_ACTUATOR_REQUEST);
  EXPECT_TRUE(
      inOrder({&actuator->route, &actuator->network_id, &actuator->node_id, &actuator->value_id,
               &actuator->value_type, &actuator->value_i, &actuator->value_f, &actuator->value_s}));
  const auto note = newMessage<MMMsg>(MM_MSG);
  EXPECT_TRUE(inOrder({&note->route, &note->channel, &note->msg}));
}

// All of them are of one type: a number of 32 bits without a sign.
template <typename... Numbers>
constexpr bool areUint32 = (std::is_same_v<Numbers, std::uint32_t> && ...);

TEST(ContractLayoutTest, TheNumbersOfARecordHave32Bits) {
  using Header = RovikMessage;
  static_assert(areUint32<decltype(Header::type), decltype(Header::seqnr), decltype(Header::ident),
                          decltype(Header::flags), decltype(Header::src), decltype(Header::dst),
                          decltype(Header::last)>);
  static_assert(areUint32<decltype(MMData::network_type), decltype(MMData::network_id),
                          decltype(MMData::node_id), decltype(MMData::value_id),
                          decltype(MMData::tv_sec), decltype(MMData::tv_usec),
                          decltype(MMData::value_type), decltype(MMData::value_i)>);
  using Request = MMDataRequest;
  static_assert(areUint32<decltype(Request::network_id), decltype(Request::node_id),
                          decltype(Request::value_id), decltype(Request::value_type),
                          decltype(Request::req_op), decltype(Request::from_tv_sec),
                          decltype(Request::from_tv_usec), decltype(Request::to_tv_sec),
                          decltype(Request::to_tv_usec)>);
  using Actuator = MMActuatorRequest;
  static_assert(areUint32<decltype(Actuator::network_id), decltype(Actuator::node_id),
                          decltype(Actuator::value_id), decltype(Actuator::value_type),
                          decltype(Actuator::value_i), decltype(MMMsg::channel)>);
  static_assert(std::is_same_v<decltype(MMData::value_f), float> &&
                std::is_same_v<decltype(Actuator::value_f), float> && sizeof(float) == 4);
}

TEST(ContractLayoutTest, ANewRovikHasItsIdentityAndItsDefaults) {
  const drovane::IdentityForConstruction identity(5, "boiler");
  TestRovik rovik;
  EXPECT_EQ(rovik.fd, -1);
  EXPECT_EQ(rovik.id, 5);
  EXPECT_EQ(rovik.name, "boiler");
  EXPECT_FALSE(rovik.timer.expiry().has_value());
  for (int number = 0; number < FD_SETSIZE; ++number)
    EXPECT_FALSE(FD_ISSET(number, &rovik.readfds));
}

TEST(ContractLayoutTest, AnIdentityIsSetAsideForOneConstructionOnOneThread) {
  {
    const drovane::IdentityForConstruction identity(5, "boiler");
    EXPECT_EQ(drovane::IdentityForConstruction::current().name, "boiler");
  }
  EXPECT_EQ(drovane::IdentityForConstruction::current().id, 0);
  EXPECT_EQ(drovane::IdentityForConstruction::current().name, "");
}

TEST(ContractLayoutTest, TheSlotsOfTheBaseClassDoNothing) {
  const drovane::IdentityForConstruction identity(5, "boiler");
  Rovik rovik;
  const auto msg = newNote("x");
  char word[] = "open";
  char* words[10] = {word};
  EXPECT_EQ(rovik.interpretCmd(words), "");
  EXPECT_EQ(rovik.getDescription(nullptr), 0);
  EXPECT_EQ(rovik.selectMM(msg.get()), 0);
  EXPECT_EQ(rovik.selectFD(), 0);
  EXPECT_EQ(rovik.selectTI(), 0);
}

TEST(ContractLayoutTest, ATranslationKeepsItsThreeTexts) {
  const Rovik::Translation translation("5_1_0", "in", "out");
  EXPECT_EQ(translation.key, "5_1_0");
  EXPECT_EQ(translation.map_in, "in");
  EXPECT_EQ(translation.map_out, "out");
}

}  // namespace
