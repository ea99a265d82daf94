// A script that changes a TLS link while the session still holds, or the socket still has, what
// came on the old one.
#include "ReentryTest.h"

namespace {

class ReentryInARecord : public ReentryTest, public testing::WithParamInterface<Reentry> {
 protected:
  ReentryInARecord() : ReentryTest(tlsReentryPeer()) {}
};

TEST_P(ReentryInARecord, DropsWhatIsLeftOfAnOldLink) {
  actOn(GetParam());
  net->command({"raw", "on"});
  net->command({"open"});
  receive({std::string(4096, 'a') + std::string(4096, 'b') + std::string(100, 'c'), "d"});
  receive({"z"});
  peerLeaves();
  EXPECT_EQ(GetParam().trace, trace());
  EXPECT_LT(net->fd, 0);
}

INSTANTIATE_TEST_SUITE_P(EveryPair, ReentryInARecord,
                         testing::Values(Reentry{"a", "write", "open a close ! "},
                                         Reentry{"a", "close", "open a close ! "},
                                         Reentry{"a", "open", "open a ! b c d z close "},
                                         Reentry{"a", "reopen", "open a close open ! z close "},
                                         Reentry{"a", "rewrite", "open a close open ! z close "},
                                         Reentry{"b", "write", "open a b close ! "},
                                         Reentry{"b", "reopen", "open a b close open ! z close "},
                                         Reentry{"c", "reopen", "open a b c close open ! z close "},
                                         Reentry{"d", "rewrite",
                                                 "open a b c d close open ! z close "}),
                         nameOf);

}  // namespace
