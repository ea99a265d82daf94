// Which row of the command table takes a command, and what no row takes.
#include <iterator>

#include "NetTest.h"

namespace {

using Dispatch = NetTest;

TEST_F(Dispatch, UnknownWordIsNotHandled) {
  for (const char* word : {"nonsense", "", " ", "modes", "mod", "Mode", "MODE", "open ", "luacmd"})
    EXPECT_EQ("", net->command({word, "tcp"})) << word;
  EXPECT_EQ(Lines{}, newLines());
  EXPECT_EQ(0U, warnings());
}

TEST_F(Dispatch, EmptyVectorIsNotHandled) {
  EXPECT_EQ("", net->command({}));
  EXPECT_EQ(Lines{}, newLines());
}

TEST_F(Dispatch, KeywordsAreCaseSensitive) {
  for (const char* word : {"OPEN", "Close", "HOST", "Wol", "REGIN", "Port", "TEST", "Network_id"})
    EXPECT_EQ("", net->command({word, "on", "x", "y"})) << word;
  EXPECT_EQ(Lines{}, newLines());
}

TEST_F(Dispatch, KeywordsThatLackAWordAreNotHandled) {
  for (const char* word : {"mode", "ttymode", "tty", "baudrate", "eolin", "eolout", "port", "host",
                           "wol", "network_id"})
    EXPECT_EQ("", net->command({word})) << word;
  EXPECT_EQ(Lines{}, newLines());
}

TEST_F(Dispatch, WordsBeyondThoseNeededAreIgnored) {
  EXPECT_EQ("OK", net->command({"port", "80", "81", "82"}));
  EXPECT_EQ(80, net->port);
  EXPECT_EQ("OK", net->command({"raw", "on", "off"}));
  EXPECT_TRUE(net->raw);
}

// A setting that shapes the link, while one is open.
TEST_F(Dispatch, LinkSettingsAreNotHandledWhileTheLinkIsOpen) {
  TcpPeer peer;
  openTo(peer);
  EXPECT_EQ("", net->command({"mode", "udp"}));
  EXPECT_EQ("", net->command({"mode", "nonsense"}));
  EXPECT_EQ("", net->command({"ttymode", "7E1"}));
  EXPECT_EQ("", net->command({"ttymode", "SW"}));
  EXPECT_EQ("", net->command({"tty", "/dev/null"}));
  EXPECT_EQ("", net->command({"baudrate", "B50"}));
  EXPECT_EQ("", net->command({"port", "1"}));
  EXPECT_EQ("", net->command({"host", "192.0.2.1"}));
  EXPECT_EQ("", net->command({"open"}));
  EXPECT_EQ(COM_TCP, net->commode);
  EXPECT_EQ(TTY_8N1, net->ttymode);
  EXPECT_STREQ("", net->tty);
  EXPECT_EQ(speed_t{B9600}, net->baudrate);
  EXPECT_EQ(peer.port(), net->port);
  EXPECT_STREQ("127.0.0.1", net->host);
  EXPECT_EQ(Lines{}, newLines());
  EXPECT_EQ(0U, warnings());
}

TEST_F(Dispatch, LinkActionsAreNotHandledWhileTheLinkIsClosed) {
  EXPECT_EQ("", net->command({"dtr", "on"}));
  EXPECT_EQ("", net->command({"rts", "on"}));
  EXPECT_EQ("", net->command({"close"}));
  EXPECT_EQ("", net->command({"test"}));
  EXPECT_EQ(Lines{}, newLines());
}

TEST_F(Dispatch, OtherSettingsAreHandledWhileTheLinkIsOpen) {
  TcpPeer peer;
  openTo(peer);
  EXPECT_EQ("OK", net->command({"eolin", "x"}));
  EXPECT_EQ("OK", net->command({"eolout", "y"}));
  EXPECT_EQ("OK", net->command({"network_id", "9"}));
  EXPECT_EQ("OK", net->command({"wol", "adr", "192.0.2.255"}));
  EXPECT_EQ("OK", net->command({"wol", "mac", "00:11:22:33:44:55"}));
  EXPECT_EQ("ERROR", net->command({"wol", "xyz"}));
}

TEST_F(Dispatch, LinkActionsNeedTheirWordsOnAnOpenLinkToo) {
  TcpPeer peer;
  openTo(peer);
  EXPECT_EQ("", net->command({"dtr"}));
  EXPECT_EQ("", net->command({"rts"}));
  EXPECT_EQ(Lines{}, newLines());
}

using Command = std::vector<std::string>;

// Thirty rows under twenty-nine keywords: two rows share "ttymode".
TEST_F(Dispatch, EveryKeywordIsHandledInItsState) {
  const Command while_closed[] = {
      {"mode", "tcp"},
      {"ttymode", "8N1"},
      {"tty", "/dev/null"},
      {"baudrate", "B50"},
      {"raw", "off"},
      {"persist", "on"},
      {"reconnect", "off"},
      {"echo", "off"},
      {"chopeol", "on"},
      {"eolclose", "off"},
      {"eolin", "\\n"},
      {"eolout", "\\n"},
      {"addeol", "on"},
      {"iodebug", "off"},
      {"port", "1"},
      {"host", "127.0.0.1"},
      {"wol", "mac", "1"},
      {"network_id", "5"},
      {"open"},
      {"reg", "on"},
      {"accept_self_cert", "on"},
      {"unparsedout", "on"},
      {"unparsedin", "on"},
      {"regin", "1_1_1", "x", "y"},
      {"regout", "1_1_1", "x", "y"},
  };
  const Command while_open[] = {{"dtr", "on"}, {"rts", "on"}, {"test"}, {"close"}};
  EXPECT_EQ(29U, std::size(while_closed) + std::size(while_open));
  for (const auto& words : while_closed) EXPECT_NE("", net->command(words)) << words[0];
  TcpPeer peer;
  openTo(peer);
  for (const auto& words : while_open) EXPECT_NE("", net->command(words)) << words[0];
}

}  // namespace
