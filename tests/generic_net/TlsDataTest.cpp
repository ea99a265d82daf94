// Data over TLS: records in and out, and the peer's farewell.
#include <fcntl.h>

#include <array>
#include <string>

#include "TlsNetTest.h"
#include "support/Inbox.h"

namespace {

using Values = std::vector<std::string>;

class TlsData : public TlsNetTest {
 protected:
  TlsData() {
    net->command({"chopeol", "on"});
    net->command({"persist", "on"});
    openTo(server);
  }

  std::string gone() const {
    return "connection closed by peer 127.0.0.1:" + std::to_string(server.port());
  }

  // The link has closed with its one report, as the last thing that was logged.
  void expectGone() {
    EXPECT_EQ(-1, net->fd);
    EXPECT_EQ(nullptr, net->ssl);
    EXPECT_EQ(nullptr, net->sslctx);
    const Lines lines = newLines();
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(errorLine(gone()), lines.back());
    EXPECT_EQ(gone(), warning());
    EXPECT_EQ(1U, warnings());
  }

  int write(const std::string& data) {
    std::array<char, 4096> buffer{};
    data.copy(buffer.data(), buffer.size());
    return net->sndData(buffer.data(), static_cast<int>(data.size()), buffer.size());
  }

  TlsPeer server{selfSigned()};
  Inbox inbox;
};

TEST_F(TlsData, SeveralLinesInOneRecord) {
  feed(server, "a\nb\nc");
  EXPECT_EQ((Values{"a", "b"}), inbox.takeValues());
  EXPECT_EQ(1, net->inbufpos);
}

TEST_F(TlsData, LineSplitOverRecords) {
  feed(server, "one li");
  EXPECT_EQ(Values{}, inbox.takeValues());
  feed(server, "ne in th");
  feed(server, "ree\n");
  EXPECT_EQ(Values{"one line in three"}, inbox.takeValues());
}

TEST_F(TlsData, ZeroBytesAreData) {
  feed(server, std::string_view("a\0b\n", 4));
  EXPECT_EQ(Values{"a\\x00b"}, inbox.takeValues());
}

std::string numbered(int number) {
  std::string line = std::to_string(number);
  return line.insert(0, 99 - line.size(), '.');
}

// What the session has read already, no wait for the socket would tell.
TEST_F(TlsData, RecordLargerThanTheBufferIsHandedOverWhole) {
  std::string bytes;
  Values lines;
  for (int i = 0; i < 100; ++i) {
    lines.push_back(numbered(i));
    bytes += lines.back() + '\n';
  }
  ASSERT_EQ(10000U, bytes.size());
  deliverRecords(server, server.seal(bytes));
  net->readLinkNow();
  EXPECT_EQ(lines, inbox.takeValues());
  EXPECT_EQ(0, net->inbufpos);
  EXPECT_TRUE(net->bufferIsClean());
}

TEST_F(TlsData, LargestRecordOfShortestLinesIsHandedOverWhole) {
  deliverRecords(server, server.seal(std::string(16384, '\n')));
  net->readLinkNow();
  EXPECT_EQ(Values(16384, ""), inbox.takeValues());
}

// Two reads fill the buffer and are dropped, the third leaves what is over.
TEST_F(TlsData, LargeRecordWithoutAnEndOfLineOverflowsPerRead) {
  deliverRecords(server, server.seal(std::string(10000, 'x')));
  net->readLinkNow();
  EXPECT_EQ(10000 - 2 * 4096, net->inbufpos);
  EXPECT_TRUE(net->bufferIsClean());
  feed(server, "\n");
  EXPECT_EQ(Values{std::string(10000 - 2 * 4096, 'x')}, inbox.takeValues());
}

TEST_F(TlsData, HalfARecordHoldsNothingUp) {
  const std::string records = server.seal("patience\n");
  const std::size_t half = records.size() - 20;
  deliverRecords(server, records.substr(0, half));
  for (int i = 0; i < 3; ++i) net->readLinkNow();
  EXPECT_GE(net->fd, 0);
  EXPECT_EQ(Values{}, inbox.takeValues());
  deliverRecords(server, records.substr(half));
  net->readLinkNow();
  EXPECT_EQ(Values{"patience"}, inbox.takeValues());
  EXPECT_EQ(0U, warnings());
}

TEST_F(TlsData, RecordThatComesByteByByteIsHandedOverAtItsLast) {
  const std::string records = server.seal("slow\n");
  for (const char byte : records) {
    EXPECT_EQ(Values{}, inbox.takeValues());
    deliverRecords(server, {&byte, 1});
    net->readLinkNow();
  }
  EXPECT_EQ(Values{"slow"}, inbox.takeValues());
}

TEST_F(TlsData, SocketBlocksAgainAfterEachRead) {
  const auto expectBlocking = [this] { EXPECT_EQ(0, fcntl(net->fd, F_GETFL) & O_NONBLOCK); };
  net->readLinkNow();
  expectBlocking();
  const std::string records = server.seal("a\n");
  deliverRecords(server, records.substr(0, 3));
  net->readLinkNow();
  expectBlocking();
  deliverRecords(server, records.substr(3));
  net->readLinkNow();
  expectBlocking();
  EXPECT_EQ(Values{"a"}, inbox.takeValues());
}

TEST_F(TlsData, ARawReadIsOneUnit) {
  net->command({"raw", "on"});
  deliverRecords(server, server.seal("a\nb\n"));
  net->readLinkNow();
  EXPECT_EQ(Values{"a\\nb\\n"}, inbox.takeValues());
  EXPECT_EQ(0, net->inbufpos);
}

TEST_F(TlsData, ALargeRawRecordIsAUnitForEachBufferful) {
  net->command({"raw", "on"});
  deliverRecords(server, server.seal(std::string(10000, 'x')));
  net->readLinkNow();
  EXPECT_EQ((Values{std::string(4096, 'x'), std::string(4096, 'x'), std::string(1808, 'x')}),
            inbox.takeValues());
}

// --- The end -------------------------------------------------------------------------------------

TEST_F(TlsData, CloseNotifyClosesTheLink) {
  server.sendCloseNotify();
  ASSERT_TRUE(waitForBytes());
  net->readLinkNow();
  expectGone();
}

TEST_F(TlsData, AbruptCloseClosesTheLink) {
  server.link().close();
  awaitEnd();
  net->readLinkNow();
  expectGone();
}

TEST_F(TlsData, ResetClosesTheLink) {
  server.link().reset();
  awaitEnd();
  net->readLinkNow();
  expectGone();
}

TEST_F(TlsData, RecordThatWasTamperedWithClosesTheLink) {
  std::string records = server.seal("forged\n");
  records.back() = static_cast<char>(records.back() ^ 1);
  deliverRecords(server, records);
  net->readLinkNow();
  EXPECT_EQ(Values{}, inbox.takeValues());
  expectGone();
}

TEST_F(TlsData, PlainTextInTheSessionClosesTheLink) {
  deliverRecords(server, "plain text and no record\n");
  net->readLinkNow();
  EXPECT_EQ(Values{}, inbox.takeValues());
  expectGone();
}

TEST_F(TlsData, WhatCameBeforeTheFarewellIsDelivered) {
  const std::string records = server.seal("last\nhalf");
  deliverRecords(server, records);
  server.sendCloseNotify();
  server.link().close();
  awaitEnd();
  while (net->fd >= 0) net->readLinkNow();
  EXPECT_EQ(Values{"last"}, inbox.takeValues());
  expectGone();
}

TEST_F(TlsData, EolcloseDeliversAtTheFarewell) {
  net->command({"eolclose", "on"});
  feed(server, "X\nY");
  EXPECT_EQ(Values{}, inbox.takeValues());
  server.sendCloseNotify();
  ASSERT_TRUE(waitForBytes());
  net->readLinkNow();
  EXPECT_EQ(Values{"X\\nY"}, inbox.takeValues());
  expectGone();
}

TEST_F(TlsData, EolcloseDeliversAtAnAbruptCloseToo) {
  net->command({"eolclose", "on"});
  feed(server, "X\nY");
  server.link().close();
  awaitEnd();
  net->readLinkNow();
  EXPECT_EQ(Values{"X\\nY"}, inbox.takeValues());
  expectGone();
}

// --- The way out ---------------------------------------------------------------------------------

TEST_F(TlsData, WritesSayWhichCallTheyMake) {
  EXPECT_EQ(0, write("on\n"));
  EXPECT_EQ(Lines{traceLine("SSL_write")}, newLines());
  EXPECT_EQ("on\n", server.receive(3));
}

TEST_F(TlsData, LargestWriteArrivesWhole) {
  const std::string data(4095, 'x');
  EXPECT_EQ(0, write(data));
  EXPECT_EQ(data, server.receive(4095));
}

TEST_F(TlsData, EndOfLineIsAppended) {
  net->command({"addeol", "on"});
  EXPECT_EQ(0, write("on"));
  EXPECT_EQ("on\n", server.receive(3));
}

TEST_F(TlsData, WriteWithoutBytesSendsNothing) {
  EXPECT_EQ(0, write(""));
  EXPECT_EQ(Lines{traceLine("SSL_write")}, newLines());
  EXPECT_GE(net->fd, 0);
  net->command({"close"});
  EXPECT_EQ("", server.link().receive(1));
}

TEST_F(TlsData, LinkThatIsNotPersistentClosesAfterAWrite) {
  net->command({"persist", "off"});
  newLines();
  EXPECT_EQ(0, write("on\n"));
  EXPECT_EQ(Lines{traceLine("SSL_write")}, newLines());
  expectNothingHeld();
  EXPECT_EQ("on\n", server.receive(4));
}

TEST_F(TlsData, TestAnswersAndSendsNothing) {
  EXPECT_EQ("OK", net->command({"test"}));
  EXPECT_EQ(Lines{}, newLines());
  net->command({"close"});
  EXPECT_EQ("", server.link().receive(1));
}

TEST_F(TlsData, FailedWriteReportsAndCloses) {
  const std::string failure = "ssl write (errno: 104 Connection reset by peer)";
  server.link().reset();
  awaitEnd();
  EXPECT_EQ(-1, write("on\n"));
  EXPECT_EQ((Lines{traceLine("SSL_write"), errorLine(failure)}), newLines());
  EXPECT_EQ(failure, warning());
  EXPECT_EQ(1U, warnings());
  expectNothingHeld();
}

}  // namespace
