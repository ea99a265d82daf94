// The settings that are texts, byte sequences and numbers.
#include <cstring>

#include "NetTest.h"

namespace {

using TextCommands = NetTest;

TEST_F(TextCommands, HostIsKeptAsItIsWritten) {
  EXPECT_EQ("OK", net->command({"host", "192.0.2.7"}));
  EXPECT_STREQ("192.0.2.7", net->host);
  EXPECT_EQ(Lines{infoLine("host set to: 192.0.2.7")}, newLines());
  EXPECT_EQ("OK", net->command({"host", "a name %s%n is not looked at"}));
  EXPECT_STREQ("a name %s%n is not looked at", net->host);
  EXPECT_EQ(Lines{infoLine("host set to: a name %s%n is not looked at")}, newLines());
}

TEST_F(TextCommands, ShorterHostLeavesNothingOfALongerOne) {
  net->command({"host", "192.168.100.200"});
  net->command({"host", "10.0.0.1"});
  EXPECT_STREQ("10.0.0.1", net->host);
  net->command({"host", ""});
  EXPECT_STREQ("", net->host);
}

TEST_F(TextCommands, TtyIsKeptAsItIsWritten) {
  EXPECT_EQ("OK", net->command({"tty", "/dev/ttyUSB0"}));
  EXPECT_STREQ("/dev/ttyUSB0", net->tty);
  EXPECT_EQ(Lines{infoLine("serial port set to: /dev/ttyUSB0")}, newLines());
}

// 511, 512 and 513 characters into fields of 512.
TEST_F(TextCommands, TextsAreCutAtFiveHundredTwelveCharacters) {
  for (const std::size_t length : {511U, 512U, 513U, 5000U}) {
    const std::string text(length, 'x');
    const std::string kept(std::min<std::size_t>(length, 512), 'x');
    EXPECT_EQ("OK", net->command({"host", text}));
    EXPECT_EQ("OK", net->command({"tty", text}));
    EXPECT_EQ("OK", net->command({"wol", "adr", text}));
    EXPECT_EQ(kept, net->host);
    EXPECT_EQ(kept, net->tty);
    EXPECT_EQ(kept, net->wol_adr);
    EXPECT_EQ((Lines{infoLine("host set to: " + kept), infoLine("serial port set to: " + kept),
                     infoLine("WOL BC address set to: " + kept)}),
              newLines());
  }
}

TEST_F(TextCommands, PortIsTheDecimalNumberThatTheTextBeginsWith) {
  const struct {
    const char* text;
    int port;
  } kPorts[] = {{"7001", 7001},   {"0", 0},
                {"-5", -5},       {"+7", 7},
                {"  80", 80},     {"12ab", 12},
                {"ab12", 0},      {"", 0},
                {"0x10", 0},      {"010", 10},
                {"1.9", 1},       {"2147483647", 2147483647},
                {"65536", 65536}, {"-2147483648", -2147483647 - 1}};
  for (const auto& row : kPorts) {
    EXPECT_EQ("OK", net->command({"port", row.text})) << row.text;
    EXPECT_EQ(row.port, net->port) << row.text;
    EXPECT_EQ(Lines{infoLine("port set to: " + std::to_string(row.port))}, newLines());
  }
}

TEST_F(TextCommands, NetworkIdIsTheDecimalNumberThatTheTextBeginsWith) {
  const struct {
    const char* text;
    int number;
  } kIds[] = {{"7", 7}, {"-1", -1}, {"seven", 0}, {"19x", 19}, {"", 0}};
  for (const auto& row : kIds) {
    EXPECT_EQ("OK", net->command({"network_id", row.text})) << row.text;
    EXPECT_EQ(row.number, net->network_id) << row.text;
    EXPECT_EQ(Lines{infoLine("network_id set to: " + std::to_string(row.number))}, newLines());
  }
}

// Beyond what the field holds a number has no required value, but it must have one.
TEST_F(TextCommands, NumbersBeyondTheFieldStayAtItsEnds) {
  net->command({"port", "99999999999999999999999"});
  EXPECT_EQ(2147483647, net->port);
  net->command({"network_id", "-99999999999999999999999"});
  EXPECT_EQ(-2147483647 - 1, net->network_id);
}

struct EolRow {
  const char* text;
  std::string bytes;
};

const EolRow kEols[] = {
    {"\\r\\n", "\r\n"},
    {"\\n", "\n"},
    {"\\x03", "\x03"},
    {"\\0\\0", std::string(2, '\0')},
    {"end", "end"},
    {"\\q", "\\q"},
    {"", ""},
    {"123456789", "123456789"},
    {"1234567890", "1234567890"},
    {"12345678901", "1234567890"},
    {"123456789\\n\\r", "123456789\n"},
    {"123456789\\q", "123456789\\"},
    {"\\x01\\x02\\x03\\x04\\x05\\x06\\x07\\x08\\x09\\x0a\\x0b",
     "\x01\x02\x03\x04\x05\x06\x07\x08\x09\x0a"},
};

// The log shows the text as it was written, with the length of what it means.
std::string eolText(const char* which, const EolRow& row) {
  return std::string(which) + " set to " + row.text + ", length " +
         std::to_string(row.bytes.size());
}

TEST_F(TextCommands, EolinIsTheDecodedText) {
  for (const auto& row : kEols) {
    EXPECT_EQ("OK", net->command({"eolin", row.text}));
    ASSERT_EQ(static_cast<int>(row.bytes.size()), net->eolin_size) << row.text;
    EXPECT_EQ(row.bytes, std::string(net->eolin, row.bytes.size()));
    EXPECT_EQ(Lines{infoLine(eolText("eolin", row))}, newLines());
  }
  EXPECT_EQ(1, net->eolout_size);
}

TEST_F(TextCommands, EoloutIsTheDecodedText) {
  for (const auto& row : kEols) {
    EXPECT_EQ("OK", net->command({"eolout", row.text}));
    ASSERT_EQ(static_cast<int>(row.bytes.size()), net->eolout_size) << row.text;
    EXPECT_EQ(row.bytes, std::string(net->eolout, row.bytes.size()));
    EXPECT_EQ(Lines{infoLine(eolText("eolout", row))}, newLines());
  }
  EXPECT_EQ(1, net->eolin_size);
}

// A line end, an ESC and the like in a word cannot look like a second line of the log.
TEST_F(TextCommands, ControlBytesOfAWordStayOnOneLogLine) {
  net->command({"host", "a\nb\033[2J"});
  EXPECT_EQ(Lines{infoLine("host set to: a\\nb\\x1b[2J")}, newLines());
  EXPECT_STREQ("a\nb\033[2J", net->host);
}

}  // namespace
