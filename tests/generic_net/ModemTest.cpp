// Hardware flow control ("rts") and the DTR line ("dtr") of a serial port.
#include <sys/ioctl.h>
#include <unistd.h>

#include <array>

#include "CallFaults.h"
#include "SerialLink.h"

namespace {

class Modem : public SerialLink {
 protected:
  // The command fails for this reason, and the port stays open and as it was.
  void expectFailure(const std::string& keyword, const std::string& word,
                     const std::string& reason) {
    const std::string text = std::string(word == "on" ? "could not set " : "could not clear ") +
                             (keyword == "rts" ? "RTS" : "DTR");
    const int port = net->fd;
    const std::size_t warned = warnings();
    takeSettings();
    EXPECT_EQ("ERROR", net->command({keyword, word}));
    EXPECT_EQ((Lines{errorLine(reason), errorLine(text)}), newLines());
    EXPECT_EQ(text, warning());
    EXPECT_EQ(warned + 2, warnings());
    EXPECT_EQ(port, net->fd);
    EXPECT_FALSE(takeSettings());
  }
};

TEST_F(Modem, RtsSwitchesHardwareFlowControl) {
  open();
  EXPECT_EQ("OK", net->command({"rts", "on"}));
  EXPECT_EQ(Lines{infoLine("RTS set")}, newLines());
  EXPECT_EQ(textOf(rawSettings(CS8 | CRTSCTS)), textOf(portSettings()));
  EXPECT_EQ("OK", net->command({"rts", "off"}));
  EXPECT_EQ(Lines{infoLine("RTS cleared")}, newLines());
  EXPECT_EQ(textOf(rawSettings()), textOf(portSettings()));
  EXPECT_EQ(0U, warnings());
}

TEST_F(Modem, EveryWordButOnSwitchesOff) {
  ModemLines modem(TIOCM_DTR);
  open();
  for (const char* word : {"ON", "yes", "1", ""}) {
    net->command({"rts", "on"});
    net->command({"dtr", "on"});
    newLines();
    EXPECT_EQ("OK", net->command({"rts", word}));
    EXPECT_EQ("OK", net->command({"dtr", word}));
    EXPECT_EQ((Lines{infoLine("RTS cleared"), infoLine("DTR cleared")}), newLines());
    EXPECT_EQ(textOf(rawSettings()), textOf(portSettings()));
    EXPECT_EQ(0, modem.lines);
  }
}

TEST_F(Modem, RtsMaySetWhatIsSetAlready) {
  open();
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(0, net->toggleRTS(true));
    EXPECT_EQ(textOf(rawSettings(CS8 | CRTSCTS)), textOf(portSettings()));
  }
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(0, net->toggleRTS(false));
    EXPECT_EQ(textOf(rawSettings()), textOf(portSettings()));
  }
}

// Those that the port has now, whoever has set them.
TEST_F(Modem, RtsKeepsEveryOtherSetting) {
  open();
  termios others = rawSettings(CS8 | CSTOPB | PARODD | HUPCL, B300);
  others.c_iflag = IXON | ISTRIP;
  others.c_oflag = OPOST;
  others.c_lflag = ECHO;
  others.c_cc[VMIN] = 7;
  others.c_cc[VTIME] = 3;
  device.set(others);
  EXPECT_EQ(0, net->toggleRTS(true));
  termios expected = others;
  expected.c_cflag |= CRTSCTS;
  EXPECT_EQ(textOf(expected), textOf(portSettings()));
  EXPECT_EQ(0, net->toggleRTS(false));
  EXPECT_EQ(textOf(others), textOf(portSettings()));
}

TEST_F(Modem, RtsDropsWhatHasComeIn) {
  open();
  for (const char* word : {"on", "off"}) {
    deliver("lost");
    EXPECT_EQ("OK", net->command({"rts", word}));
    EXPECT_EQ(0, net->bytesWaiting());
  }
  deliver("new");
}

// A pseudo-terminal's other end keeps what it has taken into a buffer of its own (4 KB); what is
// still on the way is dropped.
TEST_F(Modem, RtsDropsWhatIsStillToGoOut) {
  open();
  for (const char* word : {"on", "off"}) {
    ASSERT_GT(fillUp(net->fd), 10000U);
    EXPECT_EQ("OK", net->command({"rts", word}));
    EXPECT_EQ("OK", net->command({"test"}));
    EXPECT_LE(device.receiveUntil("TEST\n").size(), 4096U + 5U);
  }
}

// What was read already is the line in the making.
TEST_F(Modem, RtsLeavesTheLineBufferAlone) {
  open();
  feed("half");
  EXPECT_EQ("OK", net->command({"rts", "on"}));
  EXPECT_EQ(4, net->inbufpos);
  EXPECT_EQ("half", std::string(net->inbuf, 4));
}

TEST_F(Modem, DtrSwitchesItsLineAndNoOther) {
  constexpr int kOthers = TIOCM_RTS | TIOCM_CTS | TIOCM_CAR | TIOCM_DSR;
  ModemLines modem(kOthers);
  open();
  EXPECT_EQ(kOthers, modem.lines);
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ("OK", net->command({"dtr", "on"}));
    EXPECT_EQ(Lines{infoLine("DTR set")}, newLines());
    EXPECT_EQ(kOthers | TIOCM_DTR, modem.lines);
  }
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ("OK", net->command({"dtr", "off"}));
    EXPECT_EQ(Lines{infoLine("DTR cleared")}, newLines());
    EXPECT_EQ(kOthers, modem.lines);
  }
  EXPECT_EQ(0U, warnings());
}

TEST_F(Modem, DtrDropsNothingAndSetsNothingElse) {
  ModemLines modem(0);
  open();
  const int flushes = modem.flushes;
  takeSettings();
  deliver("kept");
  const std::size_t filled = fillUp(net->fd);
  EXPECT_EQ("OK", net->command({"dtr", "on"}));
  EXPECT_EQ("OK", net->command({"dtr", "off"}));
  EXPECT_EQ(flushes, modem.flushes);
  EXPECT_FALSE(takeSettings());
  EXPECT_EQ(4, net->bytesWaiting());
  EXPECT_EQ(filled, device.receive(filled).size());
}

TEST_F(Modem, OpeningAndRtsFlushOnceEach) {
  const ModemLines modem(0);
  open();
  EXPECT_EQ(1, modem.flushes);
  net->command({"rts", "on"});
  EXPECT_EQ(2, modem.flushes);
  net->command({"rts", "off"});
  EXPECT_EQ(3, modem.flushes);
}

// --- Failures

constexpr std::array kBoth{"on", "off"};

TEST_F(Modem, RtsFailureIsReportedAndThePortStaysOpen) {
  open();
  const struct {
    const char* call;
    const char* text;
  } kRows[] = {
      {"tcgetattr", "RTS: failed to get serial port attributes: "},
      {"tcflush", "RTS: failed to flush serial port: "},
      {"tcsetattr", "RTS: failed to set serial configuration: "},
  };
  for (const auto& row : kRows) {
    for (const char* word : kBoth) {
      SCOPED_TRACE(std::string(row.call) + " " + word);
      const FailingCall fault(row.call, EIO);
      expectFailure("rts", word, row.text + device.path() + " (errno: 5 Input/output error)");
    }
  }
  EXPECT_EQ(textOf(rawSettings()), textOf(portSettings()));
  deliver("x");
}

TEST_F(Modem, RtsFailureOfItsOwnIsTheWarning) {
  open();
  const FailingCall fault("tcflush", EINVAL);
  EXPECT_EQ(-1, net->toggleRTS(true));
  EXPECT_EQ("RTS: failed to flush serial port: " + device.path() + " (errno: 22 Invalid argument)",
            warning());
  EXPECT_EQ(1U, warnings());
}

// A pseudo-terminal has no modem lines.
TEST_F(Modem, DtrOfAPortWithoutModemLines) {
  open();
  for (const char* word : kBoth)
    expectFailure("dtr", word, "DTR: ioctl TIOCMGET (errno: 25 Inappropriate ioctl for device)");
  deliver("x");
}

TEST_F(Modem, DtrFailureIsReportedAndThePortStaysOpen) {
  const ModemLines modem(TIOCM_RTS);
  open();
  for (const char* word : kBoth) {
    {
      const FailingCall fault("TIOCMGET", EIO);
      expectFailure("dtr", word, "DTR: ioctl TIOCMGET (errno: 5 Input/output error)");
    }
    const FailingCall fault("TIOCMSET", EINVAL);
    expectFailure("dtr", word, "DTR: ioctl TIOCMSET (errno: 22 Invalid argument)");
    EXPECT_EQ(TIOCM_RTS, modem.lines);
  }
  deliver("x");
}

TEST_F(Modem, DtrFailureOfItsOwnIsTheWarning) {
  open();
  EXPECT_EQ(-1, net->toggleDTR(false));
  EXPECT_EQ("DTR: ioctl TIOCMGET (errno: 25 Inappropriate ioctl for device)", warning());
  EXPECT_EQ(1U, warnings());
}

TEST_F(Modem, UnpluggedPortFailsBoth) {
  open();
  unplug();
  for (const char* word : kBoth) {
    expectFailure("rts", word,
                  "RTS: failed to get serial port attributes: " + device.path() +
                      " (errno: 5 Input/output error)");
    expectFailure("dtr", word, "DTR: ioctl TIOCMGET (errno: 5 Input/output error)");
  }
}

TEST_F(Modem, LinesNeedAnOpenPort) {
  const struct {
    int (ExposedNet::*toggle)(bool);
    const char* text;
  } kRows[] = {
      {&ExposedNet::toggleRTS, "RTS: port not open, serial port must be open before setting RTS"},
      {&ExposedNet::toggleDTR, "DTR: port not open, serial port must be open before setting DTR"},
  };
  const ModemLines modem(0);
  for (const auto& row : kRows) {
    for (const bool on : {true, false}) {
      EXPECT_EQ(-1, (net.get()->*row.toggle)(on));
      EXPECT_EQ(Lines{errorLine(row.text)}, newLines());
      EXPECT_EQ(row.text, warning());
      EXPECT_EQ(-1, net->fd);
    }
  }
  EXPECT_EQ(4U, warnings());
}

// Which link it is matters before whether it is open.
TEST_F(Modem, OtherLinksHaveNoModemLines) {
  for (const ComMode mode : {COM_UDP, COM_TCP, COM_SSL}) {
    net->commode = mode;
    EXPECT_EQ(-1, net->toggleRTS(true));
    EXPECT_EQ(-1, net->toggleDTR(true));
    EXPECT_EQ((Lines{errorLine("RTS: not in tty mode"), errorLine("DTR: not in tty mode")}),
              newLines());
    EXPECT_EQ("DTR: not in tty mode", warning());
  }
}

// They go to the script, which there is none of.
TEST_F(Modem, CommandsOfAClosedPortAreNotTaken) {
  EXPECT_EQ("", net->command({"rts", "on"}));
  EXPECT_EQ("", net->command({"dtr", "on"}));
  EXPECT_EQ(0U, warnings());
}

TEST_F(Modem, LinesNeedASerialLink) {
  net->command({"mode", "tcp"});
  TcpPeer peer;
  openTo(peer);
  const struct {
    const char* keyword;
    const char* word;
    const char* reason;
  } kRows[] = {
      {"dtr", "on", "DTR: not in tty mode"},  {"dtr", "off", "DTR: not in tty mode"},
      {"dtr", "ON", "DTR: not in tty mode"},  {"rts", "on", "RTS: not in tty mode"},
      {"rts", "off", "RTS: not in tty mode"},
  };
  for (const auto& row : kRows) expectFailure(row.keyword, row.word, row.reason);
  EXPECT_GE(net->fd, 0);
}

}  // namespace
