// The settings that are on or off.
#include <ostream>

#include "NetTest.h"

namespace {

struct FlagRow {
  const char* keyword;
  bool ExposedNet::*field;
  const char* on;
  const char* off;
};

std::ostream& operator<<(std::ostream& out, const FlagRow& row) { return out << row.keyword; }

const FlagRow kFlags[] = {
    {"raw", &ExposedNet::raw, "RAW data mode on (lua file needed!)", "RAW data mode off"},
    {"persist", &ExposedNet::persistent, "connection is maintained",
     "connections is not maintained"},
    {"reconnect", &ExposedNet::reconnect, "automatic reconnect to peer",
     "peer is not automatically reconnected"},
    {"echo", &ExposedNet::echo, "echo confirmation for request",
     "do not echo confirmation for request"},
    {"chopeol", &ExposedNet::chopeolin, "removing eol from received data",
     "not removing eol from received data"},
    {"eolclose", &ExposedNet::eolclose, "using socket close as end of line",
     "using eol character as end of line"},
    {"addeol", &ExposedNet::addeolout, "adding eol for sent data", "not adding eol for sent data"},
    {"iodebug", &ExposedNet::iodebug, "io debug info will be printed",
     "io debug info will not be printed"},
    {"accept_self_cert", &ExposedNet::accept_self_cert,
     "accepting self signed certs for ssl without verification",
     "not accepting self signed certs for ssl without verification"},
    {"reg", &ExposedNet::reg, "applying regular expressions", "regular expressions disabled"},
    {"unparsedout", &ExposedNet::unparsedout,
     "creating default unparsed out message <network_id>_0_0",
     "disable default unparsed out message <network_id>_0_0"},
    {"unparsedin", &ExposedNet::unparsedin,
     "reacting to default unparsed in message <network_id>_0_0",
     "not reacting to default unparsed in message <network_id>_0_0"},
};

class FlagCommands : public NetTest, public testing::WithParamInterface<FlagRow> {
 protected:
  bool& field() { return (*net).*GetParam().field; }
};

TEST_P(FlagCommands, OnSetsTheField) {
  field() = false;
  EXPECT_EQ("OK", net->command({GetParam().keyword, "on"}));
  EXPECT_TRUE(field());
  EXPECT_EQ(Lines{infoLine(GetParam().on)}, newLines());
  EXPECT_EQ(0U, warnings());
}

TEST_P(FlagCommands, EveryOtherWordClearsTheField) {
  for (const char* word : {"off", "yes", "ON", "On", "on ", " on", "1", "true", ""}) {
    field() = true;
    EXPECT_EQ("OK", net->command({GetParam().keyword, word})) << word;
    EXPECT_FALSE(field()) << word;
    EXPECT_EQ(Lines{infoLine(GetParam().off)}, newLines()) << word;
  }
}

TEST_P(FlagCommands, WithoutAWordNothingHandlesTheKeyword) {
  const bool before = field();
  EXPECT_EQ("", net->command({GetParam().keyword}));
  EXPECT_EQ(before, field());
  EXPECT_EQ(Lines{}, newLines());
}

TEST_P(FlagCommands, TakesEffectOnAnOpenLinkToo) {
  TcpPeer peer;
  openTo(peer);
  field() = false;
  EXPECT_EQ("OK", net->command({GetParam().keyword, "on"}));
  EXPECT_TRUE(field());
}

TEST_P(FlagCommands, ChangesNoOtherFlag) {
  for (const auto& row : kFlags) (*net).*row.field = false;
  net->command({GetParam().keyword, "on"});
  for (const auto& row : kFlags)
    EXPECT_EQ(row.field == GetParam().field, (*net).*row.field) << row.keyword;
}

INSTANTIATE_TEST_SUITE_P(Every, FlagCommands, testing::ValuesIn(kFlags),
                         [](const auto& entry) { return std::string(entry.param.keyword); });

}  // namespace
