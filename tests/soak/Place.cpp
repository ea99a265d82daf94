#include "Place.h"

namespace soak {

std::unique_ptr<Place> makePlace(Transport transport, const std::string& folder,
                                 const std::string& name) {
  switch (transport) {
    case Transport::Tcp:
      return makeTcpPlace();
    case Transport::Tls:
      return makeTlsPlace();
    case Transport::Udp:
      return makeUdpPlace();
    case Transport::Serial:
      return makeSerialPlace(folder + '/' + name);
  }
  return nullptr;
}

}  // namespace soak
