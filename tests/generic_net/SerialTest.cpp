// The link over a serial line: how the port is opened and set up, and what a failure reports.
#include <fcntl.h>
#include <sys/fsuid.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>

#include "CallFaults.h"
#include "SerialLink.h"
#include "support/DescriptorLimits.h"
#include "support/TempFolder.h"

namespace {

using drovane::Descriptor;

using Words = std::vector<std::string>;

class Serial : public SerialLink {
 protected:
  // Opening fails with this report behind these lines, leaks nothing, and the link is closed as
  // before.
  void expectFailure(Lines lines, const std::string& report) {
    const int next = nextDescriptor();
    const std::size_t warned = warnings();
    EXPECT_EQ("ERROR", net->command({"open"}));
    EXPECT_EQ(-1, net->fd);
    lines.push_back(errorLine(report));
    lines.push_back(errorLine("open failed"));
    EXPECT_EQ(lines, newLines());
    EXPECT_EQ("open failed", warning());
    EXPECT_EQ(warned + 2, warnings());
    EXPECT_EQ(next, nextDescriptor());
  }

  // The port cannot even be opened.
  void expectNoPort(const std::string& path, const std::string& reason) {
    pointAt(path);
    expectFailure({traceLine("opening Serial socket")},
                  "open serial port: " + path + " (errno: " + reason + ")");
  }

  // What is there opens, but is no terminal.
  void expectNoTerminal(const std::string& path) {
    pointAt(path);
    expectFailure({traceLine("opening Serial socket")},
                  "failed to get serial port attributes: " + path +
                      " (errno: 25 Inappropriate ioctl for device)");
  }
};

// --- Opening and closing

TEST_F(Serial, OpenSaysWhatItDoesOnlyInTheTrace) {
  EXPECT_EQ("OK", net->command({"open"}));
  EXPECT_GE(net->fd, 0);
  EXPECT_EQ((Lines{traceLine("opening Serial socket"), traceLine("set baudrate to: 13")}),
            newLines());
  EXPECT_EQ(0U, warnings());
}

TEST_F(Serial, OpenPortDoesNotBlockAndIsNotInherited) {
  open();
  EXPECT_EQ(O_RDWR | O_NONBLOCK, fcntl(net->fd, F_GETFL) & (O_ACCMODE | O_NONBLOCK));
  EXPECT_EQ(FD_CLOEXEC, fcntl(net->fd, F_GETFD));
}

TEST_F(Serial, PortStaysNonBlockingWhateverIsDoneToIt) {
  const ModemLines modem(0);
  open();
  net->command({"rts", "on"});
  net->command({"dtr", "on"});
  net->command({"test"});
  feed("a\n");
  EXPECT_EQ(O_NONBLOCK, fcntl(net->fd, F_GETFL) & O_NONBLOCK);
}

bool hasControllingTerminal() {
  return static_cast<bool>(Descriptor(::open("/dev/tty", O_RDWR | O_CLOEXEC)));
}

// In a process that would take the next terminal that it opens, as the last step shows.
TEST_F(Serial, PortDoesNotBecomeTheControllingTerminal) {
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    if (setsid() < 0 || hasControllingTerminal()) _exit(1);
    if (net->openGeneric() != 0) _exit(2);
    if (hasControllingTerminal()) _exit(3);
    const Descriptor taken(::open(device.path().c_str(), O_RDWR | O_CLOEXEC));
    _exit(hasControllingTerminal() ? 0 : 4);
  }
  int status = -1;
  ASSERT_EQ(child, waitpid(child, &status, 0));
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(0, WEXITSTATUS(status));
}

TEST_F(Serial, OpeningAnOpenPortDoesNothing) {
  open();
  const int port = net->fd;
  deliver("waits");
  EXPECT_EQ(0, net->openGeneric());
  EXPECT_EQ(port, net->fd);
  EXPECT_EQ(5, net->bytesWaiting());
  EXPECT_EQ(Lines{}, newLines());
}

TEST_F(Serial, CloseEndsTheLinkWithoutAWord) {
  open();
  const int port = net->fd;
  EXPECT_EQ("OK", net->command({"close"}));
  EXPECT_EQ(-1, net->fd);
  EXPECT_EQ(-1, fcntl(port, F_GETFD));
  EXPECT_EQ(Lines{}, newLines());
  EXPECT_TRUE(device.seesEnd());
}

TEST_F(Serial, TransportsOwnCloseDoesNothing) {
  open();
  EXPECT_EQ(0, net->closeTTY());
  EXPECT_GE(net->fd, 0);
  deliver("x");
}

TEST_F(Serial, OpeningDropsWhatHasComeIn) {
  const Descriptor before = rawTerminal(device.path());
  device.send("stale");
  open();
  EXPECT_EQ(0, net->bytesWaiting());
  deliver("new");
}

// A pseudo-terminal's other end keeps what it has taken into a buffer of its own (4 KB); what is
// still on the way is dropped.
TEST_F(Serial, OpeningDropsWhatIsStillToGoOut) {
  const Descriptor before = rawTerminal(device.path());
  const std::size_t filled = fillUp(before.get());
  ASSERT_GT(filled, 10000U);
  open();
  EXPECT_EQ("OK", net->command({"test"}));
  EXPECT_LE(device.receiveUntil("TEST\n").size(), 4096U + 5U);
}

// --- Settings

struct Format {
  const char* name;
  TtyMode mode;
  tcflag_t flags;
};

constexpr Format kFormats[] = {
    {"8N1", TTY_8N1, CS8},
    {"7E1", TTY_7E1, CS7 | PARENB},
    {"7O1", TTY_7O1, CS7 | PARENB | PARODD},
    {"8O1", TTY_8O1, CS8 | PARENB | PARODD},
    {"8E1", TTY_8E1, CS8 | PARENB},
};

TEST_F(Serial, EveryFramingSetsTheWholePort) {
  for (const auto& format : kFormats) {
    SCOPED_TRACE(format.name);
    EXPECT_EQ("OK", net->command({"ttymode", format.name}));
    EXPECT_EQ(format.mode, net->ttymode);
    // Debian's C library calls it an error when nothing at all changes and the format is not kept.
    device.set(rawSettings(CS8 | CSTOPB, B300));
    takeSettings();
    open();
    const auto given = takeSettings();
    ASSERT_TRUE(given);
    EXPECT_EQ(textOf(rawSettings(format.flags)), textOf(*given));
    EXPECT_EQ(textOf(asAPseudoTerminalKeeps(rawSettings(format.flags))), textOf(portSettings()));
    net->command({"close"});
  }
}

// One of every kind, each other than what the port is to be set to.
TEST_F(Serial, NothingOfWhatThePortWasSetToIsKept) {
  termios strange{};
  strange.c_iflag = ICRNL | ISTRIP | PARMRK | INPCK | IXON | IXOFF | IXANY | BRKINT | INLCR;
  strange.c_oflag = OPOST | ONLCR | OCRNL;
  strange.c_cflag = CS8 | CSTOPB | PARODD | HUPCL | CRTSCTS | B300;
  strange.c_lflag = ICANON | ECHO | ECHOE | ISIG | IEXTEN | TOSTOP;
  std::memset(strange.c_cc, 'c', sizeof strange.c_cc);
  device.set(strange);
  ASSERT_NE(textOf(rawSettings()), textOf(device.settings()));
  open();
  EXPECT_EQ(textOf(rawSettings()), textOf(portSettings()));
}

struct Baud {
  const char* name;
  speed_t speed;
  const char* code;
};

constexpr Baud kBauds[] = {
    {"B50", B50, "1"},
    {"B75", B75, "2"},
    {"B110", B110, "3"},
    {"B134", B134, "4"},
    {"B150", B150, "5"},
    {"B200", B200, "6"},
    {"B300", B300, "7"},
    {"B600", B600, "8"},
    {"B1200", B1200, "9"},
    {"B1800", B1800, "10"},
    {"B2400", B2400, "11"},
    {"B4800", B4800, "12"},
    {"B9600", B9600, "13"},
    {"B19200", B19200, "14"},
    {"B38400", B38400, "15"},
    {"B57600", B57600, "4097"},
    {"B115200", B115200, "4098"},
    {"B230400", B230400, "4099"},
};

TEST_F(Serial, EverySpeedReachesThePort) {
  for (const auto& baud : kBauds) {
    SCOPED_TRACE(baud.name);
    EXPECT_EQ("OK", net->command({"baudrate", baud.name}));
    EXPECT_EQ(Lines{infoLine(std::string("baudrate set to ") + baud.code + " " + baud.name)},
              newLines());
    takeSettings();
    EXPECT_EQ("OK", net->command({"open"}));
    EXPECT_EQ((Lines{traceLine("opening Serial socket"),
                     traceLine(std::string("set baudrate to: ") + baud.code)}),
              newLines());
    const auto given = takeSettings();
    ASSERT_TRUE(given);
    EXPECT_EQ(textOf(rawSettings(CS8, baud.speed)), textOf(*given));
    EXPECT_EQ(textOf(rawSettings(CS8, baud.speed)), textOf(portSettings()));
    net->command({"close"});
    newLines();
  }
}

TEST_F(Serial, UnknownSpeedMeans9600) {
  EXPECT_EQ("OK", net->command({"baudrate", "B4000"}));
  EXPECT_EQ("unsupported baudrate requested, using B9600", warning());
  open();
  EXPECT_EQ(textOf(rawSettings()), textOf(portSettings()));
}

TEST_F(Serial, SoftwareFlowControlIsSetWithTheField) {
  net->fclmode = FCL_SW;
  EXPECT_EQ("OK", net->command({"open"}));
  EXPECT_EQ((Lines{traceLine("opening Serial socket"), traceLine("set baudrate to: 13")}),
            newLines());
  termios expected = rawSettings();
  expected.c_iflag |= IXON | IXOFF | IXANY;
  EXPECT_EQ(textOf(expected), textOf(portSettings()));
  EXPECT_EQ(0U, warnings());
}

TEST_F(Serial, FlowControlCannotBeSetByCommand) {
  for (const char* word : {"SW", "HW", "NO"}) {
    EXPECT_EQ("ERROR (UNKNOWN TTY MODE)", net->command({"ttymode", word}));
    EXPECT_EQ(Lines{errorLine("unknown tty mode")}, newLines());
    EXPECT_EQ("unknown tty mode", warning());
    EXPECT_EQ(FCL_NO, net->fclmode);
  }
  open();
  EXPECT_EQ(textOf(rawSettings()), textOf(portSettings()));
}

TEST_F(Serial, HardwareFlowControlIsRefusedButThePortOpens) {
  net->fclmode = FCL_HW;
  EXPECT_EQ("OK", net->command({"open"}));
  EXPECT_EQ(
      (Lines{traceLine("opening Serial socket"), errorLine("hardware flow control not supported"),
             traceLine("set baudrate to: 13")}),
      newLines());
  EXPECT_EQ("hardware flow control not supported", warning());
  EXPECT_EQ(1U, warnings());
  EXPECT_EQ(textOf(rawSettings()), textOf(portSettings()));
}

TEST_F(Serial, HardwareFlowControlCanBeSwitchedOnAfterItsRefusal) {
  net->fclmode = FCL_HW;
  open();
  EXPECT_EQ("OK", net->command({"rts", "on"}));
  EXPECT_EQ(textOf(rawSettings(CS8 | CRTSCTS)), textOf(portSettings()));
}

// --- Failures

TEST_F(Serial, DeviceThatIsNotThere) {
  const TempFolder folder;
  const std::string file = folder.write("file", "");
  expectNoPort(folder / "ttyUSB0", "2 No such file or directory");
  expectNoPort("", "2 No such file or directory");
  expectNoPort(folder.path(), "21 Is a directory");
  expectNoPort(file + "/ttyUSB0", "20 Not a directory");
}

// Opens files with another user's rights for as long as it lives, where this one's are the
// superuser's. The thread's own matter: no other notices.
class AnotherUsersFiles {
 public:
  AnotherUsersFiles() { ::setfsuid(65534); }
  ~AnotherUsersFiles() { ::setfsuid(::geteuid()); }
  AnotherUsersFiles(const AnotherUsersFiles&) = delete;
  AnotherUsersFiles& operator=(const AnotherUsersFiles&) = delete;
};

TEST_F(Serial, DeviceThatMayNotBeOpened) {
  ASSERT_EQ(0, chmod(device.path().c_str(), 0));
  {
    const AnotherUsersFiles as_another;
    expectNoPort(device.path(), "13 Permission denied");
  }
  ASSERT_EQ(0, chmod(device.path().c_str(), 0600));
  open();
}

TEST_F(Serial, DeviceThatMayOnlyBeRead) {
  ASSERT_EQ(0, chmod(device.path().c_str(), 0444));
  const AnotherUsersFiles as_another;
  expectNoPort(device.path(), "13 Permission denied");
}

TEST_F(Serial, DeviceThatWasUnplugged) {
  device.unplug();
  expectNoPort(device.path(), "2 No such file or directory");
}

TEST_F(Serial, WhatIsNoTerminalIsClosedAgain) {
  const TempFolder folder;
  const std::string file = folder.write("file", "content");
  const std::string fifo = folder / "fifo";
  ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));
  expectNoTerminal(file);
  expectNoTerminal("/dev/null");
  expectNoTerminal(fifo);
  EXPECT_EQ("content", folder.read("file"));
}

TEST_F(Serial, NoDescriptorLeftFailsTheOpening) {
  {
    const DescriptorLimit none(3);
    ASSERT_TRUE(none.isSet());
    expectNoPort(device.path(), "24 Too many open files");
  }
  open();
}

TEST_F(Serial, DescriptorThatDoesNotFitIntoReadfdsFailsTheOpening) {
  const LowDescriptorsTaken taken;
  if (!taken.possible()) GTEST_SKIP() << "the hard limit of descriptors is below FD_SETSIZE";
  ASSERT_GE(nextDescriptor(), FD_SETSIZE);
  expectNoPort(device.path(), "24 Too many open files");
}

// A rate in bits per second is no code.
TEST_F(Serial, SpeedThatTheSystemDoesNotKnow) {
  net->baudrate = 9600;
  takeSettings();
  expectFailure({traceLine("opening Serial socket"), traceLine("set baudrate to: 9600")},
                "failed to set baudrate: 9600 (errno: 22 Invalid argument)");
  EXPECT_FALSE(takeSettings());
}

// What no pseudo-terminal can be made to do while it is opened.
TEST_F(Serial, PortThatFailsWhileItIsSetUp) {
  const Lines begun{traceLine("opening Serial socket")};
  const Lines configured{traceLine("opening Serial socket"), traceLine("set baudrate to: 13")};
  const struct {
    const char* call;
    const Lines& lines;
    const char* text;
  } kRows[] = {
      {"tcgetattr", begun, "failed to get serial port attributes: "},
      {"tcflush", configured, "failed to flush serial port: "},
      {"tcsetattr", configured, "failed to set serial configuration: "},
  };
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.call);
    takeSettings();
    const FailingCall fault(row.call, EIO);
    expectFailure(row.lines, row.text + device.path() + " (errno: 5 Input/output error)");
    EXPECT_FALSE(takeSettings());
  }
  open();
}

// A pseudo-terminal keeps no parity. Debian's C library notices that nothing has changed; others
// say nothing.
TEST_F(Serial, FormatThatThePortCannotKeep) {
  const termios even = rawSettings(CS7 | PARENB);
  const Descriptor port = rawTerminal(device.path());
  if (tcsetattr(port.get(), TCSANOW, &even) == 0)
    GTEST_SKIP() << "this C library does not look whether a port keeps its format";
  net->command({"ttymode", "7E1"});
  newLines();
  expectFailure(
      {traceLine("opening Serial socket"), traceLine("set baudrate to: 13")},
      "failed to set serial configuration: " + device.path() + " (errno: 22 Invalid argument)");
}

TEST_F(Serial, PathOf512CharactersIsTakenWhole) {
  const std::string path = std::string(512 - device.path().size(), '/') + device.path();
  pointAt(path);
  open();
  deliver("x");
}

TEST_F(Serial, LongerPathIsCutTo512Characters) {
  const std::string path = std::string(512 - device.path().size(), '/') + device.path();
  pointAt(path + std::string(88, 'x'));
  open();
  deliver("x");
}

TEST_F(Serial, LongPathIsReportedAsFarAsItWasTaken) {
  pointAt(std::string(600, 'x'));
  expectFailure({traceLine("opening Serial socket")},
                "open serial port: " + std::string(512, 'x') + " (errno: 36 File name too long)");
}

// --- Opening once more

TEST_F(Serial, ReopeningSetsThePortAfresh) {
  open();
  EXPECT_EQ("OK", net->command({"rts", "on"}));
  net->command({"close"});
  EXPECT_NE(0U, device.settings().c_cflag & CRTSCTS);
  net->command({"ttymode", "7O1"});
  net->command({"baudrate", "B1200"});
  takeSettings();
  open();
  const termios expected = rawSettings(CS7 | PARENB | PARODD, B1200);
  const auto given = takeSettings();
  ASSERT_TRUE(given);
  EXPECT_EQ(textOf(expected), textOf(*given));
  EXPECT_EQ(textOf(asAPseudoTerminalKeeps(expected)), textOf(portSettings()));
}

TEST_F(Serial, OpenPortRefusesNewSettings) {
  open();
  for (const auto& words : {Words{"ttymode", "7E1"}, Words{"baudrate", "B50"},
                            Words{"tty", "/dev/null"}, Words{"mode", "tcp"}})
    EXPECT_EQ("", net->command(words)) << words.front();
  EXPECT_EQ(TTY_8N1, net->ttymode);
  EXPECT_EQ(speed_t{B9600}, net->baudrate);
  EXPECT_EQ(device.path(), net->tty);
  EXPECT_EQ(COM_TTY, net->commode);
  EXPECT_EQ(textOf(rawSettings()), textOf(portSettings()));
}

}  // namespace
