// How long an opening waits for a peer that does not answer.
#include <algorithm>
#include <chrono>

#include "NetTest.h"

namespace {

using Seconds = std::chrono::duration<double>;

class ConnectTime : public NetTest {
 protected:
  Seconds timeOfOpening() const {
    const auto began = std::chrono::steady_clock::now();
    EXPECT_EQ("ERROR", net->command({"open"}));
    return std::chrono::steady_clock::now() - began;
  }
};

// A busy machine makes each time longer and none shorter, so the shortest of some is looked at.
TEST_F(ConnectTime, IsASecond) {
  const UnansweringPort nobody;
  net->command({"host", "127.0.0.1"});
  net->command({"port", std::to_string(nobody.port())});
  Seconds shortest = timeOfOpening();
  for (int i = 0; i < 4 && shortest > Seconds(1.5); ++i)
    shortest = std::min(shortest, timeOfOpening());
  EXPECT_GE(shortest, Seconds(0.99));
  EXPECT_LT(shortest, Seconds(1.8));
}

}  // namespace
