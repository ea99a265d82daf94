// The way out over each of the four transports: what is the same for all of them, against a real
// device each.
#include <csignal>
#include <filesystem>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "Drovane.h"
#include "OutboundNet.h"
#include "RovikUtil.h"
#include "support/Inbox.h"
#include "support/PeerSerial.h"
#include "support/PeerTcp.h"
#include "support/PeerTls.h"
#include "support/PeerUdp.h"
#include "support/TempFolder.h"

namespace {

// The other end of a link.
class Device {
 public:
  Device() = default;
  virtual ~Device() = default;
  Device(const Device&) = delete;
  Device& operator=(const Device&) = delete;

  // The commands that point the rovik at it.
  virtual std::vector<std::vector<std::string>> commands() const = 0;
  // Does something that makes the rovik open its link, and takes the link.
  virtual void meet(const std::function<void()>& action) { action(); }
  // The next bytes; fewer when the rovik ends the link.
  virtual std::string receive(std::size_t count) = 0;
  // Whether the rovik ends the link.
  virtual bool seesEnd() = 0;
  // What becomes of the link so that the rovik's next write fails. The rovik may see it coming.
  virtual void breakLink(ExposedNet& net) = 0;
  // Ready for another link, after a broken one.
  virtual void repair() {}

  // What the rovik logs when it opens a link, for each write, and when a write fails.
  virtual Lines openingLines() const = 0;
  virtual Lines writeLines() const { return {}; }
  virtual std::string failure() const = 0;
  // A setting with which the rovik cannot open its link, and what it then logs.
  virtual std::vector<std::string> wrongCommand() const = 0;
  virtual Lines failedOpeningLines() const = 0;
};

class UdpDevice final : public Device {
 public:
  std::vector<std::vector<std::string>> commands() const override {
    return {{"mode", "udp"}, {"host", peer.address()}, {"port", std::to_string(peer.port())}};
  }
  std::string receive(std::size_t) override { return peer.receive().bytes; }
  // Nobody tells the other end.
  bool seesEnd() override { return !peer.datagramWaits(); }
  // No datagram can go to port 0.
  void breakLink(ExposedNet& net) override { net.p_addr.sin_port = 0; }
  Lines openingLines() const override {
    return {traceLine("opening UDP socket"), traceLine("setting UDP broadcast option")};
  }
  std::string failure() const override { return "sendto (errno: 22 Invalid argument)"; }
  std::vector<std::string> wrongCommand() const override {
    return {"port", std::to_string(taken.port())};
  }
  Lines failedOpeningLines() const override {
    Lines lines = openingLines();
    lines.push_back(errorLine("bind (errno: 98 Address already in use)"));
    return lines;
  }

 private:
  // On port 1024, so that the rovik takes a port of its own choice beside it.
  UdpPeer peer = UdpPeer::foreign(1024);
  // Above 1024 the rovik would have to take the same one.
  UdpPeer taken{"0.0.0.0"};
};

class TcpDevice final : public Device {
 public:
  std::vector<std::vector<std::string>> commands() const override {
    return {{"mode", "tcp"}, {"host", "127.0.0.1"}, {"port", std::to_string(peer.port())}};
  }
  void meet(const std::function<void()>& action) override {
    action();
    peer.accept();
  }
  std::string receive(std::size_t count) override { return peer.receive(count); }
  bool seesEnd() override { return peer.seesEnd(); }
  void breakLink(ExposedNet&) override { peer.reset(); }
  Lines openingLines() const override { return {traceLine("opening TCP socket")}; }
  std::string failure() const override { return "send (errno: 104 Connection reset by peer)"; }
  std::vector<std::string> wrongCommand() const override {
    return {"port", std::to_string(nobody.port())};
  }
  Lines failedOpeningLines() const override {
    return {traceLine("opening TCP socket"),
            errorLine("getsockopt (errno: 111 Connection refused)")};
  }

 private:
  TcpPeer peer;
  RefusingPort nobody;
};

class TlsDevice final : public Device {
 public:
  std::vector<std::vector<std::string>> commands() const override {
    return {{"mode", "ssl"},
            {"host", "127.0.0.1"},
            {"port", std::to_string(peer.port())},
            {"accept_self_cert", "on"}};
  }
  void meet(const std::function<void()>& action) override {
    auto taken = std::async(std::launch::async, [this] { return peer.accept(); });
    action();
    EXPECT_TRUE(taken.get());
  }
  std::string receive(std::size_t count) override { return peer.receive(count); }
  bool seesEnd() override { return peer.link().seesEnd(); }
  void breakLink(ExposedNet&) override { peer.link().reset(); }
  Lines openingLines() const override {
    return {traceLine("opening SSL socket"), traceLine("opening TCP socket"),
            traceLine("SSL session created successfully!"),
            traceLine("Certificate retrieved from server: /CN=device"),
            traceLine("Verify ok (accepting self certs!): self-signed certificate")};
  }
  Lines writeLines() const override { return {traceLine("SSL_write")}; }
  std::string failure() const override { return "ssl write (errno: 104 Connection reset by peer)"; }
  std::vector<std::string> wrongCommand() const override {
    return {"port", std::to_string(nobody.port())};
  }
  Lines failedOpeningLines() const override {
    return {traceLine("opening SSL socket"), traceLine("opening TCP socket"),
            errorLine("getsockopt (errno: 111 Connection refused)"),
            traceLine("Failed to opent TCP socket")};
  }

 private:
  TlsPeer peer{selfSigned()};
  RefusingPort nobody;
};

class SerialDevice final : public Device {
 public:
  SerialDevice() { std::filesystem::create_symlink(line.path(), port()); }
  std::vector<std::vector<std::string>> commands() const override {
    return {{"mode", "tty"}, {"tty", port()}};
  }
  std::string receive(std::size_t count) override { return line.receive(count); }
  bool seesEnd() override { return line.seesEnd(); }
  void breakLink(ExposedNet&) override { line.unplug(); }
  void repair() override {
    line = SerialPeer();
    std::filesystem::remove(port());
    std::filesystem::create_symlink(line.path(), port());
  }
  Lines openingLines() const override {
    return {traceLine("opening Serial socket"), traceLine("set baudrate to: 13")};
  }
  std::string failure() const override { return "write (errno: 5 Input/output error)"; }
  std::vector<std::string> wrongCommand() const override { return {"tty", port() + "x"}; }
  Lines failedOpeningLines() const override {
    return {traceLine("opening Serial socket"),
            errorLine("open serial port: " + port() + "x (errno: 2 No such file or directory)")};
  }

 private:
  std::string port() const { return folder / "port"; }

  TempFolder folder;
  SerialPeer line;
};

struct Row {
  const char* name;
  std::unique_ptr<Device> (*make)();
};

std::ostream& operator<<(std::ostream& out, const Row& row) { return out << row.name; }

template <typename Kind>
std::unique_ptr<Device> make() {
  return std::make_unique<Kind>();
}

// A rovik that knows its device, with a closed link that is not kept.
class OutboundTransports : public NetTest, public testing::WithParamInterface<Row> {
 protected:
  // Ignores the signal of a broken pipe, as the program does.
  OutboundTransports() : pipe_signal_before(std::signal(SIGPIPE, SIG_IGN)) {
    command(device->commands());
  }
  ~OutboundTransports() override {
    if (!root_before.empty()) Drovane::global.setInstRoot(root_before);
    std::signal(SIGPIPE, pipe_signal_before);
  }

  void command(const std::vector<std::vector<std::string>>& commands) {
    for (const auto& words : commands) EXPECT_EQ("OK", net->command(words));
    newLines();
  }

  // Writes and opens a script, which may use m_p.
  void script(const std::string& text) {
    std::string before(512, '\0');
    Drovane::global.getInstRoot(before.data(), static_cast<int>(before.size()));
    root_before = before.c_str();
    std::filesystem::create_directory(root / "lua");
    root.write("lua/test.lua", "function ROVIK_INIT(me) m_p = me end\n" + text);
    Drovane::global.setInstRoot(root.path());
    command({{"luafile", "test.lua"}, {"luaopen"}});
  }

  void open() {
    device->meet([this] { EXPECT_EQ("OK", net->command({"open"})); });
    newLines();
  }

  void request(const std::string& value, const std::string& key = "5_0_0") {
    const auto msg = requestFor(key, value);
    EXPECT_EQ(0, net->selectMM(msg.get()));
  }

  int send(const std::string& data) {
    std::string buffer = data;
    buffer.resize(4096);
    return net->sndData(buffer.data(), static_cast<int>(data.size()), 4096);
  }

  // Breaks the link and waits until the rovik could see it.
  void breakLink() {
    device->breakLink(*net);
    if (net->commode != COM_UDP) awaitEnd();
  }

  // One after the other.
  template <typename... More>
  static Lines joined(Lines lines, const More&... more) {
    (lines.insert(lines.end(), more.begin(), more.end()), ...);
    return lines;
  }
  static Lines requestLines(const std::string& value) {
    return {infoLine("Actuator Request 5_0_0 = " + value)};
  }

  const std::unique_ptr<Device> device = GetParam().make();

 private:
  void (*const pipe_signal_before)(int);
  TempFolder root;
  std::string root_before;
};

TEST_P(OutboundTransports, RuleAndEndOfLineReachTheDevice) {
  command({{"persist", "on"},
           {"addeol", "on"},
           {"eolout", "\\r\\n"},
           {"reg", "on"},
           {"iodebug", "on"},
           {"regout", "5_1_0", "^(ON|OFF)$", "HEAT=\\1"}});
  open();
  request("ON", "5_1_0");
  EXPECT_EQ(joined({infoLine("Actuator Request 5_1_0 = ON"), traceLine("REGOUT MATCH"),
                    traceLine("sndData (length = 9): HEAT=ON\\r\\n")},
                   device->writeLines()),
            newLines());
  EXPECT_EQ("HEAT=ON\r\n", device->receive(9));
  EXPECT_GE(net->fd, 0);
  EXPECT_EQ(0U, warnings());
}

TEST_P(OutboundTransports, RequestOpensTheLinkAndAKeptOneServesTheNext) {
  command({{"persist", "on"}});
  device->meet([this] { request("1"); });
  EXPECT_EQ(joined(requestLines("1"), device->openingLines(), device->writeLines()), newLines());
  EXPECT_EQ("1", device->receive(1));
  request("2");
  EXPECT_EQ(joined(requestLines("2"), device->writeLines()), newLines());
  EXPECT_EQ("2", device->receive(1));
  EXPECT_GE(net->fd, 0);
}

TEST_P(OutboundTransports, LinkThatIsNotKeptIsOpenedForEachRequestAndClosedAfterIt) {
  for (const char* value : {"1", "2"}) {
    device->meet([&] { request(value); });
    EXPECT_EQ(joined(requestLines(value), device->openingLines(), device->writeLines()),
              newLines());
    EXPECT_EQ(-1, net->fd);
    EXPECT_EQ(value, device->receive(1));
    EXPECT_TRUE(device->seesEnd());
  }
}

// A link that was opened by command is closed by the first write all the same.
TEST_P(OutboundTransports, LinkThatIsNotKeptEndsWithTheFirstWrite) {
  open();
  EXPECT_EQ(0, send("x"));
  EXPECT_EQ(device->writeLines(), newLines());
  EXPECT_EQ(-1, net->fd);
  EXPECT_EQ("x", device->receive(1));
  EXPECT_TRUE(device->seesEnd());
}

TEST_P(OutboundTransports, EchoIsHeardWithItsEndOfLineAfterTheClose) {
  Inbox inbox;
  script(
      "function ROVIK_RCVCLOSE() print('closed') return 5000000 end\n"
      "function ROVIK_RCVIO(data) print('heard ' .. data) return 5000000 end\n"
      "function ROVIK_RCV() return 5000000 end\n");
  command({{"echo", "on"}, {"addeol", "on"}});
  open();
  request("ON");
  EXPECT_EQ(joined(requestLines("ON"), device->writeLines(),
                   Lines{traceLine("notify lua script of CLOSE event"), infoLine("LUA: closed"),
                         traceLine("Rovik Message: MM_DATA 5_0_0 = {ON\\n}"),
                         traceLine("IO data to lua script"), infoLine("LUA: heard ON\\n")}),
            newLines());
  EXPECT_EQ(-1, net->fd);
  EXPECT_EQ(std::vector{dataText("5_0_0", "ON\\n")}, inbox.take());
}

TEST_P(OutboundTransports, EchoOfAKeptLinkIsHeardWhileItIsOpen) {
  Inbox inbox;
  command({{"echo", "on"}, {"persist", "on"}});
  open();
  request("a\\x00b");
  EXPECT_EQ(std::vector{dataText("5_0_0", "a\\x00b")}, inbox.take());
  EXPECT_EQ(std::string("a\0b", 3), device->receive(3));
  EXPECT_GE(net->fd, 0);
}

TEST_P(OutboundTransports, FailedWriteIsReportedAndClosesTheLink) {
  Inbox inbox;
  command({{"persist", "on"}, {"echo", "on"}});
  open();
  breakLink();
  EXPECT_EQ(-1, send("lost"));
  EXPECT_EQ(joined(device->writeLines(), Lines{errorLine(device->failure())}), newLines());
  EXPECT_EQ(device->failure(), warning());
  EXPECT_EQ(1U, warnings());
  EXPECT_EQ(-1, net->fd);
  EXPECT_EQ(std::vector<Arrived>{}, inbox.take());
}

TEST_P(OutboundTransports, RequestAfterAFailedOneOpensTheLinkAnew) {
  command({{"persist", "on"}});
  open();
  breakLink();
  request("lost");
  EXPECT_EQ(joined(requestLines("lost"), device->writeLines(), Lines{errorLine(device->failure())}),
            newLines());
  device->repair();
  device->meet([this] { request("new"); });
  EXPECT_EQ(joined(requestLines("new"), device->openingLines(), device->writeLines()), newLines());
  EXPECT_EQ("new", device->receive(3));
  EXPECT_EQ(1U, warnings());
}

TEST_P(OutboundTransports, TickAfterAFailedRequestOpensTheLinkAnewOnlyWithReconnect) {
  command({{"persist", "on"}});
  open();
  breakLink();
  request("lost");
  device->repair();
  newLines();
  EXPECT_EQ(0, net->selectTI());
  EXPECT_EQ(Lines{}, newLines());
  EXPECT_EQ(-1, net->fd);
  command({{"reconnect", "on"}});
  device->meet([this] { EXPECT_EQ(0, net->selectTI()); });
  EXPECT_EQ(device->openingLines(), newLines());
  EXPECT_GE(net->fd, 0);
  request("new");
  EXPECT_EQ("new", device->receive(3));
}

TEST_P(OutboundTransports, RequestIsDroppedWhenTheLinkCannotBeOpened) {
  Inbox inbox;
  command({device->wrongCommand(), {"echo", "on"}});
  request("lost");
  const Lines failure = joined(device->failedOpeningLines(),
                               Lines{errorLine("open failed"),
                                     traceLine("request message ignored as socket not connected")});
  EXPECT_EQ(joined(requestLines("lost"), failure), newLines());
  EXPECT_EQ("open failed", warning());
  EXPECT_EQ(2U, warnings());
  EXPECT_EQ(0, send("lost too"));
  EXPECT_EQ(failure, newLines());
  EXPECT_EQ(-1, net->fd);
  EXPECT_EQ(std::vector<Arrived>{}, inbox.take());
}

TEST_P(OutboundTransports, LongestRequestReachesTheDeviceAndAByteMoreDoesNot) {
  command({{"persist", "on"}});
  open();
  request(std::string(4096, 'x'));
  request(std::string(4095, 'y'));
  EXPECT_EQ(std::string(4095, 'y'), device->receive(4095));
  command({{"addeol", "on"}, {"eolout", "\\r\\n"}});
  EXPECT_EQ(0, send(std::string(4094, 'x')));
  EXPECT_EQ(Lines{}, newLines());
  EXPECT_EQ(0, send(std::string(4093, 'z')));
  EXPECT_EQ(std::string(4093, 'z') + "\r\n", device->receive(4095));
}

TEST_P(OutboundTransports, EveryByteReachesTheDevice) {
  std::string bytes;
  for (int byte = 0; byte < 256; ++byte) bytes += static_cast<char>(byte);
  std::string text;
  RovikUtil::escape(text, bytes.data(), bytes.size());
  command({{"persist", "on"}});
  open();
  request(text);
  EXPECT_EQ(bytes, device->receive(bytes.size()));
}

TEST_P(OutboundTransports, RawDataGetsNoEndOfLine) {
  command({{"persist", "on"}, {"addeol", "on"}, {"raw", "on"}});
  open();
  request("raw");
  EXPECT_EQ("raw", device->receive(3));
  command({{"raw", "off"}});
  request("line");
  EXPECT_EQ("line\n", device->receive(5));
}

TEST_P(OutboundTransports, ScriptWritesToTheDevice) {
  script("function say(words) sndIO(words.arg1) return 'said' end");
  command({{"addeol", "on"}});
  device->meet([this] { EXPECT_EQ("said", net->command({"say", "a\\x00\\\\b"})); });
  EXPECT_EQ(-1, net->fd);
  EXPECT_EQ(std::string("a\0\\b\n", 5), device->receive(5));
}

INSTANTIATE_TEST_SUITE_P(Every, OutboundTransports,
                         testing::Values(Row{"udp", make<UdpDevice>}, Row{"tcp", make<TcpDevice>},
                                         Row{"tls", make<TlsDevice>},
                                         Row{"serial", make<SerialDevice>}),
                         [](const testing::TestParamInfo<Row>& row) { return row.param.name; });

}  // namespace
