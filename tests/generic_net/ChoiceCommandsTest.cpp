// The settings that are one of several words: transport, serial framing, speed.
#include "NetTest.h"

namespace {

using ChoiceCommands = NetTest;

TEST_F(ChoiceCommands, ModeKnowsFourTransports) {
  const struct {
    const char* word;
    ComMode mode;
    int number;
    const char* text;
  } kModes[] = {
      {"udp", COM_UDP, 0, "mode set to UDP"},
      {"tcp", COM_TCP, 1, "mode set to TCP"},
      {"tty", COM_TTY, 2, "mode set to TTY"},
      {"ssl", COM_SSL, 3, "mode set to SSL"},
  };
  for (const auto& row : kModes) {
    EXPECT_EQ("OK", net->command({"mode", row.word}));
    EXPECT_EQ(row.mode, net->commode);
    EXPECT_EQ(row.number, static_cast<int>(net->commode));
    EXPECT_EQ(Lines{infoLine(row.text)}, newLines());
  }
  EXPECT_EQ(0U, warnings());
}

TEST_F(ChoiceCommands, UnknownModeIsRefusedAndTheModeStays) {
  net->command({"mode", "ssl"});
  newLines();
  for (const char* word : {"TCP", "tcp ", "", "serial", "udp4"}) {
    EXPECT_EQ("ERROR (UNKNOWN MODE)", net->command({"mode", word}));
    EXPECT_EQ(COM_SSL, net->commode);
    EXPECT_EQ(Lines{errorLine("unknown mode")}, newLines());
    EXPECT_EQ("unknown mode", warning());
  }
  EXPECT_EQ(5U, warnings());
}

TEST_F(ChoiceCommands, TtymodeKnowsFiveFramings) {
  const struct {
    const char* word;
    TtyMode mode;
    int number;
    const char* text;
  } kFramings[] = {
      {"7E1", TTY_7E1, 1, "mode set to 7E1"},     {"7O1", TTY_7O1, 2, "tty mode set to 7O1"},
      {"8O1", TTY_8O1, 3, "tty mode set to 8O1"}, {"8E1", TTY_8E1, 4, "mode set to 8E1"},
      {"8N1", TTY_8N1, 0, "tty mode set to 8N1"},
  };
  for (const auto& row : kFramings) {
    EXPECT_EQ("OK", net->command({"ttymode", row.word}));
    EXPECT_EQ(row.mode, net->ttymode);
    EXPECT_EQ(row.number, static_cast<int>(net->ttymode));
    EXPECT_EQ(Lines{infoLine(row.text)}, newLines());
  }
}

// Flow control shares its keyword with the framing, which answers first.
TEST_F(ChoiceCommands, FlowControlIsRefusedAsAnUnknownFraming) {
  for (const char* word : {"SW", "HW", "NO", "8n1", "7N1", ""}) {
    EXPECT_EQ("ERROR (UNKNOWN TTY MODE)", net->command({"ttymode", word}));
    EXPECT_EQ(FCL_NO, net->fclmode);
    EXPECT_EQ(TTY_8N1, net->ttymode);
    EXPECT_EQ(Lines{errorLine("unknown tty mode")}, newLines());
    EXPECT_EQ("unknown tty mode", warning());
  }
}

TEST_F(ChoiceCommands, BaudrateTakesTheSystemsCodeOfEveryName) {
  const struct {
    const char* name;
    int code;
  } kBauds[] = {
      {"B50", 1},       {"B75", 2},        {"B110", 3},       {"B134", 4},    {"B150", 5},
      {"B200", 6},      {"B300", 7},       {"B600", 8},       {"B1200", 9},   {"B1800", 10},
      {"B2400", 11},    {"B4800", 12},     {"B9600", 13},     {"B19200", 14}, {"B38400", 15},
      {"B57600", 4097}, {"B115200", 4098}, {"B230400", 4099},
  };
  for (const auto& row : kBauds) {
    EXPECT_EQ("OK", net->command({"baudrate", row.name}));
    EXPECT_EQ(static_cast<speed_t>(row.code), net->baudrate);
    EXPECT_EQ(Lines{infoLine("baudrate set to " + std::to_string(row.code) + " " + row.name)},
              newLines());
  }
  EXPECT_EQ(0U, warnings());
}

TEST_F(ChoiceCommands, UnknownBaudrateMeansB9600AndAWarning) {
  for (const std::string word : {"B4000", "9600", "b9600", "B460800", "", "B9600 "}) {
    net->command({"baudrate", "B50"});
    newLines();
    EXPECT_EQ("OK", net->command({"baudrate", word}));
    EXPECT_EQ(speed_t{B9600}, net->baudrate);
    EXPECT_EQ((Lines{errorLine("unsupported baudrate requested, using B9600"),
                     infoLine("baudrate set to 13 " + word)}),
              newLines());
    EXPECT_EQ("unsupported baudrate requested, using B9600", warning());
  }
}

}  // namespace
