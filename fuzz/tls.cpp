// A TLS session after its handshake: records as they have to be, and everything else.
//
// Input: a byte of switches; then the steps (support/Sections.h), of these kinds:
//   0 d  the server sends these bytes           r  these bytes go into the socket as they are
//   p    records with the bytes behind the first, but of these only so many bytes
//   f    the same, with one byte spoiled         2  the same, twice
//   n    the server wants to negotiate anew      a  it answers what the client has sent
//   e    the server says farewell                c  it sends no more
//   x    it breaks the link                      w  the rovik is asked to write these bytes
#include <fcntl.h>
#include <openssl/ssl.h>

#include <csignal>
#include <memory>
#include <string>

#include "Owned.h"
#include "support/FuzzedNet.h"
#include "support/LoopbackPeer.h"
#include "support/Property.h"
#include "support/Sections.h"
#include "support/TlsServer.h"

using fuzzing::FuzzedNet;
using fuzzing::require;
using fuzzing::Step;

extern "C" int __real_SSL_connect(SSL*);
extern "C" int __wrap_SSL_connect(SSL*);
extern "C" int __real_SSL_write(SSL*, const void*, int);
extern "C" int __wrap_SSL_write(SSL*, const void*, int);

namespace {

constexpr std::size_t kMostSteps = 24;
constexpr std::size_t kLongest = 20000;  // bytes of a step, fewer than a socket takes
constexpr int kArrival = 1000;           // milliseconds, which loopback never takes

enum Switches : unsigned char { kRaw = 1, kEolClose = 2, kChop = 4, kAnswer = 8, kPersist = 16 };

// The two sides of every session.
fuzzing::TcpPeer& device() {
  static fuzzing::TcpPeer peer;
  return peer;
}

fuzzing::TlsServer& deviceSession() {
  static fuzzing::TlsServer server;
  return server;
}

// What the rovik does with its session waits for the other side. That is on the same thread: it has
// its turn whenever the rovik would wait, and leaves when it has nothing to say.
template <typename Call>
int takingTurns(SSL* session, Call call) {
  const int link = SSL_get_fd(session);
  const int flags = ::fcntl(link, F_GETFL, 0);
  ::fcntl(link, F_SETFL, flags | O_NONBLOCK);
  int result = 0;
  while ((result = call()) <= 0 && SSL_get_error(session, result) == SSL_ERROR_WANT_READ) {
    const std::string answer = deviceSession().take(device().receiveAll());
    if (answer.empty()) device().halfClose();
    device().send(answer);
  }
  ::fcntl(link, F_SETFL, flags);
  return result;
}

class Run {
 public:
  void open(unsigned char switches) {
    net->command({"mode", "ssl"});
    net->command({"host", "127.0.0.1"});
    net->command({"port", std::to_string(peer.port())});
    net->command({"accept_self_cert", "on"});
    net->command({"raw", (switches & kRaw) != 0 ? "on" : "off"});
    net->command({"eolclose", (switches & kEolClose) != 0 ? "on" : "off"});
    net->command({"chopeol", (switches & kChop) != 0 ? "on" : "off"});
    net->command({"persist", "on"});
    if ((switches & kAnswer) != 0) net->openScript("function ROVIK_RCVIO(d) sndIO(d) end");
    const bool opened = net->command({"open"}) == "OK";
    require(opened, "the session is opened");
    // What is written without a session would have to wait for another handshake.
    if ((switches & kPersist) == 0) net->command({"persist", "off"});
  }

  void perform(std::string_view steps) {
    for (const Step& each : fuzzing::stepsOf(steps, kMostSteps)) {
      if (net->fd < 0) return;
      take(each);
      net->readAll();
      net->checkState();
      inbox.empty();
    }
  }

  ~Run() {
    net->farewell();
    peer.reset();
  }

 private:
  void take(const Step& step) {
    const std::string bytes = step.bytes.substr(0, kLongest);
    const std::size_t first = bytes.empty() ? 0 : static_cast<unsigned char>(bytes[0]);
    const std::string rest = bytes.empty() ? bytes : bytes.substr(1);
    switch (step.kind) {
      case 'r':
        return send(bytes);
      case 'p':
        return send(server.seal(rest).substr(0, first));
      case 'f':
        return send(spoiled(server.seal(rest), first));
      case '2': {
        const std::string records = server.seal(rest);
        return send(records + records);
      }
      case 'n':
        return send(server.negotiation());
      case 'a':
        return send(server.take(peer.receiveAll()));
      case 'e':
        return send(server.farewell());
      case 'c':
        peer.halfClose();
        net->readable(kArrival);
        return;
      case 'x':
        peer.reset();
        net->readable(kArrival);
        return;
      case 'w':
        return write(bytes);
      default:
        send(server.seal(bytes));
    }
  }

  static std::string spoiled(std::string records, std::size_t place) {
    if (!records.empty()) records[place % records.size()] ^= 0x20;
    return records;
  }

  void send(std::string_view bytes) {
    if (bytes.empty()) return;
    peer.send(bytes);
    net->readable(kArrival);
  }

  void write(const std::string& text) {
    const auto msg = createOwned<MMActuatorRequest>(MM_ACTUATOR_REQUEST);
    msg->network_id = static_cast<std::uint32_t>(net->network_id);
    msg->value_type = VAL_STRING;
    msg->value_s = text;
    net->selectMM(msg.get());
  }

  fuzzing::TcpPeer& peer = device();
  fuzzing::TlsServer& server = deviceSession();
  fuzzing::Inbox inbox;
  const std::unique_ptr<FuzzedNet> net = FuzzedNet::make();
};

}  // namespace

extern "C" int __wrap_SSL_connect(SSL* session) {
  device().takeLinks();
  deviceSession().begin();
  return takingTurns(session, [session] { return __real_SSL_connect(session); });
}

// The rovik's, which first ends a negotiation that has begun; the server's is without a socket.
extern "C" int __wrap_SSL_write(SSL* session, const void* data, int length) {
  const auto write = [=] { return __real_SSL_write(session, data, length); };
  return SSL_get_fd(session) < 0 ? write() : takingTurns(session, write);
}

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  // As the program does.
  std::signal(SIGPIPE, SIG_IGN);
  fuzzing::silenceLog();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  device();
  deviceSession();
  const fuzzing::Balance balance;
  if (size == 0) return 0;
  {
    Run run;
    run.open(data[0]);
    run.perform(fuzzing::asText(data + 1, size - 1));
  }
  balance.check();
  return 0;
}
