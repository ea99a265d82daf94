// Keywords of the configuration, and functions of the script that have the same names.
#include <gtest/gtest.h>

#include "ScriptTest.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

using Words = std::vector<std::string>;

// The keywords that act on an open link only, and those that act on a closed one only.
const Words kOfAnOpenLink = {"dtr", "rts", "close", "test"};
const Words kOfAClosedLink = {"mode", "ttymode", "tty", "baudrate", "port", "host", "open"};

// A script with a function for each keyword that tells who it is and what it was given.
constexpr std::string_view kNamesakes = R"(
  local keywords = {'mode', 'ttymode', 'tty', 'baudrate', 'raw', 'dtr', 'rts', 'persist',
    'reconnect', 'echo', 'chopeol', 'eolclose', 'eolin', 'eolout', 'addeol', 'iodebug', 'port',
    'host', 'wol', 'network_id', 'open', 'close', 'accept_self_cert', 'reg', 'unparsedout',
    'unparsedin', 'regin', 'regout', 'test'}
  for _, word in ipairs(keywords) do
    _G[word] = function(words) return word .. ' of the script: ' .. tostring(words.arg1) end
  end)";

class Keywords : public ScriptTest {
 protected:
  void SetUp() override { script(kNamesakes); }

  void expectOfTheScript(const std::string& word) {
    EXPECT_EQ(word + " of the script: on", net->command({word, "on"}));
  }

  TcpPeer peer;
};

TEST_F(Keywords, OfTheOtherStateOfTheLinkAreFunctionsOfTheScript) {
  for (const auto& word : kOfAnOpenLink) expectOfTheScript(word);
  openTo(peer);
  newLines();
  for (const auto& word : kOfAClosedLink) expectOfTheScript(word);
  EXPECT_THAT(newLines(), IsEmpty());
  EXPECT_GE(net->fd, 0);
}

TEST_F(Keywords, WithoutTheWordsThatTheyNeedAreFunctionsOfTheScript) {
  for (const char* word : {"mode",
                           "ttymode",
                           "tty",
                           "baudrate",
                           "raw",
                           "persist",
                           "reconnect",
                           "echo",
                           "chopeol",
                           "eolclose",
                           "eolin",
                           "eolout",
                           "addeol",
                           "iodebug",
                           "port",
                           "host",
                           "wol",
                           "network_id",
                           "accept_self_cert",
                           "reg",
                           "unparsedout",
                           "unparsedin",
                           "regin",
                           "regout"})
    EXPECT_EQ(std::string(word) + " of the script: nil", net->command({word}));
  for (const char* word : {"regin", "regout"})
    EXPECT_EQ(std::string(word) + " of the script: 1_1_1", net->command({word, "1_1_1", "x"}));
  EXPECT_THAT(newLines(), IsEmpty());
}

TEST_F(Keywords, ThatAreTakenDoNotReachTheScript) {
  const Words kTaken[] = {
      {"mode", "tcp"},
      {"ttymode", "8N1"},
      {"tty", "x"},
      {"baudrate", "B50"},
      {"raw", "off"},
      {"persist", "on"},
      {"reconnect", "off"},
      {"echo", "off"},
      {"chopeol", "off"},
      {"eolclose", "off"},
      {"eolin", "\\n"},
      {"eolout", "\\n"},
      {"addeol", "off"},
      {"iodebug", "off"},
      {"port", "1"},
      {"host", "127.0.0.1"},
      {"wol", "adr", "0.0.0.0"},
      {"network_id", "5"},
      {"reg", "off"},
      {"accept_self_cert", "off"},
      {"unparsedout", "on"},
      {"unparsedin", "on"},
      {"regin", "1_1_1", "x", "y"},
      {"regout", "1_1_1", "x", "y"},
  };
  for (const Words& words : kTaken) EXPECT_EQ("OK", net->command(words)) << words[0];
  openTo(peer);
  for (const char* word : {"test", "close"}) EXPECT_EQ("OK", net->command({word}));
}

TEST_F(Keywords, ThatAreRefusedDoNotReachTheScript) {
  EXPECT_EQ("ERROR (UNKNOWN MODE)", net->command({"mode", "nonsense"}));
  EXPECT_EQ("ERROR (UNKNOWN TTY MODE)", net->command({"ttymode", "HW"}));
  EXPECT_EQ("ERROR", net->command({"wol", "nonsense"}));
  EXPECT_EQ("ERROR", net->command({"wol", "adr"}));
  EXPECT_EQ("ERROR", net->command({"open"}));
  openTo(peer);
  EXPECT_EQ("ERROR", net->command({"dtr", "on"}));
  EXPECT_EQ("ERROR", net->command({"rts", "on"}));
}

TEST_F(Keywords, OfTheOtherStateAreScriptErrorsWhereTheScriptHasNoSuchFunction) {
  script("");
  EXPECT_EQ("ERROR (LUA FUNCTION ERROR)", net->command({"test"}));
  EXPECT_THAT(newLines(), ElementsAre("2 lua function error: attempt to call a nil value"));
}

}  // namespace
