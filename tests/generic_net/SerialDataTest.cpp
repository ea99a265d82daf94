// The link over a serial line: bytes in and out, a device that is unplugged, and one that floods.
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <thread>

#include "Drovane.h"
#include "RovikUtil.h"
#include "SerialLink.h"
#include "framework/RovikHost.h"
#include "support/Eventually.h"
#include "support/Inbox.h"
#include "support/ProcessMemory.h"
#include "support/TempFolder.h"
#include "support/TestRovik.h"

namespace {

namespace fs = std::filesystem;
using Values = std::vector<std::string>;

std::string everyByte() {
  std::string bytes;
  for (int i = 0; i < 256; ++i) bytes += static_cast<char>(i);
  return bytes;
}

// The bytes that a message's text stands for.
std::string bytesOf(const std::string& text) {
  std::string bytes(4096, '\0');
  const int length = RovikUtil::unescape(bytes.data(), 4096, text.c_str());
  bytes.resize(static_cast<std::size_t>(length));
  return bytes;
}

class SerialData : public SerialLink {
 protected:
  // Writes as a request would.
  int send(const std::string& bytes) {
    std::string buffer(4096, '\0');
    buffer.replace(0, bytes.size(), bytes);
    return net->sndData(buffer.data(), static_cast<int>(bytes.size()), 4096);
  }

  // Reading tells this and closes.
  void expectGone(const std::string& address) {
    const std::size_t warned = warnings();
    newLines();
    net->readLinkNow();
    const std::string text = "connection closed by peer " + address;
    EXPECT_EQ(Lines{errorLine(text)}, newLines());
    EXPECT_EQ(text, warning());
    EXPECT_EQ(warned + 1, warnings());
    EXPECT_EQ(-1, net->fd);
    EXPECT_EQ(0, net->inbufpos);
    EXPECT_TRUE(net->bufferIsClean());
  }

  // Writing fails with this text and closes.
  void expectNotWritten(const std::string& text) {
    EXPECT_EQ(-1, send("x"));
    EXPECT_EQ(Lines{errorLine(text)}, newLines());
    EXPECT_EQ(text, warning());
    EXPECT_EQ(1U, warnings());
    EXPECT_EQ(-1, net->fd);
  }

  Inbox inbox;
};

// --- In

TEST_F(SerialData, LinesBecomeMessages) {
  open();
  feed("first\nsecond\nhalf");
  EXPECT_EQ((std::vector{dataText("5_0_0", "first\\n"), dataText("5_0_0", "second\\n")}),
            inbox.take());
  feed(" line\n");
  EXPECT_EQ(Values{"half line\\n"}, inbox.takeValues());
}

TEST_F(SerialData, EndOfLineIsChoppedWhenAskedFor) {
  net->command({"chopeol", "on"});
  net->command({"eolin", "\\r\\n"});
  open();
  feed("21.5\r\n\r\n22\n23\r\n");
  EXPECT_EQ((Values{"21.5", "", "22\\n23"}), inbox.takeValues());
}

TEST_F(SerialData, LineMayComeByteByByte) {
  net->command({"eolin", "\\r\\n"});
  open();
  for (const char byte : std::string_view("meter=7\r\n")) {
    EXPECT_EQ(Values{}, inbox.takeValues());
    feed({&byte, 1});
  }
  EXPECT_EQ(Values{"meter=7\\r\\n"}, inbox.takeValues());
}

TEST_F(SerialData, RawHandsOverEveryReadAsItComes) {
  net->command({"raw", "on"});
  net->command({"eolclose", "on"});
  open();
  feed("a\nb");
  EXPECT_EQ(Values{"a\\nb"}, inbox.takeValues());
  feed("c");
  EXPECT_EQ(Values{"c"}, inbox.takeValues());
}

TEST_F(SerialData, LineOf4095BytesIsDeliveredAndOneMoreIsDropped) {
  open();
  feed(std::string(4095, 'x') + "\n");
  EXPECT_EQ(Values{std::string(4095, 'x') + "\\n"}, inbox.takeValues());
  feed(std::string(4096, 'y'));
  EXPECT_EQ(0, net->inbufpos);
  feed("new\n");
  EXPECT_EQ(Values{"new\\n"}, inbox.takeValues());
  EXPECT_EQ(0U, warnings());
}

// The characters of flow control, interrupt, erasing and end of file among them.
TEST_F(SerialData, EveryByteComesInUnharmed) {
  net->command({"raw", "on"});
  open();
  for (const std::string& bytes : {everyByte(), std::string("\x03\x03"), std::string("\xff\xff")}) {
    feed(bytes);
    const auto values = inbox.takeValues();
    ASSERT_EQ(1U, values.size());
    EXPECT_EQ(bytes, bytesOf(values[0]));
  }
}

// What is sent afterwards is the first that the device hears.
TEST_F(SerialData, DeviceDoesNotHearItself) {
  open();
  feed(everyByte() + "\r\n");
  EXPECT_EQ("OK", net->command({"test"}));
  EXPECT_EQ("TEST\n", device.receive(5));
}

// The port is told of flow control but of no characters for it.
TEST_F(SerialData, FlowControlCharactersAreDataEvenUnderSoftwareFlowControl) {
  net->fclmode = FCL_SW;
  net->command({"persist", "on"});
  open();
  feed("a\x13\x11z\x13\n");
  EXPECT_EQ(Values{"a\\x13\\x11z\\x13\\n"}, inbox.takeValues());
  EXPECT_EQ(0, send("still"));
  EXPECT_EQ("still", device.receive(5));
}

// --- Out

TEST_F(SerialData, EveryByteGoesOutUnharmed) {
  net->command({"persist", "on"});
  open();
  EXPECT_EQ(0, send(everyByte()));
  EXPECT_EQ(0, send("\n"));
  EXPECT_EQ(0, send("end"));
  EXPECT_EQ(everyByte() + "\nend", device.receive(260));
  EXPECT_EQ(Lines{}, newLines());
}

TEST_F(SerialData, WritingOpensThePortAndClosesItAfterwards) {
  newLines();
  EXPECT_EQ(0, send("once"));
  EXPECT_EQ(-1, net->fd);
  EXPECT_EQ((Lines{traceLine("opening Serial socket"), traceLine("set baudrate to: 13")}),
            newLines());
  EXPECT_EQ("once", device.receive(5));
}

TEST_F(SerialData, WritingToADeviceThatIsNotThereIsDropped) {
  device.unplug();
  EXPECT_EQ(0, send("dropped"));
  EXPECT_EQ(
      (Lines{
          traceLine("opening Serial socket"),
          errorLine("open serial port: " + device.path() + " (errno: 2 No such file or directory)"),
          errorLine("open failed"), traceLine("request message ignored as socket not connected")}),
      newLines());
}

TEST_F(SerialData, RequestGoesOutWithItsEndOfLine) {
  net->command({"persist", "on"});
  net->command({"addeol", "on"});
  net->command({"eolout", "\\r\\n"});
  open();
  MMActuatorRequest request;
  request.setKey("5_0_0");
  request.value_type = VAL_STRING;
  request.value_s = "on\\x00!";
  net->selectMM(&request);
  EXPECT_EQ(std::string("on\0!\r\n", 6), device.receive(6));
}

TEST_F(SerialData, WritingToAnUnpluggedPort) {
  open();
  unplug();
  expectNotWritten("write (errno: 5 Input/output error)");
}

TEST_F(SerialData, WritingToADeviceThatTakesNothingMore) {
  open();
  fillUp(net->fd);
  expectNotWritten("write (errno: 11 Resource temporarily unavailable)");
  EXPECT_TRUE(device.seesEnd());
}

// What does not fit is not tried again.
TEST_F(SerialData, WrittenInPartCountsAsWritten) {
  constexpr int kSize = 1 << 20;
  net->command({"persist", "on"});
  open();
  std::string data(kSize, 'y');
  EXPECT_EQ(0, net->sndData(data.data(), kSize, kSize));
  EXPECT_EQ(Lines{}, newLines());
  EXPECT_GE(net->fd, 0);
  net->command({"close"});
  const std::size_t received = device.receive(kSize).size();
  EXPECT_GT(received, 0U);
  EXPECT_LT(received, std::size_t{kSize});
}

// --- The "test" command

TEST_F(SerialData, TestSendsFiveBytes) {
  net->command({"addeol", "on"});
  open();
  EXPECT_EQ("OK", net->command({"test"}));
  EXPECT_EQ(Lines{}, newLines());
  EXPECT_GE(net->fd, 0);
  EXPECT_EQ("OK", net->command({"close"}));
  EXPECT_EQ("TEST\n", device.receive(6));
}

TEST_F(SerialData, TestOfAnUnpluggedPortReportsAndCloses) {
  open();
  unplug();
  EXPECT_EQ("ERROR", net->command({"test"}));
  EXPECT_EQ(Lines{errorLine("sendto (errno: 5 Input/output error)")}, newLines());
  EXPECT_EQ("sendto (errno: 5 Input/output error)", warning());
  EXPECT_EQ(1U, warnings());
  EXPECT_EQ(-1, net->fd);
}

TEST_F(SerialData, TestOfAFullPortReportsAndCloses) {
  open();
  fillUp(net->fd);
  EXPECT_EQ("ERROR", net->command({"test"}));
  EXPECT_EQ(Lines{errorLine("sendto (errno: 11 Resource temporarily unavailable)")}, newLines());
  EXPECT_EQ(-1, net->fd);
}

// --- A device that goes and comes back

TEST_F(SerialData, UnpluggedInMidLineLosesTheLine) {
  net->command({"host", "192.0.2.7"});
  net->command({"port", "4001"});
  open();
  feed("whole\nhalf");
  unplug();
  expectGone("192.0.2.7:4001");
  EXPECT_EQ(Values{"whole\\n"}, inbox.takeValues());
}

// A serial link has neither host nor port.
TEST_F(SerialData, UnpluggedWithoutHostAndPort) {
  open();
  unplug();
  expectGone(":-1");
}

TEST_F(SerialData, EolcloseDeliversWhatCameBeforeTheUnplugging) {
  net->command({"eolclose", "on"});
  open();
  feed("X\nY");
  EXPECT_EQ(Values{}, inbox.takeValues());
  unplug();
  newLines();
  net->readLinkNow();
  EXPECT_EQ(Values{"X\\nY"}, inbox.takeValues());
  EXPECT_EQ((Lines{traceLine("Rovik Message: MM_DATA 5_0_0 = {X\\nY}"),
                   errorLine("connection closed by peer :-1")}),
            newLines());
  EXPECT_EQ(-1, net->fd);
}

// No read is tried again: the loop reads only what it has found readable.
TEST_F(SerialData, ReadThatFindsNothingIsTheEnd) {
  open();
  feed("half");
  expectGone(":-1");
  EXPECT_EQ(Values{}, inbox.takeValues());
  EXPECT_TRUE(device.seesEnd());
}

TEST_F(SerialData, DeviceThatComesBackIsReopenedByTheTimer) {
  const TempFolder folder;
  const std::string port = folder / "meter";
  fs::create_symlink(device.path(), port);
  pointAt(port);
  net->command({"reconnect", "on"});
  open();
  feed("half");
  unplug();
  expectGone(":-1");
  net->selectTI();
  EXPECT_EQ((Lines{traceLine("opening Serial socket"),
                   errorLine("open serial port: " + port + " (errno: 2 No such file or directory)"),
                   errorLine("open failed")}),
            newLines());
  device = SerialPeer();
  fs::remove(port);
  fs::create_symlink(device.path(), port);
  net->selectTI();
  ASSERT_GE(net->fd, 0);
  EXPECT_EQ(textOf(rawSettings()), textOf(portSettings()));
  feed("line\n");
  EXPECT_EQ(Values{"line\\n"}, inbox.takeValues());
}

// --- With the rovik's own thread

class LiveSerial : public SerialLink {
 protected:
  LiveSerial() {
    Drovane::global.setLogLevel(LOG_LEVEL_INFO);
    EXPECT_EQ(0, host().start());
  }
  ~LiveSerial() override { net->stop(); }

  drovane::RovikHost& host() { return drovane::RovikHost::of(*net); }
  bool linkOpen() { return host().status().link_open; }

  std::string say(std::vector<std::string> words) {
    const auto result = host().command(std::move(words));
    return result.answered ? result.text : "REFUSED: " + result.text;
  }
};

TEST_F(LiveSerial, IdlePortStaysOpen) {
  Inbox inbox;
  ASSERT_EQ("OK", say({"open"}));
  for (int i = 0; i < 20; ++i) EXPECT_EQ("OK", say({"rts", i % 2 == 0 ? "on" : "off"}));
  device.send("line\n");
  EXPECT_EQ(std::vector{dataText("5_0_0", "line\\n")}, inbox.waitFor(1));
  EXPECT_TRUE(linkOpen());
  EXPECT_EQ(0U, warnings());
}

TEST_F(LiveSerial, UnpluggingIsNoticedAndReportedOnce) {
  ASSERT_EQ("OK", say({"open"}));
  device.unplug();
  ASSERT_TRUE(eventually([this] { return !linkOpen(); }));
  EXPECT_EQ("connection closed by peer :-1", warning());
  EXPECT_EQ(1U, log.count("connection closed by peer :-1"));
}

// A device that is not listened to fast enough has to wait; no line is lost or out of order.
TEST_F(LiveSerial, FloodOfLinesIsDeliveredWhole) {
  constexpr std::size_t kLines = 50000;
  const std::string padding(60, '.');
  const auto listener = TestRovik::makeRunning(91, "listener");
  say({"chopeol", "on"});
  ASSERT_EQ("OK", say({"open"}));
  std::string lines;
  for (std::size_t i = 0; i < kLines; ++i) lines += padding + std::to_string(i) + "\n";
  device.send(lines);
  ASSERT_TRUE(listener->waitForMessages(kLines));
  listener->stop();
  const auto received = listener->received();
  for (std::size_t i = 0; i < kLines; ++i) ASSERT_EQ(padding + std::to_string(i), received[i].text);
  EXPECT_EQ(0U, listener->host().status().dropped);
  EXPECT_EQ(0U, warnings());
}

// The flood is a whole number of buffers, so that nothing of it is left in front of the line.
TEST_F(LiveSerial, FloodWithoutAnEndOfLineIsDroppedInBoundedMemory) {
  constexpr int kRounds = 512;
  Inbox inbox;
  ASSERT_EQ("OK", say({"open"}));
  const std::string flood(16384, 'x');
  device.send(flood);
  const long before = residentMemory();
  for (int i = 0; i < kRounds; ++i) device.send(flood);
  device.send("the end\n");
  EXPECT_EQ(std::vector{dataText("5_0_0", "the end\\n")}, inbox.waitFor(1));
  if (kMemoryIsOurs) {
    EXPECT_LT(residentMemory() - before, 4L << 20);
  }
  EXPECT_TRUE(linkOpen());
  EXPECT_EQ(0U, warnings());
}

// Receivers that do not keep up are what fills queues.
TEST_F(LiveSerial, FloodStopsAtTheDeviceWhileAReceiverDoesNotKeepUp) {
  Gate gate;
  auto listener = TestRovik::make(91, "listener");
  listener->on_message = [&](RovikMessage*) { gate.pass(); };
  listener->run();
  ASSERT_EQ("OK", say({"open"}));
  std::size_t sent = 0;
  const std::string lines = "a line\na line\n";
  ASSERT_TRUE(eventually([&] {
    const std::size_t before = sent;
    while (sent < (4U << 20) && device.sendSome(lines) == lines.size()) sent += lines.size();
    return sent == before && host().status().held_back;
  }));
  EXPECT_LT(sent, 1U << 20);
  EXPECT_LT(listener->host().status().queued, 20000U);
  EXPECT_EQ("OK", say({"raw", "off"}));
  gate.open();
  listener->stop();
}

TEST_F(LiveSerial, StopsAndClosesWhileADeviceFloods) {
  const auto listener = TestRovik::makeRunning(91, "listener");
  ASSERT_EQ("OK", say({"open"}));
  std::jthread flood([this](const std::stop_token& enough) {
    while (!enough.stop_requested())
      if (device.sendSome("a line\n") == 0) std::this_thread::yield();
  });
  ASSERT_TRUE(listener->waitForMessages(10000));
  const auto begun = std::chrono::steady_clock::now();
  EXPECT_EQ("OK", say({"raw", "off"}));
  EXPECT_EQ(0, net->stop());
  EXPECT_LT(std::chrono::steady_clock::now() - begun, std::chrono::seconds(5));
  EXPECT_EQ("OK", say({"close"}));
  listener->stop();
}

}  // namespace
