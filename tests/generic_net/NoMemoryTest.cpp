// What becomes of peer data when there is no memory for a message.
#include "NetTest.h"
#include "faults/MemoryFaults.h"
#include "support/Inbox.h"

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

class NetWithoutMemory : public NetTest {
 protected:
  void SetUp() override {
    openTo(peer);
    net->command({"chopeol", "on"});
    net->command({"reg", "on"});
    net->command({"regin", "5_1_0", "^T=(.*)$", "\\1"});
    net->command({"regin", "5_2_0", "^T=(.*)$", "\\1", "MM_ACTUATOR_REQUEST"});
    newLines();
  }

  TcpPeer peer;
  Inbox inbox;
};

TEST_F(NetWithoutMemory, ALineThatGetsNoMessageIsLostAndTheNextIsNot) {
  {
    const NoRecords gone(MM_DATA);
    feed(peer, "lost\n");
  }
  EXPECT_THAT(inbox.take(), IsEmpty());
  feed(peer, "next\n");
  EXPECT_THAT(inbox.take(), ElementsAre(dataText("5_0_0", "next")));
  EXPECT_EQ(0U, warnings());
}

TEST_F(NetWithoutMemory, ARuleThatGetsNoMessageDoesNotKeepTheOthersFromTheirs) {
  {
    const NoRecords gone(MM_DATA);
    feed(peer, "T=21\n");
  }
  EXPECT_THAT(inbox.take(), ElementsAre(requestText("5_2_0", "21")));
  EXPECT_THAT(newLines(), Contains(traceLine("REGIN MATCH")).Times(2));
}

TEST_F(NetWithoutMemory, ARequestThatGetsNoMessageDoesNotKeepTheDataFromTheirs) {
  {
    const NoRecords gone(MM_ACTUATOR_REQUEST);
    feed(peer, "T=21\n");
  }
  EXPECT_THAT(inbox.take(), ElementsAre(dataText("5_0_0", "T=21"), dataText("5_1_0", "21")));
}

}  // namespace
