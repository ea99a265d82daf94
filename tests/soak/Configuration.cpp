#include "Configuration.h"

namespace soak {
namespace {

const char* onOff(bool on) { return on ? "on\n" : "off\n"; }

// What becomes of the lines that come in.
std::string handling(const Link& link) {
  const std::string id = std::to_string(link.id);
  const std::string script = link.script();
  const bool catch_all =
      link.kind.handling == Handling::CatchAll || link.kind.handling == Handling::Writer ||
      link.kind.handling == Handling::Asker || link.kind.handling == Handling::Sender;
  std::string commands = std::string("  unparsedout ") + onOff(catch_all);
  if (link.kind.handling == Handling::Rules)
    commands += "  reg on\n  regin " + id + "_1_0 '^(#[0-9]+[.][0-9]+!?)( x*)?(\\\\n)?$' '\\1'\n";
  if (!script.empty()) commands += "  luafile " + script + ".lua\n  luaopen\n";
  return commands;
}

std::string rovik(const Peer& peer) {
  const Link& link = peer.link();
  const bool visited = link.kind.character == Character::Visited;
  return "rovik " + std::to_string(link.id) + ' ' + link.name + " generic_net\n" +
         peer.place().commands() + "  chopeol on\n  addeol on\n  persist " + onOff(!visited) +
         "  reconnect " + onOff(!visited) + handling(link) + (visited ? "" : "  open\n");
}

}  // namespace

std::string ledgerConfiguration(const std::vector<Link>& links) {
  std::string text = "rovik " + std::to_string(kLedgerId) + " ledger ledger\n";
  for (const Link& link : links) {
    const std::string id = std::to_string(link.id);
    text += "  expect " + id + (link.mayLose() ? " rising\n" : " exact\n");
    if (link.kind.ask_interval.count() > 0)
      text += "  ask " + id + ' ' + std::to_string(link.kind.ask_interval.count()) + ' ' +
              std::to_string(link.kind.ask_size) + '\n';
  }
  return text;
}

std::string linkConfiguration(const Peers& peers) {
  std::string text;
  for (const auto& peer : peers) text += rovik(*peer);
  return text;
}

}  // namespace soak
