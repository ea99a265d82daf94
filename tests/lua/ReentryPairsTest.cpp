// A script that writes, closes or opens the link from inside each of its event functions: every
// pair of event and action, over every kind of socket.
#include "ReentryTest.h"

namespace {

const Reentry kPairs[] = {
    // A link that is not kept ends with the write, and with it what was read but not handed over.
    {"open", "write", "open close ! message tick "},
    {"open", "close", "open close ! message tick "},
    {"open", "open", "open ! a b message tick c close "},
    {"open", "reopen", "open close open ! a b message tick c close "},
    {"open", "rewrite", "open close open ! a b message tick c close "},
    {"a", "write", "open a close ! message tick "},
    {"a", "close", "open a close ! message tick "},
    {"a", "open", "open a ! b message tick c close "},
    {"a", "reopen", "open a close open ! message tick c close "},
    {"a", "rewrite", "open a close open ! message tick c close "},
    {"b", "write", "open a b close ! message tick "},
    {"b", "reopen", "open a b close open ! message tick c close "},
    {"message", "write", "open a b message close ! tick "},
    {"message", "close", "open a b message close ! tick "},
    {"message", "open", "open a b message ! tick c close "},
    {"message", "reopen", "open a b message close open ! tick c close "},
    {"message", "rewrite", "open a b message close open ! tick c close "},
    {"tick", "write", "open a b message tick close ! "},
    {"tick", "close", "open a b message tick close ! "},
    {"tick", "open", "open a b message tick ! c close "},
    {"tick", "reopen", "open a b message tick close open ! c close "},
    {"tick", "rewrite", "open a b message tick close open ! c close "},
    // A link that is being closed is still open, and its close is not begun anew.
    {"close", "write", "open a b message tick c close ! "},
    {"close", "close", "open a b message tick c close ! "},
    {"close", "open", "open a b message tick c close ! "},
    {"close", "reopen", "open a b message tick c close ! "},
    {"close", "rewrite", "open a b message tick c close ! "},
};

// The last unit of a peer that marks the end by leaving. The report of its leave closes what is
// open then.
const Reentry kFarewells[] = {
    {"a", "write", "open a close ! "},
    {"a", "close", "open a close ! "},
    {"a", "open", "open a ! close "},
    {"a", "reopen", "open a close open ! close "},
    {"a", "rewrite", "open a close open ! close "},
};

std::vector<Reentry> everyPair() {
  std::vector<Reentry> rows;
  for (const char* event : {"open", "close", "a", "w", "message", "tick"})
    for (const char* action : {"write", "close", "open", "reopen", "rewrite"})
      rows.push_back({event, action});
  return rows;
}

struct Transport {
  const char* name;
  std::unique_ptr<ReentryPeer> (*make)();
};

const Transport kTransports[] = {
    {"Tcp", tcpReentryPeer},
    {"Tls", tlsReentryPeer},
    {"Udp", udpReentryPeer},
};

using Case = std::tuple<Transport, Reentry>;

std::string nameOfCase(const testing::TestParamInfo<Case>& info) {
  const auto& [transport, row] = info.param;
  return std::string(transport.name) + "_" + row.event + "_" + row.action;
}

class ReentryPairs : public ReentryTest, public testing::WithParamInterface<Case> {
 protected:
  ReentryPairs() : ReentryTest(std::get<Transport>(GetParam()).make()) {}
  const Reentry& row() const { return std::get<Reentry>(GetParam()); }
};

TEST_P(ReentryPairs, LeaveTheLinkWhereTheLastCallPutIt) {
  actOn(row());
  net->command({"open"});
  receive({"a", "b"});
  message();
  net->selectTI();
  receive({"c"});
  peerLeaves();
  EXPECT_EQ(row().trace, trace());
  EXPECT_LT(net->fd, 0);
}

INSTANTIATE_TEST_SUITE_P(Over, ReentryPairs,
                         testing::Combine(testing::ValuesIn(kTransports),
                                          testing::ValuesIn(kPairs)),
                         nameOfCase);

class ReentryFarewells : public ReentryPairs {};

TEST_P(ReentryFarewells, EndWithAClosedLink) {
  actOn(row());
  net->command({"eolclose", "on"});
  net->command({"open"});
  receive({"a"});
  peerLeaves();
  EXPECT_EQ(row().trace, trace());
  EXPECT_LT(net->fd, 0);
}

// Datagrams know no such end.
INSTANTIATE_TEST_SUITE_P(Over, ReentryFarewells,
                         testing::Combine(testing::Values(kTransports[0], kTransports[1]),
                                          testing::ValuesIn(kFarewells)),
                         nameOfCase);

class ReentryEachTime : public ReentryPairs {};

// The script does it whenever the event occurs, until the interpreter or the state ends it.
TEST_P(ReentryEachTime, EndsAndLeavesARovikThatWorks) {
  actEachTimeOn(row());
  net->command({"echo", "on"});
  net->command({"open"});
  receive({"a", "b"});
  message();
  net->selectTI();
  calmDown();
  EXPECT_EQ(0, net->openGeneric());
  lua("trace = ''");
  receive({"z"});
  EXPECT_EQ("z ", trace());
}

INSTANTIATE_TEST_SUITE_P(Over, ReentryEachTime,
                         testing::Combine(testing::ValuesIn(kTransports),
                                          testing::ValuesIn(everyPair())),
                         nameOfCase);

}  // namespace
