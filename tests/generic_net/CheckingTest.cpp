// The commands while a configuration is only being checked: settings are tried, nothing acts.
#include "Drovane.h"
#include "NetTest.h"

namespace {

using testing::StartsWith;

class Checking : public NetTest {
 protected:
  Checking() { Drovane::global.setChecking(true); }
  ~Checking() override { Drovane::global.setChecking(false); }
};

TEST_F(Checking, OpenIsAnsweredWithoutOpening) {
  TcpPeer peer;
  net->command({"host", "127.0.0.1"});
  net->command({"port", std::to_string(peer.port())});
  newLines();
  EXPECT_EQ("OK", net->command({"open"}));
  EXPECT_EQ(-1, net->fd);
  EXPECT_FALSE(peer.linkWaits());
  EXPECT_EQ(Lines{}, newLines());
}

TEST_F(Checking, RowsThatNeedAnOpenLinkAreNotWrong) {
  EXPECT_EQ("OK", net->command({"close"}));
  EXPECT_EQ("OK", net->command({"test"}));
  EXPECT_EQ("OK", net->command({"dtr", "on"}));
  EXPECT_EQ("OK", net->command({"rts", "off"}));
  EXPECT_EQ(Lines{}, newLines());
  EXPECT_EQ("", net->command({"dtr"}));
}

TEST_F(Checking, WakeOnLanSendsNothing) {
  EXPECT_EQ("OK", net->command({"wol", "snd"}));
  EXPECT_EQ(Lines{}, newLines());
  EXPECT_EQ("ERROR", net->command({"wol", "nonsense"}));
  EXPECT_EQ("OK", net->command({"wol", "mac", "00:11:22:33:44:55"}));
}

TEST_F(Checking, SettingsAreMadeAndRefusedAsUsual) {
  EXPECT_EQ("OK", net->command({"port", "80"}));
  EXPECT_EQ(80, net->port);
  EXPECT_EQ("OK", net->command({"raw", "on"}));
  EXPECT_TRUE(net->raw);
  EXPECT_EQ("ERROR (UNKNOWN MODE)", net->command({"mode", "tpc"}));
  EXPECT_EQ("ERROR (UNKNOWN TTY MODE)", net->command({"ttymode", "SW"}));
  EXPECT_EQ("", net->command({"nonsense"}));
  EXPECT_EQ("", net->command({}));
}

TEST_F(Checking, GoodRulesAreTaken) {
  EXPECT_EQ("OK", net->command({"regin", "1_2_3", "^a(.*)$", "\\1"}));
  EXPECT_EQ("OK", net->command({"regout", "-1_0_0", "x", "y"}));
  EXPECT_EQ("OK", net->command({"regin", "1_2_3", "x", "y", "MM_ACTUATOR_REQUEST"}));
}

TEST_F(Checking, BadExpressionIsAnErrorThatNamesIt) {
  for (const char* keyword : {"regin", "regout"}) {
    const std::string reply = net->command({keyword, "1_2_3", "checking (", "y"});
    EXPECT_THAT(reply, StartsWith("ERROR (regular expression 'checking (' is not valid: "));
    EXPECT_THAT(reply, testing::EndsWith(")"));
  }
  EXPECT_TRUE(net->regexTableIN.empty());
  EXPECT_TRUE(net->regexTableOUT.empty());
}

TEST_F(Checking, BadKeyIsAnErrorThatNamesIt) {
  for (const char* keyword : {"regin", "regout"})
    for (const std::string key : {"1_2", "a_b_c", "", "1_2_3_4", " 1_2_3", "1_2_3x"})
      EXPECT_EQ("ERROR (key '" + key + "' is not three decimal numbers joined by _, such as 5_1_0)",
                net->command({keyword, key, "x", "y"}));
}

// Only checking looks at them: a device may be configured with what it never sends.
TEST_F(Checking, OtherwiseBadRulesAreTaken) {
  Drovane::global.setChecking(false);
  EXPECT_EQ("OK", net->command({"regin", "no key", "checking [", "y"}));
  EXPECT_EQ("OK", net->command({"regout", "no key", "checking [", "y"}));
}

}  // namespace
