#include "Place.h"
#include "support/PeerUdp.h"

namespace soak {
namespace {

// The rovik is where the last datagram came from: its port changes with each link.
class UdpLine : public Line {
 public:
  explicit UdpLine(const UdpPeer& its_socket) : socket(its_socket) {}
  // One datagram.
  std::size_t send(std::string_view bytes) override {
    socket.send(bytes, "127.0.0.1", rovik_port);
    return bytes.size();
  }
  bool receive(std::string& bytes) override {
    while (socket.datagramWaits()) {
      const Datagram datagram = socket.receive();
      rovik_port = datagram.port;
      bytes += datagram.bytes;
    }
    return true;
  }

 private:
  const UdpPeer& socket;
  int rovik_port = 0;  // known from the first receive on
};

// Up to port 1024 a rovik leaves the choice of its own port to the system, so that peers on
// addresses of their own can share one.
class UdpPlace : public Place {
 public:
  std::string commands() const override {
    return "  mode udp\n  host " + socket.address() + "\n  port 1024\n";
  }
  // The rovik has to send first: where it listens is not known before.
  std::unique_ptr<Line> welcome() override {
    return socket.datagramWaits() ? std::make_unique<UdpLine>(socket) : nullptr;
  }

 private:
  const UdpPeer socket = UdpPeer::foreign(1024);
};

}  // namespace

std::unique_ptr<Place> makeUdpPlace() { return std::make_unique<UdpPlace>(); }

}  // namespace soak
