// A device's bytes, and all else that happens to a link, under a configuration and a script.
//
// Input: commands, one a line; then a line "%%"; then the script (support/Script.h); then a line
// "%%"; then the steps (support/Sections.h), of these kinds:
//   0 d  the device sends, and it is read       p  the device sends
//   l    the device sends the bytes behind the first so often, and it is read
//   c    the device sends no more               x  the device breaks the link
//   t    the timer has expired                  k  a command line
//   m    an actuator request, KEY=VALUE         j  a message as JSON
// A part that is missing is empty, the configuration first.
#include <ifaddrs.h>
#include <poll.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "Owned.h"
#include "RovikUtil.h"
#include "support/FuzzedNet.h"
#include "support/LoopbackPeer.h"
#include "support/Property.h"
#include "support/Script.h"
#include "support/Sections.h"

using fuzzing::FuzzedNet;
using fuzzing::require;
using fuzzing::requireSame;
using fuzzing::Step;

// As if this machine had no addresses: datagrams of its own are then somebody's.
extern "C" int __wrap_getifaddrs(ifaddrs**);
extern "C" int __wrap_getifaddrs(ifaddrs**) {
  errno = ENOMEM;
  return -1;
}

namespace {

constexpr std::size_t kMostCommands = 40;
constexpr std::size_t kMostSteps = 40;
constexpr std::size_t kLongest = 20000;  // bytes of a step, fewer than a socket takes
constexpr std::size_t kBuffer = 4096;
constexpr int kArrival = 1000;  // milliseconds, which loopback never takes

// What a device's bytes become without a script and without rules: the reference for the framing.
class Model {
 public:
  explicit Model(const FuzzedNet& its_net) : net(its_net) {}

  // Known only while nothing but bytes has come.
  bool known = true;
  std::vector<std::string> units;

  void arrive(std::string_view bytes) {
    if (net.commode == COM_UDP) {
      units.emplace_back(bytes.substr(0, kBuffer));
      return;
    }
    while (!bytes.empty()) {
      const std::size_t room = std::min(kBuffer - buffer.size(), bytes.size());
      read(bytes.substr(0, room));
      bytes.remove_prefix(room);
    }
  }

  void end() {
    if (net.eolclose && !buffer.empty()) units.push_back(buffer);
    buffer.clear();
  }

 private:
  void read(std::string_view bytes) {
    buffer += bytes;
    if (net.raw)
      units.push_back(std::exchange(buffer, {}));
    else if (!net.eolclose)
      cut();
    if (buffer.size() >= kBuffer) buffer.clear();
  }

  void cut() {
    const std::string_view eol(net.eolin, static_cast<std::size_t>(net.eolin_size));
    std::size_t at = 0;
    while (!eol.empty() && (at = buffer.find(eol)) != std::string::npos) {
      units.push_back(buffer.substr(0, at + (net.chopeolin ? 0 : eol.size())));
      buffer.erase(0, at + eol.size());
    }
  }

  const FuzzedNet& net;
  std::string buffer;
};

class Run {
 public:
  Run(fuzzing::TcpPeer& its_peer, const fuzzing::UdpPeer& its_datagrams)
      : peer(its_peer), datagrams(its_datagrams) {
    net->before_write = [](void* self) { static_cast<Run*>(self)->meet(); };
    net->before_write_context = this;
  }

  void configure(std::string_view commands) {
    net->command({"host", "127.0.0.1"});
    net->command({"port", std::to_string(peer.port())});
    for (const std::string_view line : fuzzing::linesOf(commands, kMostCommands)) {
      // Nobody listens there, and the rovik has a port of its own choice here.
      if (line == "mode udp") net->command({"port", "9"});
      net->commandLine(line);
      meet();
    }
  }

  void perform(std::string_view script, std::string_view steps) {
    if (!script.empty()) net->openScript(fuzzing::scriptOf(script));
    net->command({"open"});
    inbox.takeUnits();
    model.known = script.empty() && net->unparsedout && net->network_id == 5 &&
                  net->regexTableIN.empty() && net->lua_state == nullptr;
    for (const Step& each : fuzzing::stepsOf(steps, kMostSteps)) {
      meet();
      take(each);
      net->checkState();
      if (model.known) compare();
      inbox.empty();
    }
  }

  ~Run() {
    meet();
    net->farewell();
    meet();
    peer.reset();
  }

 private:
  void meet() {
    peer.takeLinks();
    peer.receiveAll();
  }

  void take(const Step& step) {
    const bool bytes_only = step.kind == 0 || std::string_view("dplc").find(step.kind) < 4;
    model.known = model.known && net->fd >= 0 && bytes_only;
    switch (step.kind) {
      case 'p':
        return deliver(step.bytes);
      case 'l':
        return deliverLong(step.bytes);
      case 'c':
        return leave(false);
      case 'x':
        return leave(true);
      case 't':
        net->selectTI();
        return;
      case 'k':
        return net->commandLine(step.bytes);
      case 'm':
        return request(step.bytes);
      case 'j':
        return message(step.bytes);
      default:
        deliver(step.bytes);
        net->readAll();
    }
  }

  // What has been sent but not read comes with the next bytes: then nobody knows the reads.
  void deliver(std::string_view bytes) {
    bytes = bytes.substr(0, kLongest);
    if (bytes.empty() || net->fd < 0) return;
    if (net->readable()) model.known = false;
    if (net->commode == COM_UDP)
      datagrams.send(fuzzing::localPort(net->fd), bytes);
    else
      peer.send(bytes);
    awaitBytes(bytes.size());
    if (model.known) model.arrive(bytes);
  }

  // Loopback hands over at once, but nobody promises that.
  void awaitBytes(std::size_t count) const {
    int waiting = 0;
    for (int i = 0; i < kArrival && ::ioctl(net->fd, FIONREAD, &waiting) == 0; ++i) {
      if (!model.known || waiting >= static_cast<int>(count)) return;
      ::poll(nullptr, 0, 1);
    }
  }

  void deliverLong(const std::string& bytes) {
    if (bytes.size() < 2) return;
    std::string all;
    for (int count = static_cast<unsigned char>(bytes[0]); count >= 0; --count)
      if (all.size() < kLongest) all.append(bytes, 1);
    deliver(all);
    net->readAll();
  }

  void leave(bool broken) {
    if (net->fd < 0) return;
    if (net->commode == COM_UDP)
      datagrams.send(fuzzing::localPort(net->fd), {});
    else if (broken)
      peer.reset();
    else
      peer.halfClose();
    net->readable(kArrival);
    net->readAll();
    if (net->commode != COM_UDP && model.known) model.end();
  }

  void request(const std::string& text) {
    const std::size_t equals = std::min(text.find('='), text.size());
    const auto msg = createOwned<MMActuatorRequest>(MM_ACTUATOR_REQUEST);
    msg->setKey(text.substr(0, equals).c_str());
    msg->value_type = VAL_STRING;
    msg->value_s = text.substr(std::min(equals + 1, text.size()));
    net->selectMM(msg.get());
  }

  void message(std::string text) {
    const OwnedMessage<> msg(RovikMessage::create(text.data()));
    if (msg != nullptr) net->selectMM(msg.get());
  }

  // Not while bytes wait to be read.
  void compare() {
    if (net->readable()) return;
    const std::vector<std::string> actual = inbox.takeUnits();
    require(actual.size() == model.units.size(), "there are as many units as there have to be");
    for (std::size_t i = 0; i < actual.size(); ++i) {
      std::string escaped;
      RovikUtil::escape(escaped, model.units[i].data(), model.units[i].size());
      requireSame(escaped, actual[i], "a unit is what it has to be");
    }
    model.units.clear();
  }

  fuzzing::TcpPeer& peer;
  const fuzzing::UdpPeer& datagrams;
  fuzzing::Inbox inbox;
  const std::unique_ptr<FuzzedNet> net = FuzzedNet::make();
  Model model{*net};
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzzing::silenceLog();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static fuzzing::TcpPeer peer;
  static const fuzzing::UdpPeer datagrams;
  const fuzzing::Balance balance;
  auto [commands, rest] = fuzzing::cutInTwo(fuzzing::asText(data, size));
  auto [script, steps] = fuzzing::cutInTwo(rest);
  {
    Run run(peer, datagrams);
    run.configure(commands);
    run.perform(script, steps);
  }
  balance.check();
  return 0;
}
