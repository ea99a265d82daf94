// "drovane replay": the device of a recording, played to a house or to a peer of the test's own.
#include <arpa/inet.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <sstream>
#include <system_error>

#include "SimulatedDevice.h"
#include "TracedHouse.h"
#include "drovane/Recording.h"
#include "support/Eventually.h"

namespace {

using std::chrono::steady_clock;
using testing::HasSubstr;

const std::string kHead = "drovane-recording 1 boiler tcp 2026-11-21T02:46:40.124+01:00\n";

// A house that does what the test says.
class HouseEnd {
 public:
  explicit HouseEnd(int port) : socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::connect(socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
      throw std::system_error(errno, std::generic_category(), "connect");
    const timeval patience{static_cast<time_t>(kPatienceOfTests.count()), 0};
    ::setsockopt(socket.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
  }
  void send(const std::string& bytes) const {
    EXPECT_EQ(::send(socket.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(bytes.size()));
  }
  // The next bytes, up to `count` of them; fewer when the device ends the link before.
  std::string receive(std::size_t count) const {
    std::string bytes(count, '\0');
    std::size_t done = 0;
    while (done < count) {
      const ssize_t more = ::recv(socket.get(), bytes.data() + done, count - done, 0);
      if (more <= 0) break;
      done += static_cast<std::size_t>(more);
    }
    bytes.resize(done);
    return bytes;
  }
  bool seesEnd() const { return receive(1).empty(); }
  // Sends until the device takes nothing for a second, or `most` bytes; how many.
  std::size_t flood(std::size_t most) const {
    const std::string block(65536, 'x');
    std::size_t done = 0;
    while (done < most) {
      const ssize_t more =
          ::send(socket.get(), block.data(), block.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
      pollfd watched{socket.get(), POLLOUT, 0};
      if (more > 0)
        done += static_cast<std::size_t>(more);
      else if (::poll(&watched, 1, 1000) < 1)
        break;
    }
    return done;
  }
  void close() { socket.reset(); }

 private:
  drovane::Descriptor socket;
};

class Replay : public TracedHouse {
 protected:
  // Starts to play these events; the device can be connected to when this returns.
  void play(const std::string& events, const Arguments& options = {}) {
    playFile(program.folder.write("link.rec", kHead + events), options);
  }
  void playFile(const std::string& file, const Arguments& options = {}) {
    Arguments line = {DROVANE_PROGRAM, "replay", file};
    line.insert(line.end(), options.begin(), options.end());
    device = std::make_unique<Process>(line);
    ASSERT_TRUE(device->waitForOutput("\n")) << device->errors();
  }
  // The last word of the device's first line.
  std::string place() {
    const std::string line = device->output().substr(0, device->output().find('\n'));
    return line.substr(line.rfind(' ') + 1);
  }
  int port() { return std::stoi(place()); }

  void expectEnd(int status, const std::string& summary, const std::string& findings = "") {
    EXPECT_EQ(device->wait(), status);
    EXPECT_THAT(device->output(), testing::EndsWith('\n' + summary + '\n'));
    EXPECT_EQ(device->errors(), findings);
  }
  // "FILE:LINE: TEXT\n"
  std::string finding(int line, const std::string& text) const {
    return program.folder / "link.rec" + ":" + std::to_string(line) + ": " + text + '\n';
  }

  std::unique_ptr<Process> device;
};

TEST_F(Replay, PlaysTheDeviceAndEndsTheLinkAsItDid) {
  play("0 +\n0.01 > STATUS?\\r\\n\n0.02 < T=21.5\\r\\n\n0.03 -\n");
  EXPECT_THAT(device->output(),
              testing::MatchesRegex("listening on 127\\.0\\.0\\.1 port [0-9]+\n"));
  HouseEnd house(port());
  house.send("STATUS?\r\n");
  EXPECT_EQ(house.receive(8), "T=21.5\r\n");
  EXPECT_TRUE(house.seesEnd());
  house.close();
  expectEnd(0, "played 4 of 4 events, 0 not as recorded");
}

TEST_F(Replay, KeepsTheDistancesInTime) {
  play("5 +\n5.2 < a\n5.5 < b\n");
  const auto begin = steady_clock::now();
  const HouseEnd house(port());
  EXPECT_EQ(house.receive(1), "a");
  EXPECT_GE(steady_clock::now() - begin, std::chrono::milliseconds(190));
  EXPECT_EQ(house.receive(1), "b");
  const auto spent = steady_clock::now() - begin;
  EXPECT_GE(spent, std::chrono::milliseconds(490));
  EXPECT_LT(spent, std::chrono::seconds(5));
  EXPECT_EQ(device->wait(), 0);
}

TEST_F(Replay, WhatFollowsALateRequestIsAsLateAsIt) {
  play("0 +\n0.1 > a\n0.4 < b\n");
  const HouseEnd house(port());
  ::poll(nullptr, 0, 500);  // the house takes its time
  const auto asked = steady_clock::now();
  house.send("a");
  EXPECT_EQ(house.receive(1), "b");
  EXPECT_GE(steady_clock::now() - asked, std::chrono::milliseconds(290));
  EXPECT_EQ(device->wait(), 0);
}

TEST_F(Replay, AHundredTimesAsFastTakesAHundredthOfTheTime) {
  play("0 +\n20 < a\n", {"--speed", "100"});
  const auto begin = steady_clock::now();
  const HouseEnd house(port());
  EXPECT_EQ(house.receive(1), "a");
  EXPECT_GE(steady_clock::now() - begin, std::chrono::milliseconds(190));
  EXPECT_LT(steady_clock::now() - begin, std::chrono::seconds(15));
}

TEST_F(Replay, AtSpeed0NothingIsWaitedForButTheHouse) {
  play("0 +\n1000 < a\n2000 > b\n3000 < c\n", {"--speed", "0"});
  const HouseEnd house(port());
  EXPECT_EQ(house.receive(1), "a");
  house.send("b");
  EXPECT_EQ(house.receive(1), "c");
  expectEnd(0, "played 4 of 4 events, 0 not as recorded");
}

TEST_F(Replay, ARecordingOfAnOpenLinkBeginsWithTheHouse) {
  play("0.1 < a\n");
  EXPECT_EQ(HouseEnd(port()).receive(1), "a");
  EXPECT_EQ(device->wait(), 0);
}

TEST_F(Replay, BytesMayComeInOtherPiecesThanThen) {
  play("0 > abc\n0 > def\n0 > ghi\n0 < ok\n", {"--speed", "0"});
  const HouseEnd house(port());
  house.send("abcd");
  house.send("efg");
  house.send("hi");
  EXPECT_EQ(house.receive(2), "ok");
  EXPECT_EQ(device->wait(), 0);
}

TEST_F(Replay, OtherBytesAreReportedAndItGoesOn) {
  play("0 > STATUS?\\r\\n\n0 < T=21.5\\r\\n\n0 > OFF\\r\\n\n0 < OK\n", {"--speed", "0"});
  const HouseEnd house(port());
  house.send("STATE?\r\n");
  EXPECT_EQ(house.receive(8), "T=21.5\r\n");
  house.send("OFF\r\n");
  EXPECT_EQ(house.receive(2), "OK");
  expectEnd(1, "played 4 of 4 events, 1 not as recorded",
            finding(2, "expected 'STATUS?\\r\\n' from the house; 'STATE?\\r\\n' came"));
}

TEST_F(Replay, MissingBytesAreWaitedForFiveSeconds) {
  play("0 > abc\n0 > abc\n0 < x\n", {"--speed", "0"});
  const auto begin = steady_clock::now();
  const HouseEnd house(port());
  house.send("ab");
  EXPECT_EQ(house.receive(1), "x");
  EXPECT_GE(steady_clock::now() - begin, std::chrono::milliseconds(9900));
  expectEnd(1, "played 3 of 3 events, 2 not as recorded",
            finding(2, "expected 'abc' from the house; only 'ab' came") +
                finding(3, "expected 'abc' from the house; nothing came within 5 s"));
}

TEST_F(Replay, BytesTooManyAreReportedAtTheEndOfTheLinkAndOfTheRecording) {
  play("0 > a\n0.2 -\n0.2 +\n0.2 > b\n0.5 < c\n");
  const HouseEnd first(port());
  first.send("a and more");
  EXPECT_TRUE(first.seesEnd());
  const HouseEnd second(port());
  second.send("bcd");
  EXPECT_EQ(second.receive(1), "c");
  expectEnd(1, "played 5 of 5 events, 2 not as recorded",
            finding(3, "expected nothing more before the link ends; '\\x20and more' came") +
                program.folder / "link.rec" +
                ": expected nothing more from the house; 'cd' came\n");
}

TEST_F(Replay, AHouseThatSendsWithoutEndHasToWait) {
  constexpr std::size_t kMost = 256 * 1024 * 1024;
  play("0 +\n0 > HELLO\n3600 < T=1\n");
  const HouseEnd house(port());
  house.send("HELLO");
  EXPECT_LT(house.flood(kMost), kMost);
}

TEST_F(Replay, PlaysSeveralLinksOneAfterTheOther) {
  play("0 +\n0 < a\n0.1 -\n0.2 +\n0.2 < b\n0.3 -\n");
  EXPECT_EQ(HouseEnd(port()).receive(2), "a");
  EXPECT_EQ(HouseEnd(port()).receive(2), "b");
  expectEnd(0, "played 6 of 6 events, 0 not as recorded");
}

TEST_F(Replay, AHouseThatLeavesMayComeBack) {
  play("0 > a\n0 > b\n0 < c\n");
  {
    const HouseEnd first(port());
    first.send("a");
  }
  const HouseEnd second(port());
  second.send("b");
  EXPECT_EQ(second.receive(1), "c");
  expectEnd(0, "played 3 of 3 events, 0 not as recorded");
}

TEST_F(Replay, SaysWhichBytesTheHouseDidNotTake) {
  std::string events;
  constexpr std::size_t kMany = 2000;
  for (std::size_t i = 0; i < kMany; ++i) events += "0 < " + std::string(16'000, 'x') + '\n';
  play(events + "0 > a\n", {"--speed", "0"});
  const HouseEnd house(port());
  ASSERT_TRUE(device->waitForErrors("\n"));
  EXPECT_THAT(device->errors(),
              testing::ContainsRegex(":[0-9]+: expected the house to take 16000 bytes; it left "
                                     "[0-9]+ of them\n"));
}

TEST_F(Replay, EndsWithStatus1AtASignal) {
  for (const int signal : {SIGINT, SIGTERM}) {
    play("0 +\n1000 < a\n");
    device->signal(signal);
    expectEnd(1, "played 0 of 2 events, 0 not as recorded");
  }
  play("0 +\n1000 < a\n");
  const HouseEnd house(port());
  device->signal(SIGINT);
  EXPECT_TRUE(house.seesEnd());
  EXPECT_EQ(device->wait(), 1);
}

TEST_F(Replay, OfARecordingThatCannotBeReadEndsWithStatus2) {
  const std::string file = program.folder.write("link.rec", kHead + "0 ! x\n");
  const Finished done = program.ask({"replay", file});
  EXPECT_EQ(done.status, 2);
  EXPECT_EQ(done.output, "");
  EXPECT_EQ(done.errors, "drovane: " + file + ":2: '!' is no sign; expected one of + - < >\n");
}

TEST_F(Replay, ListensAtThePortThatIsAskedForUnlessItIsTaken) {
  play("0 +\n");
  const std::string taken = place();
  const Finished done = program.ask({"replay", program.folder / "link.rec", "--port", taken});
  EXPECT_EQ(done.status, 2);
  EXPECT_EQ(done.errors, "drovane: 127.0.0.1 port " + taken + ": Address already in use\n");
  device->signal(SIGINT);
  device->wait();
  play("0 +\n", {"--port", taken});
  EXPECT_EQ(place(), taken);
}

// --- Whole houses ---

TEST_F(Replay, EveryByteSurvivesRecordingAndReplay) {
  const std::string bytes = allBytes();
  const std::string file = program.folder / "device.rec";
  startOpen();
  const auto tracer = trace({"--record", file});
  peer.send(bytes);
  ASSERT_TRUE(tracer->waitForOutput("\\xff\n"));
  tellDevice(drovane::escapedBytes(bytes));  // the house unescapes it
  ASSERT_EQ(peer.receive(bytes.size()), bytes);
  ASSERT_TRUE(eventually([&] { return tracer->output().find(" > ") != std::string::npos; }));
  end(*tracer);

  playFile(file, {"--speed", "0"});
  const HouseEnd house(port());
  EXPECT_EQ(house.receive(bytes.size()), bytes);
  house.send(bytes);
  EXPECT_EQ(device->wait(), 0) << device->errors();
}

// The first values that the house told, in their order and without times; fewer when there are not
// so many yet.
std::string valuesOf(const std::string& watched, int most) {
  std::istringstream lines(watched);
  std::string values;
  int count = 0;
  for (std::string line; count < most && std::getline(lines, line);) {
    const std::size_t at = line.find(" projector(20) -> everybody data ");
    if (at == std::string::npos) continue;
    values += line.substr(at) + '\n';
    ++count;
  }
  return values;
}

// The recording up to its third answer about the lamp; empty when it has not so many yet.
std::string threeRounds(const std::string& recording) {
  std::size_t end = 0;
  for (int round = 0; round < 3; ++round) {
    const std::size_t at = recording.find("< LAMP=1234\\r\n", end);
    if (at == std::string::npos) return "";
    end = recording.find('\n', at) + 1;
  }
  return recording.substr(0, end);
}

// A house with the configuration and script of the example.
class ProjectorHouse {
 public:
  explicit ProjectorHouse(const std::string& port) {
    const std::string example = DROVANE_SOURCE_DIR "/examples/projector";
    std::string config = contentOf(example + "/projector.conf");
    replace(config, "port 7003\n", "port " + port + "\n");
    replace(config, "poll_every 5\n", "poll_every 0.3\n");
    replace(config, "  open\n", "");
    program.startReady(config, {"--root", example});
    watcher = program.watch();
  }

  // The values of the first three rounds; empty when they do not come in time.
  std::string values() {
    constexpr int kThreeRounds = 9;
    std::string told;
    eventually([&] {
      told = valuesOf(watcher->output(), kThreeRounds);
      return std::count(told.begin(), told.end(), '\n') == kThreeRounds;
    });
    return told;
  }

  Program program;
  std::unique_ptr<Process> watcher;
};

TEST_F(Replay, ADeviceSeenOnceIsRebuiltForTheSameHouse) {
  std::string told;
  {
    SimulatedDevice projector("projector", {"--port", "0"});
    ProjectorHouse house(projector.place());
    Process tracer({DROVANE_PROGRAM, "trace", "projector", "--control", house.program.control,
                    "--record", program.folder / "long.rec"});
    ASSERT_TRUE(tracer.waitForErrors("its link is closed"));
    house.program.ask({"cmd", "projector", "open"});
    EXPECT_TRUE(eventually([&] { return !threeRounds(program.folder.read("long.rec")).empty(); }));
    end(tracer);
    told = house.values();
  }
  playFile(program.folder.write("link.rec", threeRounds(program.folder.read("long.rec"))));
  ProjectorHouse house(place());
  house.program.ask({"cmd", "projector", "open"});
  EXPECT_EQ(device->wait(), 0) << device->errors();
  EXPECT_EQ(house.values(), told);
  EXPECT_THAT(told, HasSubstr(" 20_3_0 = \"1234\"\n"));
}

TEST_F(Replay, PlaysOnASerialLine) {
  const std::string path = program.folder / "line";
  play("0 > STATUS?\\n\n0.1 < T=21.5\\r\\n\n0.2 -\n0.3 +\n0.4 < T=22.0\\r\\n\n", {"--link", path});
  EXPECT_EQ(device->output(), "listening on " + path + "\n");
  program.startReady("rovik 5 boiler generic_net\n  mode tty\n  tty " + path +
                     "\n  eolin \\r\\n\n  chopeol on\n  persist on\n  open\n");
  const auto watcher = program.watch();
  tellDevice("STATUS?\n");
  EXPECT_TRUE(watcher->waitForOutput("data 5_0_0 = \"T=21.5\"")) << device->errors();
  EXPECT_TRUE(program.running().waitForErrors("link closed"));
  program.ask({"cmd", "boiler", "open"});
  EXPECT_TRUE(watcher->waitForOutput("data 5_0_0 = \"T=22.0\"")) << device->errors();
  expectEnd(0, "played 5 of 5 events, 0 not as recorded");
}

TEST_F(Replay, TakesThePlaceOfASerialLineWhoseDeviceWasKilled) {
  const std::string path = program.folder / "line";
  play("0 +\n", {"--link", path});
  device->signal(SIGKILL);
  device->wait();
  play("0 +\n", {"--link", path});
  device->signal(SIGINT);
  EXPECT_EQ(device->wait(), 1);
  EXPECT_EQ(runToEnd({"readlink", path}).status, 1);
}

TEST_F(Replay, AHouseThatDoesNotSetUpTheSerialLineIsPlayedToAfterASecond) {
  const std::string path = program.folder / "line";
  play("0 < warm\\n\n", {"--link", path});
  const auto begin = steady_clock::now();
  const drovane::Descriptor house(::open(path.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC));
  std::array<char, 16> line{};
  EXPECT_EQ(::read(house.get(), line.data(), line.size()), 5);
  EXPECT_STREQ(line.data(), "warm\n");
  EXPECT_GE(steady_clock::now() - begin, std::chrono::milliseconds(990));
}

TEST_F(Replay, LeavesAFileAloneThatIsNoLineOfItsOwn) {
  const std::string file = program.folder.write("link.rec", kHead);
  const std::string path = program.folder.write("line", "something dear\n");
  const Finished done = program.ask({"replay", file, "--link", path});
  EXPECT_EQ(done.status, 2);
  EXPECT_EQ(done.errors, "drovane: " + path + ": File exists\n");
  EXPECT_EQ(program.folder.read("line"), "something dear\n");
}

}  // namespace
