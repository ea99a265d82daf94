// "drovane trace": the bytes of a link, live, and its recording.
#include <gmock/gmock.h>

#include <algorithm>
#include <functional>
#include <future>

#include "FakeDrovane.h"
#include "TracedHouse.h"
#include "support/Eventually.h"
#include "support/PeerSerial.h"
#include "support/PeerTls.h"
#include "support/UnixClient.h"

namespace {

using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

class Trace : public TracedHouse {
 protected:
  // What the link of this configuration shows of bytes in both directions.
  void expectBothDirections(const std::string& link, const std::function<void()>& accept,
                            const std::function<void(const std::string&)>& send) {
    program.startReady(link);
    const auto tracer = trace();
    auto accepted = std::async(std::launch::async, accept);
    program.ask({"cmd", "boiler", "open"});
    accepted.get();
    send("from the device\r\n");
    EXPECT_TRUE(tracer->waitForOutput(" < from the device\\r\\n\n")) << tracer->output();
    tellDevice("to the device\n");
    EXPECT_TRUE(tracer->waitForOutput(" > to the device\\n\n")) << tracer->output();
    EXPECT_THAT(tracer->output(), HasSubstr(" + link open\n"));
  }
};

TEST_F(Trace, ShowsBothDirectionsAndTheLinkComingAndGoing) {
  program.startReady(tcpLink(std::to_string(peer.port())));
  const auto tracer = trace();
  EXPECT_EQ(tracer->errors(), "drovane: tracing boiler, its link is closed\n");
  program.ask({"cmd", "boiler", "open"});
  peer.accept();
  tellDevice("STATUS?\r\n");
  EXPECT_EQ(peer.receive(9), "STATUS?\r\n");
  ASSERT_TRUE(tracer->waitForOutput(" > STATUS?"));
  peer.send("T=21.5\r\n");
  ASSERT_TRUE(tracer->waitForOutput(" < T=21.5"));
  peer.close();
  ASSERT_TRUE(tracer->waitForOutput("link closed\n"));
  EXPECT_EQ(withoutTimes(tracer->output()),
            "TIME + link open\n"
            "TIME > STATUS?\\r\\n\n"
            "TIME < T=21.5\\r\\n\n"
            "TIME - link closed\n");
}

TEST_F(Trace, SaysWhetherTheLinkIsOpenAndTakesAnIdToo) {
  startOpen();
  EXPECT_EQ(trace({}, "5")->errors(), "drovane: tracing boiler, its link is open\n");
}

TEST_F(Trace, ShowsALinkThatIsOpenedForOneWriteOnly) {
  program.startReady("rovik 5 boiler generic_net\n  mode tcp\n  host 127.0.0.1\n  port " +
                     std::to_string(peer.port()) + "\n");
  const auto tracer = trace();
  for (const char* text : {"one\n", "two\n"}) {
    tellDevice(text);
    peer.accept();
    EXPECT_EQ(peer.receive(4), text);
  }
  ASSERT_TRUE(eventually([&] {
    const std::string output = withoutTimes(tracer->output());
    return std::count(output.begin(), output.end(), '-') == 2;
  })) << tracer->output();
  EXPECT_EQ(withoutTimes(tracer->output()),
            "TIME + link open\nTIME > one\\n\nTIME - link closed\n"
            "TIME + link open\nTIME > two\\n\nTIME - link closed\n");
}

TEST_F(Trace, HexIsSixteenBytesALine) {
  startOpen();
  const auto tracer = trace({"--hex"});
  std::string bytes = "0123456789abcdef\r\n";
  bytes += '\0';
  peer.send(bytes);
  ASSERT_TRUE(tracer->waitForOutput("|...|\n"));
  EXPECT_EQ(withoutTimes(tracer->output()),
            "TIME < 0000  30 31 32 33 34 35 36 37  38 39 61 62 63 64 65 66  |0123456789abcdef|\n"
            "             < 0010  0d 0a 00                                          |...|\n");
}

TEST_F(Trace, ShowsWhatAnEncryptedLinkCarriesInPlain) {
  TlsPeer device(selfSigned());
  expectBothDirections(
      "rovik 5 boiler generic_net\n  mode ssl\n  host 127.0.0.1\n  port " +
          std::to_string(device.port()) + "\n  accept_self_cert on\n  eolin \\r\\n\n  persist on\n",
      [&] { EXPECT_TRUE(device.accept()); }, [&](const std::string& bytes) { device.send(bytes); });
}

TEST_F(Trace, ShowsASerialLine) {
  SerialPeer device;
  expectBothDirections(
      "rovik 5 boiler generic_net\n  mode tty\n  tty " + device.path() +
          "\n  eolin \\r\\n\n  persist on\n",
      [] {}, [&](const std::string& bytes) { device.send(bytes); });
}

TEST_F(Trace, ShowsEachOfSeveralTracersItsLink) {
  TcpPeer other;
  program.startReady(tcpLink(std::to_string(peer.port())) + "  open\n" +
                     tcpLink(std::to_string(other.port()), "lamp", "6") + "  open\n");
  peer.accept();
  other.accept();
  const auto first = trace();
  const auto second = trace();
  const auto third = trace({}, "lamp");
  peer.send("warm\r\n");
  other.send("on\r\n");
  EXPECT_TRUE(first->waitForOutput("\n"));
  EXPECT_TRUE(second->waitForOutput("\n"));
  EXPECT_TRUE(third->waitForOutput("\n"));
  EXPECT_EQ(withoutTimes(first->output()), "TIME < warm\\r\\n\n");
  EXPECT_EQ(withoutTimes(second->output()), "TIME < warm\\r\\n\n");
  EXPECT_EQ(withoutTimes(third->output()), "TIME < on\\r\\n\n");
}

TEST_F(Trace, OfOneThatIsKilledEndsAndTheOthersGoOn) {
  startOpen();
  const auto killed = trace();
  const auto other = trace();
  killed->signal(SIGKILL);
  EXPECT_EQ(killed->wait(), 128 + SIGKILL);
  for (const char* text : {"one\r\n", "two\r\n"}) peer.send(text);
  EXPECT_TRUE(other->waitForOutput("two"));
  other->signal(SIGKILL);
  EXPECT_EQ(other->wait(), 128 + SIGKILL);
  peer.send("three\r\n");
  const auto again = trace();
  peer.send("four\r\n");
  EXPECT_TRUE(again->waitForOutput("four"));
  program.expectEndsInTime();
}

TEST_F(Trace, EndsWithStatus0OnEitherSignal) {
  startOpen();
  for (const int signal : {SIGINT, SIGTERM}) {
    const auto tracer = trace();
    tracer->signal(signal);
    EXPECT_EQ(tracer->wait(), 0);
  }
}

TEST_F(Trace, OfAnUnknownRovikIsRefusedAndLeavesNoRecording) {
  program.startReady(houseWith());
  const Finished done = program.ask({"trace", "pump", "--record", program.folder / "pump.rec"});
  EXPECT_EQ(done.status, 1);
  EXPECT_EQ(done.output, "");
  EXPECT_EQ(done.errors,
            "drovane: there is no rovik 'pump'; expected a name or an id that 'drovane status' "
            "shows\n");
  EXPECT_EQ(runToEnd({"ls", program.folder / "pump.rec"}).status, 2);
}

TEST_F(Trace, EndsWithStatus3WhenDrovaneGoesAway) {
  startOpen();
  const auto tracer = trace();
  program.expectEndsInTime();
  EXPECT_EQ(tracer->wait(), 3);
  EXPECT_THAT(tracer->errors(),
              EndsWith("drovane: the drovane at " + program.control + " has gone away\n"));
}

// --- The recording ---

TEST_F(Trace, RecordsWhatItShows) {
  program.startReady(tcpLink(std::to_string(peer.port())));
  const auto tracer = trace({"--hex", "--record", program.folder / "link.rec"});
  program.ask({"cmd", "boiler", "open"});
  peer.accept();
  peer.send("T=21.5\r\n");
  ASSERT_TRUE(tracer->waitForOutput("T=21.5"));
  tellDevice("ALARM \xff ");
  ASSERT_TRUE(tracer->waitForOutput("ALARM"));
  EXPECT_EQ(withoutTimes(program.folder.read("link.rec")),
            "drovane-recording 1 boiler tcp START\n"
            "S +\n"
            "S < T=21.5\\r\\n\n"
            "S > ALARM \\xff\\x20\n");
  end(*tracer);
}

TEST_F(Trace, LeavesARecordingAloneThatIsThereAlready) {
  startOpen();
  const std::string file = program.folder.write("link.rec", "something dear\n");
  const Finished done = program.ask({"trace", "boiler", "--record", file});
  EXPECT_EQ(done.status, 2);
  EXPECT_EQ(done.errors, "drovane: " + file +
                             ": exists already; expected a new file, or --force to replace it\n");
  EXPECT_EQ(program.folder.read("link.rec"), "something dear\n");
  end(*trace({"--record", file, "--force"}));
  EXPECT_EQ(withoutTimes(program.folder.read("link.rec")),
            "drovane-recording 1 boiler tcp START\n");
}

TEST_F(Trace, SaysWhenTheRecordingCannotBeWritten) {
  startOpen();
  const Finished done = program.ask({"trace", "boiler", "--record", "/dev/full", "--force"});
  EXPECT_EQ(done.status, 2);
  EXPECT_EQ(done.errors, "drovane: /dev/full: cannot be written: No space left on device\n");
}

// --- What only a house in trouble does ---

const char* const kTracing =
    R"({"ok":true,"rovik":"boiler","mode":"a b","link_open":true,"time":"now"})";

TEST(TraceOfAFlood, TellsHowMuchIsMissingAndWhere) {
  const TempFolder folder;
  const std::string reply = std::string(kTracing) +
                            "\n{\"dropped\":12,\"dropped_bytes\":3456}\n"
                            R"({"event":"received","rovik":"boiler","bytes":"x","seconds":1.5,)"
                            R"("time":"2026-11-21T02:46:40.124+01:00"})";
  const FakeDrovane fake({reply});
  const Finished done = fake.ask({"trace", "boiler", "--record", folder / "link.rec"});
  EXPECT_EQ(done.output,
            "(12 events not shown: they came too fast)\n"
            "02:46:40.124 < x\n");
  EXPECT_EQ(folder.read("link.rec"),
            "drovane-recording 1 boiler - now\n"
            "# 12 events with 3456 bytes are missing here: they came too fast\n"
            "1.500000 < x\n");
}

TEST(TraceOfARovikThatGoes, EndsWithStatus1) {
  const FakeDrovane fake({std::string(kTracing) + "\n" + R"({"event":"ended","rovik":"boiler"})"});
  const Finished done = fake.ask({"trace", "boiler"});
  EXPECT_EQ(done.status, 1);
  EXPECT_EQ(done.output, "");
  EXPECT_THAT(done.errors, EndsWith("drovane: rovik boiler is gone; expected it to stay\n"));
}

TEST_F(Trace, DoesNotSlowTheHouseDownAlthoughNobodyReads) {
  startOpen();
  UnixClient client(program.control);
  ASSERT_TRUE(client.send("{\"op\":\"trace\",\"rovik\":\"boiler\"}\n"));
  EXPECT_THAT(client.readLine(),
              StartsWith(R"({"ok":true,"rovik":"boiler","mode":"tcp","link_open":true,"time":")"));
  // Far more than the house keeps for a client and the system for a socket.
  constexpr int kBlocks = 160;
  const std::string block = std::string(65'534, 'x') + "\r\n";
  for (int i = 0; i < kBlocks; ++i) peer.send(block);
  tellDevice("done\n");
  EXPECT_EQ(peer.receive(5), "done\n");
  // The house has read it all: nothing waits in the link.
  peer.send("the end\r\n");
  std::uint64_t shown = 0;
  std::uint64_t lost = 0;
  bool over = false;
  while (!over) {
    const std::string line = client.readLine();
    ASSERT_NE(line, "");
    const drovane::Json json(cJSON_Parse(line.c_str()));
    std::string bytes;
    drovane::readText(json.get(), "bytes", bytes);
    shown += bytes == "done\n" ? 0 : bytes.size();
    const cJSON* const dropped = cJSON_GetObjectItemCaseSensitive(json.get(), "dropped_bytes");
    if (cJSON_IsNumber(dropped)) lost += static_cast<std::uint64_t>(dropped->valuedouble);
    over = shown + lost >= kBlocks * block.size();
  }
  EXPECT_GT(lost, 0U);
}

// --- The operation of the control socket ---

TEST_F(Trace, OperationExplainsWhatItExpects) {
  program.startReady(houseWith());
  UnixClient client(program.control);
  const auto errorOf = [&](const std::string& request) {
    EXPECT_TRUE(client.send(request + '\n'));
    return client.readLine();
  };
  EXPECT_EQ(errorOf(R"({"op":"trace"})"),
            R"({"ok":false,"error":"'rovik' is missing; expected a rovik's name or id"})");
  EXPECT_EQ(errorOf(R"({"op":"trace","rovik":7})"),
            R"({"ok":false,"error":"'rovik' is no text; expected a rovik's name or id"})");
  EXPECT_EQ(errorOf(R"({"op":"trace","rovik":"7"})"),
            R"({"ok":false,"error":"there is no rovik '7'; expected a name or an id that )"
            R"('drovane status' shows"})");
}

TEST_F(Trace, OperationHasNoModeWhereTheConfigurationHasNone) {
  program.startReady(houseWith());
  UnixClient client(program.control);
  ASSERT_TRUE(client.send("{\"op\":\"trace\",\"rovik\":\"boiler\"}\n"));
  EXPECT_THAT(client.readLine(),
              StartsWith(R"({"ok":true,"rovik":"boiler","link_open":false,"time":")"));
}

TEST_F(Trace, OfAClientThatSendsNothingMoreGoesOn) {
  startOpen();
  UnixClient client(program.control);
  ASSERT_TRUE(client.send("{\"op\":\"trace\",\"rovik\":\"boiler\"}\n"));
  client.endSending();
  EXPECT_THAT(client.readLine(), StartsWith("{\"ok\":true"));
  peer.send("warm\r\n");
  EXPECT_THAT(client.readLine(), HasSubstr("\"bytes\":\"warm\\r\\n\""));
}

}  // namespace
