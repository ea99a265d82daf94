// Random sequences of commands, messages, ticks and doings of a device, against a simple reference
// of what the link and the script then do.
#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <functional>
#include <numeric>
#include <random>
#include <set>
#include <utility>

#include "ScriptTest.h"
#include "framework/Descriptor.h"
#include "support/Eventually.h"

namespace {

using drovane::Descriptor;

// A TCP server on one port that comes and goes, takes every link and keeps what it has read. It has
// an address of its own, so that nobody else gets the port while it is away.
class Device {
 public:
  Device() { plugIn(); }
  int port() const { return listen_port; }
  std::string address() const {
    const auto process = static_cast<unsigned int>(getpid());
    return "127." + std::to_string(1 + (process >> 16 & 0x7f)) + '.' +
           std::to_string(process >> 8 & 0xff) + '.' + std::to_string(process & 0xff);
  }

  void plugIn() {
    listener.reset(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const int on = 1;
    setsockopt(listener.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in place{};
    place.sin_family = AF_INET;
    place.sin_port = htons(static_cast<std::uint16_t>(listen_port));
    place.sin_addr.s_addr = inet_addr(address().c_str());
    auto* const any = reinterpret_cast<sockaddr*>(&place);
    socklen_t size = sizeof place;
    ASSERT_EQ(0, ::bind(listener.get(), any, size));
    ASSERT_EQ(0, ::listen(listener.get(), 64));
    ASSERT_EQ(0, getsockname(listener.get(), any, &size));
    listen_port = ntohs(place.sin_port);
  }
  void unplug() { listener.reset(); }

  // Takes every link that waits and reads what has come; the newest one stays.
  void attend() {
    for (int next; listener && (next = accept4(listener.get(), nullptr, nullptr,
                                               SOCK_CLOEXEC | SOCK_NONBLOCK)) >= 0;) {
      read();
      link.reset(next);
    }
    read();
  }

  void send(std::string_view bytes) const {
    ASSERT_EQ(static_cast<ssize_t>(bytes.size()),
              ::send(link.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL));
  }
  void leave() { link.reset(); }

  std::string heard;

 private:
  void read() {
    std::array<char, 4096> block{};
    while (link) {
      const ssize_t count = ::read(link.get(), block.data(), block.size());
      if (count <= 0) return;
      heard.append(block.data(), static_cast<std::size_t>(count));
    }
  }

  Descriptor listener;
  Descriptor link;
  int listen_port = 0;
};

// The reference.
struct Model {
  bool plugged = true;
  bool persistent = false;
  bool reconnect = false;
  bool echo = false;
  bool raw = false;
  std::set<std::string> writing;  // the events from which the script writes
  bool open = false;
  std::string trace;
  std::string heard;  // by the device

  void event(const std::string& what, const std::string& detail = "") {
    trace += what + detail + " ";
    if (depth == kDepth || writing.count(what) == 0) return;
    ++depth;
    send("w");
    --depth;
  }

  bool openLink() {
    if (open) return true;
    if (!plugged) return false;
    open = true;
    left = false;
    ++epoch;
    event("open");
    return true;
  }

  void closeLink() {
    if (!open || closing) return;
    closing = true;
    event("close");
    closing = false;
    open = false;
    ++epoch;
  }

  // A link that the script took away while it was being opened cannot be written to.
  void send(const std::string& word) {
    if (!openLink() || !open) return;
    if (left && told_off) return closeLink();
    told_off = left;
    if (!left) heard += raw ? word : word + "\n";
    if (!persistent) closeLink();
    if (echo) event("io", word);
  }

  // Raw, what comes in one read is one unit.
  void receive(const std::vector<std::string>& lines) {
    const int before = epoch;
    if (raw) return event("io", std::accumulate(lines.begin(), lines.end(), std::string()));
    for (const std::string& line : lines)
      if (epoch == before) event("io", line);
  }

  // The first write after that is lost; the answer to it tells that the device is gone.
  void deviceLeaves() {
    left = true;
    told_off = false;
    closeLink();
  }

  void request(const std::string& value) {
    event("message");
    send(value);
  }

  void tick() {
    if (reconnect) openLink();
    event("tick");
  }

 private:
  static constexpr int kDepth = 2;
  int depth = 0;
  int epoch = 0;
  bool closing = false;
  bool left = false;
  bool told_off = false;
};

const char kScript[] = R"(
  trace, writing, depth = "", {}, 0
  local function on(event, detail)
    trace = trace .. event .. (detail or "") .. " "
    if depth == 2 or not writing[event] then return end
    depth = depth + 1
    sndIO("w")
    depth = depth - 1
  end
  function ROVIK_RCVOPEN() on("open") end
  function ROVIK_RCVCLOSE() on("close") end
  function ROVIK_RCVIO(text) on("io", (text:gsub("\\n", ""):gsub("\n", ""))) end
  function ROVIK_RCV() on("message") end
  function ROVIK_PERIODIC() on("tick") end
)";

class LinkModel : public ScriptTest, public testing::WithParamInterface<unsigned int> {
 protected:
  LinkModel() {
    script(kScript);
    net->command({"host", device.address()});
    net->command({"port", std::to_string(device.port())});
    net->command({"chopeol", "on"});
    net->command({"addeol", "on"});
  }

  bool chance(unsigned int in) { return random() % in == 0; }
  static const char* word(bool on) { return on ? "on" : "off"; }

  void toggle(const char* command, bool& setting) {
    setting = !setting;
    ASSERT_EQ("OK", net->command({command, word(setting)}));
  }

  void openOrClose() {
    if (model.open) {
      net->command({"close"});
      model.closeLink();
    } else {
      EXPECT_EQ(model.plugged ? "OK" : "ERROR", net->command({"open"}));
      model.openLink();
    }
  }

  void request() {
    auto msg = newMessage<MMActuatorRequest>(MM_ACTUATOR_REQUEST);
    msg->network_id = 5;
    msg->value_type = VAL_STRING;
    msg->value_s = "r";
    net->selectMM(msg.get());
    model.request("r");
  }

  void tick() {
    net->selectTI();
    model.tick();
  }

  void plugOrUnplug() {
    model.plugged = !model.plugged;
    model.plugged ? device.plugIn() : device.unplug();
  }

  void rewriteScript() {
    static const char* const kEvents[] = {"open", "close", "io", "message", "tick"};
    const std::string event = kEvents[random() % std::size(kEvents)];
    const bool writes = model.writing.insert(event).second;
    if (!writes) model.writing.erase(event);
    lua("writing." + event + " = " + (writes ? "true" : "nil"));
  }

  bool readable() {
    pollfd watched{net->fd, POLLIN, 0};
    return eventually([&] { return poll(&watched, 1, 0) == 1; });
  }

  void deviceSends() {
    if (!model.open) return;
    device.send("a\nb\nc\n");
    ASSERT_TRUE(readable());
    net->readLinkNow();
    model.receive({"a", "b", "c"});
  }

  void deviceLeaves() {
    if (!model.open) return;
    device.leave();
    ASSERT_TRUE(readable());
    net->readLinkNow();
    model.deviceLeaves();
  }

  void step() {
    static constexpr void (LinkModel::*kSteps[])() = {
        &LinkModel::openOrClose, &LinkModel::request,       &LinkModel::tick,
        &LinkModel::deviceSends, &LinkModel::deviceLeaves,  &LinkModel::plugOrUnplug,
        &LinkModel::deviceSends, &LinkModel::rewriteScript,
    };
    if (chance(4)) {
      const struct {
        const char* command;
        bool& setting;
      } kSettings[] = {{"persist", model.persistent},
                       {"reconnect", model.reconnect},
                       {"echo", model.echo},
                       {"raw", model.raw}};
      const auto& chosen = kSettings[random() % std::size(kSettings)];
      toggle(chosen.command, chosen.setting);
    } else {
      (this->*kSteps[random() % std::size(kSteps)])();
    }
  }

  void compare() {
    ASSERT_TRUE(eventually([&] {
      device.attend();
      return device.heard.size() >= model.heard.size();
    }));
    ASSERT_EQ(model.heard, device.heard);
    ASSERT_EQ(model.trace, lua("return trace"));
    ASSERT_EQ(model.open, net->fd >= 0);
    lua("trace = ''");
    model.trace.clear();
    model.heard.clear();
    device.heard.clear();
  }

  Device device;
  Model model;
  std::mt19937 random{GetParam()};
};

TEST_P(LinkModel, AgreesWithTheReference) {
  for (int i = 0; i < 1000; ++i) {
    ASSERT_NO_FATAL_FAILURE(step()) << "step " << i;
    ASSERT_NO_FATAL_FAILURE(compare()) << "step " << i;
  }
}

INSTANTIATE_TEST_SUITE_P(Seeds, LinkModel, testing::Range(1U, 11U));

}  // namespace
