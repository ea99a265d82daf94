// How a stream of bytes is cut into units, read by read.
#include <cstring>

#include "NetTest.h"
#include "support/Inbox.h"

namespace {

using Values = std::vector<std::string>;

class Framing : public NetTest {
 protected:
  void SetUp() override { openTo(peer); }

  // The units that one delivery completes.
  Values unitsOf(const std::string& bytes) {
    feed(peer, bytes);
    EXPECT_TRUE(net->bufferIsClean());
    return inbox.takeValues();
  }

  // The units that the peer's farewell completes.
  Values unitsAtEnd() {
    awaitEnd();
    net->readLinkNow();
    EXPECT_EQ(-1, net->fd);
    EXPECT_EQ(0, net->inbufpos);
    EXPECT_TRUE(net->bufferIsClean());
    return inbox.takeValues();
  }

  std::string gone() const {
    return "connection closed by peer 127.0.0.1:" + std::to_string(peer.port());
  }

  TcpPeer peer;
  Inbox inbox;
};

TEST_F(Framing, TwoLinesInOneReadAreTwoUnits) {
  EXPECT_EQ((Values{"AB\\n", "CD\\n"}), unitsOf("AB\nCD\n"));
}

TEST_F(Framing, LineWaitsForItsEnd) {
  EXPECT_EQ(Values{}, unitsOf("AB"));
  EXPECT_EQ(2, net->inbufpos);
  EXPECT_EQ(Values{"AB\\n"}, unitsOf("\nC"));
  EXPECT_EQ(1, net->inbufpos);
  EXPECT_EQ('C', net->inbuf[0]);
}

TEST_F(Framing, EndOfLineMaySpanTwoReads) {
  net->command({"eolin", "\\r\\n"});
  EXPECT_EQ(Values{}, unitsOf("AB\r"));
  EXPECT_EQ(Values{"AB\\r\\n"}, unitsOf("\n"));
}

TEST_F(Framing, HalfAnEndOfLineIsData) {
  net->command({"eolin", "\\r\\n"});
  EXPECT_EQ(Values{"a\\rb\\nc\\r\\r\\n"}, unitsOf("a\rb\nc\r\r\n"));
}

TEST_F(Framing, FirstOccurrenceOfAnOverlappingEndCounts) {
  net->command({"eolin", "aa"});
  net->command({"chopeol", "on"});
  EXPECT_EQ((Values{"x", ""}), unitsOf("xaaaaa"));
  EXPECT_EQ(1, net->inbufpos);
}

TEST_F(Framing, ChopRemovesTheEndOfLine) {
  net->command({"chopeol", "on"});
  EXPECT_EQ((Values{"AB", "CD"}), unitsOf("AB\nCD\n"));
}

TEST_F(Framing, EndOfLineAtTheStartIsAUnitOfItsOwn) {
  EXPECT_EQ((Values{"\\n", "\\n", "x\\n"}), unitsOf("\n\nx\n"));
  net->command({"chopeol", "on"});
  EXPECT_EQ((Values{"", "", "x"}), unitsOf("\n\nx\n"));
}

TEST_F(Framing, EndOfLineMayHoldZeroBytes) {
  net->command({"eolin", "\\0\\x01\\0"});
  net->command({"chopeol", "on"});
  EXPECT_EQ((Values{"a\\x00b", ""}), unitsOf(std::string("a\0b\0\1\0\0\1\0", 9)));
}

TEST_F(Framing, EndOfLineMayBeTenBytes) {
  net->command({"eolin", "0123456789"});
  net->command({"chopeol", "on"});
  EXPECT_EQ(Values{"a012345678"}, unitsOf("a0123456780123456789"));
}

// Nothing is ever found where nothing is looked for, and the full buffer goes as usual.
TEST_F(Framing, EmptyEndOfLineEndsNothing) {
  net->command({"eolin", ""});
  EXPECT_EQ(Values{}, unitsOf("a\nb\n"));
  EXPECT_EQ(4, net->inbufpos);
  EXPECT_EQ(Values{}, unitsOf(std::string(4092, 'x')));
  EXPECT_EQ(0, net->inbufpos);
}

TEST_F(Framing, NewEndOfLineAppliesToWhatWaitsAlready) {
  unitsOf("a;b");
  net->command({"eolin", ";"});
  EXPECT_EQ((Values{"a;", "bc;"}), unitsOf("c;"));
}

TEST_F(Framing, ZeroBytesAreData) {
  EXPECT_EQ(Values{"\\x00a\\x00\\n"}, unitsOf(std::string("\0a\0\n", 4)));
}

TEST_F(Framing, LineThatFillsTheBufferToTheLastByteIsAUnit) {
  EXPECT_EQ(Values{std::string(4095, 'x') + "\\n"}, unitsOf(std::string(4095, 'x') + "\n"));
}

TEST_F(Framing, LineOneByteShorterThanTheBufferWaits) {
  EXPECT_EQ(Values{}, unitsOf(std::string(4095, 'x')));
  EXPECT_EQ(4095, net->inbufpos);
  EXPECT_EQ(Values{std::string(4095, 'x') + "\\n"}, unitsOf("\n"));
}

TEST_F(Framing, FullBufferWithoutAnEndIsDroppedWithoutAWord) {
  newLines();
  EXPECT_EQ(Values{}, unitsOf(std::string(4096, 'x')));
  EXPECT_EQ(0, net->inbufpos);
  EXPECT_EQ(Lines{}, newLines());
  EXPECT_EQ(0U, warnings());
  EXPECT_EQ(Values{"y\\n"}, unitsOf("y\n"));
}

TEST_F(Framing, WhatFollowsAFullBufferBeginsAfresh) {
  EXPECT_EQ(Values{"x\\n"}, unitsOf(std::string(4097, 'x') + "\n"));
  EXPECT_EQ(Values{"\\n"}, unitsOf(std::string(4096, 'x') + "\n"));
}

TEST_F(Framing, FullBufferIsDroppedWhereverItsReadsWereCut) {
  unitsOf(std::string(4000, 'x'));
  EXPECT_EQ(Values{}, unitsOf(std::string(96, 'x')));
  EXPECT_EQ(0, net->inbufpos);
}

TEST_F(Framing, EndOfLineAcrossTheEndOfTheBufferIsLost) {
  net->command({"eolin", "\\r\\n"});
  EXPECT_EQ(Values{"\\nz\\r\\n"}, unitsOf(std::string(4095, 'x') + "\r\nz\r\n"));
}

TEST_F(Framing, FullBufferKeepsTheLinesBeforeItsRest) {
  EXPECT_EQ(Values{"a\\n"}, unitsOf("a\n" + std::string(4094, 'x')));
  EXPECT_EQ(4094, net->inbufpos);
}

TEST_F(Framing, BufferFullOfEmptyLines) {
  net->command({"chopeol", "on"});
  EXPECT_EQ(Values(4096), unitsOf(std::string(4096, '\n')));
  EXPECT_EQ(0, net->inbufpos);
}

TEST_F(Framing, RawReadIsOneUnitWhateverItHolds) {
  net->command({"raw", "on"});
  EXPECT_EQ(Values{"A\\nB"}, unitsOf("A\nB"));
  EXPECT_EQ(0, net->inbufpos);
  EXPECT_EQ(Values{"\\x00"}, unitsOf(std::string(1, '\0')));
}

TEST_F(Framing, RawReadMayFillTheBuffer) {
  net->command({"raw", "on"});
  EXPECT_EQ(Values{std::string(4096, 'x')}, unitsOf(std::string(4096, 'x')));
  EXPECT_EQ((Values{std::string(4096, 'y'), "y"}), unitsOf(std::string(4097, 'y')));
}

TEST_F(Framing, RawTakesPrecedenceOverEolclose) {
  net->command({"raw", "on"});
  net->command({"eolclose", "on"});
  EXPECT_EQ(Values{"A\\n"}, unitsOf("A\n"));
  peer.close();
  EXPECT_EQ(Values{}, unitsAtEnd());
}

TEST_F(Framing, WhatWaitedBeforeRawIsDeliveredAtTheFarewellWithEolclose) {
  unitsOf("half");
  net->command({"raw", "on"});
  net->command({"eolclose", "on"});
  peer.close();
  EXPECT_EQ(Values{"half"}, unitsAtEnd());
}

TEST_F(Framing, RawHandsOverWhatWaitedBefore) {
  unitsOf("half ");
  net->command({"raw", "on"});
  EXPECT_EQ(Values{"half line"}, unitsOf("line"));
}

TEST_F(Framing, EolcloseMakesOneUnitOfEverything) {
  net->command({"eolclose", "on"});
  EXPECT_EQ(Values{}, unitsOf("X\nY"));
  newLines();
  peer.close();
  EXPECT_EQ(Values{"X\\nY"}, unitsAtEnd());
  EXPECT_EQ((Lines{traceLine("Rovik Message: MM_DATA 5_0_0 = {X\\nY}"), errorLine(gone())}),
            newLines());
}

TEST_F(Framing, EolcloseIgnoresChopping) {
  net->command({"eolclose", "on"});
  net->command({"chopeol", "on"});
  unitsOf("X\n");
  peer.close();
  EXPECT_EQ(Values{"X\\n"}, unitsAtEnd());
}

TEST_F(Framing, EolcloseWithoutBytesMakesNoUnit) {
  net->command({"eolclose", "on"});
  peer.close();
  EXPECT_EQ(Values{}, unitsAtEnd());
}

TEST_F(Framing, EolcloseDeliversAtAResetToo) {
  net->command({"eolclose", "on"});
  unitsOf("X");
  peer.reset();
  EXPECT_EQ(Values{"X"}, unitsAtEnd());
}

TEST_F(Framing, EolcloseUnitThatReachesTheBuffersEndIsDropped) {
  net->command({"eolclose", "on"});
  unitsOf(std::string(4096, 'x'));
  EXPECT_EQ(0, net->inbufpos);
  unitsOf("rest");
  peer.close();
  EXPECT_EQ(Values{"rest"}, unitsAtEnd());
}

TEST_F(Framing, EolcloseUnitMayHoldOneByteLessThanTheBuffer) {
  net->command({"eolclose", "on"});
  unitsOf(std::string(4095, 'x'));
  peer.close();
  EXPECT_EQ(Values{std::string(4095, 'x')}, unitsAtEnd());
}

TEST_F(Framing, LinesAreCutAfterEolcloseIsSwitchedOff) {
  net->command({"eolclose", "on"});
  unitsOf("a\nb");
  net->command({"eolclose", "off"});
  EXPECT_EQ((Values{"a\\n", "bc\\n"}), unitsOf("c\n"));
}

TEST_F(Framing, HalfALineIsLostWhenThePeerCloses) {
  unitsOf("half");
  newLines();
  peer.close();
  EXPECT_EQ(Values{}, unitsAtEnd());
  EXPECT_EQ(Lines{errorLine(gone())}, newLines());
  EXPECT_EQ(gone(), warning());
  EXPECT_EQ(1U, warnings());
}

TEST_F(Framing, ResetMeansThatThePeerIsGone) {
  unitsOf("half");
  newLines();
  peer.reset();
  EXPECT_EQ(Values{}, unitsAtEnd());
  EXPECT_EQ(Lines{errorLine(gone())}, newLines());
  EXPECT_EQ(gone(), warning());
}

TEST_F(Framing, HalfCloseMeansThatThePeerIsGone) {
  peer.halfClose();
  EXPECT_EQ(Values{}, unitsAtEnd());
  EXPECT_EQ(gone(), warning());
  EXPECT_TRUE(peer.seesEnd());
}

TEST_F(Framing, LinesBeforeTheFarewellAreDelivered) {
  deliver(peer, "a\nb\nhalf");
  peer.close();
  net->readLinkNow();
  EXPECT_EQ((Values{"a\\n", "b\\n"}), inbox.takeValues());
  EXPECT_EQ(Values{}, unitsAtEnd());
}

TEST_F(Framing, FarewellNamesTheConfiguredHostAndPortAsTheyStand) {
  std::strcpy(net->host, "somewhere %s else");
  net->port = -7;
  peer.close();
  unitsAtEnd();
  EXPECT_EQ("connection closed by peer somewhere %s else:-7", warning());
}

TEST_F(Framing, NewLinkBeginsWithAnEmptyBuffer) {
  unitsOf("half of an old line");
  peer.close();
  unitsAtEnd();
  openTo(peer);
  EXPECT_EQ(Values{"new\\n"}, unitsOf("new\n"));
}

TEST_F(Framing, LinkThatIsNotReadableIsNotRead) {
  deliver(peer, "a\n");
  FD_ZERO(&net->readfds);
  EXPECT_EQ(0, net->selectFD());
  EXPECT_EQ(Values{}, inbox.takeValues());
  EXPECT_EQ(2, net->bytesWaiting());
  net->readLinkNow();
  EXPECT_EQ(Values{"a\\n"}, inbox.takeValues());
}

TEST_F(Framing, ClosedLinkIsNotRead) {
  net->command({"close"});
  newLines();
  FD_ZERO(&net->readfds);
  EXPECT_EQ(0, net->selectFD());
  EXPECT_EQ(Lines{}, newLines());
}

TEST_F(Framing, RulesGetEveryLineOfARead) {
  net->command({"unparsedout", "off"});
  net->command({"reg", "on"});
  net->command({"regin", "1_1_1", "^(.)=(.)", "\\2\\1"});
  EXPECT_EQ((Values{"1a", "2b"}), unitsOf("a=1\nnothing\nb=2\n"));
}

}  // namespace
