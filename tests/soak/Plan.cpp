#include "Plan.h"

#include <array>

namespace soak {
namespace {

using std::chrono::milliseconds;

// Broadcasts reach 200 roviks each, so that they are the load: what a catch-all or a rule makes of
// a line is one. Kinds with much to say use scripts, which address the ledger alone.
const Kind kKinds[] = {
    {"steady", 46, Transport::Tcp, Character::Steady, Handling::CatchAll, milliseconds(1000), 0},
    {"ruled", 32, Transport::Tcp, Character::Steady, Handling::Rules, milliseconds(1000), 100},
    {"scripted", 10, Transport::Tcp, Character::Steady, Handling::Reporter, milliseconds(500), 0},
    {"sender", 2, Transport::Tcp, Character::Steady, Handling::Sender, milliseconds(0), 0},
    {"writer", 2, Transport::Tcp, Character::Steady, Handling::Writer, milliseconds(0), 0},
    {"asker", 2, Transport::Tcp, Character::Steady, Handling::Asker, milliseconds(0), 0},
    {"datagram", 8, Transport::Udp, Character::Steady, Handling::CatchAll, milliseconds(1000), 0},
    {"tls", 6, Transport::Tls, Character::Steady, Handling::Rules, milliseconds(1000), 0},
    {"serial", 8, Transport::Serial, Character::Steady, Handling::Rules, milliseconds(1000), 0},
    // Opened again by the tick of half a minute, by the next request, or by a script's quick tick.
    {"ticked", 8, Transport::Tcp, Character::Comes, Handling::Rules, milliseconds(0), 0},
    {"wanted", 12, Transport::Tcp, Character::Comes, Handling::Rules, milliseconds(700), 0},
    {"restless", 14, Transport::Tcp, Character::Comes, Handling::Reporter, milliseconds(0), 0},
    {"tls-restless", 3, Transport::Tls, Character::Comes, Handling::Reporter, milliseconds(0), 0},
    {"unplugged", 3, Transport::Serial, Character::Comes, Handling::Reporter, milliseconds(0), 0},
    {"flood", 2, Transport::Tcp, Character::Floods, Handling::Rules, milliseconds(0), 0},
    {"report-flood", 6, Transport::Tcp, Character::Floods, Handling::Reporter, milliseconds(0), 0},
    {"tls-flood", 2, Transport::Tls, Character::Floods, Handling::Reporter, milliseconds(0), 0},
    {"storm", 2, Transport::Udp, Character::Floods, Handling::Reporter, milliseconds(1000), 0},
    {"stalled", 4, Transport::Tcp, Character::Stalls, Handling::Rules, milliseconds(10), 1500},
    {"tls-stalled", 2, Transport::Tls, Character::Stalls, Handling::Rules, milliseconds(10), 1500},
    {"serial-stalled", 2, Transport::Serial, Character::Stalls, Handling::Rules, milliseconds(50),
     600},
    {"garbled", 14, Transport::Tcp, Character::Garbles, Handling::Rules, milliseconds(1000), 0},
    {"tls-garbled", 2, Transport::Tls, Character::Garbles, Handling::Rules, milliseconds(1000), 0},
    {"serial-garbled", 2, Transport::Serial, Character::Garbles, Handling::Rules,
     milliseconds(1000), 0},
    {"noise", 2, Transport::Udp, Character::Garbles, Handling::Rules, milliseconds(1000), 0},
    {"visited", 4, Transport::Tcp, Character::Visited, Handling::CatchAll, milliseconds(200), 0},
};

}  // namespace

const char* Link::script() const {
  static constexpr std::array kScripts = {"", "", "reporter", "sender", "writer", "asker"};
  return kScripts.at(static_cast<std::size_t>(kind.handling));
}

bool Link::mayLose() const {
  return kind.transport == Transport::Udp && kind.character != Character::Steady;
}

bool Link::mayPart() const {
  return kind.character == Character::Comes || kind.character == Character::Stalls ||
         kind.character == Character::Visited || mayLose();
}

std::vector<Link> plan() {
  std::vector<Link> links;
  int id = kFirstLinkId;
  for (const Kind& kind : kKinds)
    for (int i = 1; i <= kind.count; ++i)
      links.push_back({id++, kind.name + std::string("-") + std::to_string(i), kind});
  return links;
}

}  // namespace soak
