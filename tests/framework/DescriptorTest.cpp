#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/select.h>

#include <array>

#include "framework/Descriptor.h"
#include "support/DescriptorLimits.h"

namespace {

using drovane::Descriptor;
using drovane::moveAboveLinks;

bool isOpen(int descriptor) { return fcntl(descriptor, F_GETFD) >= 0; }
int opened() { return open("/dev/null", O_RDONLY | O_CLOEXEC); }

TEST(DescriptorTest, IsClosedAtTheEndOfItsLife) {
  const int number = opened();
  {
    const Descriptor owner(number);
    EXPECT_TRUE(static_cast<bool>(owner));
    EXPECT_TRUE(isOpen(number));
  }
  EXPECT_FALSE(isOpen(number));
}

TEST(DescriptorTest, ANewOneHoldsNothing) {
  const Descriptor none;
  EXPECT_FALSE(static_cast<bool>(none));
  EXPECT_EQ(none.get(), -1);
}

TEST(DescriptorTest, MovingHandsItOn) {
  const int number = opened();
  Descriptor first(number);
  Descriptor second(std::move(first));
  EXPECT_EQ(second.get(), number);
  Descriptor third;
  third = std::move(second);
  EXPECT_EQ(third.get(), number);
  EXPECT_TRUE(isOpen(number));
}

TEST(DescriptorTest, AssigningClosesWhatWasHeld) {
  const int number = opened();
  Descriptor owner(number);
  owner = Descriptor(opened());
  EXPECT_FALSE(isOpen(number));
  EXPECT_TRUE(isOpen(owner.get()));
}

TEST(DescriptorTest, ReleaseGivesItAway) {
  Descriptor owner(opened());
  const int number = owner.release();
  owner.reset();
  EXPECT_TRUE(isOpen(number));
  EXPECT_EQ(close(number), 0);
}

TEST(DescriptorTest, MovesAboveTheNumbersOfLinks) {
  const DescriptorLimit limit(FD_SETSIZE + 64);
  if (!limit.isSet()) GTEST_SKIP() << "the hard limit of descriptors is too low";
  const int low = opened();
  const Descriptor high = moveAboveLinks(Descriptor(low));
  EXPECT_GE(high.get(), FD_SETSIZE);
  EXPECT_FALSE(isOpen(low));
  EXPECT_EQ(fcntl(high.get(), F_GETFD), FD_CLOEXEC);
}

TEST(DescriptorTest, StaysWhereTheLimitAllowsNothingElse) {
  const DescriptorLimit limit(FD_SETSIZE);
  ASSERT_TRUE(limit.isSet());
  const int low = opened();
  const Descriptor same = moveAboveLinks(Descriptor(low));
  EXPECT_EQ(same.get(), low);
  EXPECT_TRUE(isOpen(low));
}

TEST(DescriptorTest, NothingStaysNothing) { EXPECT_EQ(moveAboveLinks(Descriptor()).get(), -1); }

}  // namespace
