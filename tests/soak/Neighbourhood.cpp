#include "Neighbourhood.h"

#include <poll.h>

namespace soak {
namespace {

constexpr int kTickMilliseconds = 10;

Peers makePeers(const std::vector<Link>& links, const std::string& folder) {
  Peers peers;
  for (const Link& link : links) peers.push_back(makePeer(link, folder));
  return peers;
}

}  // namespace

Neighbourhood::Neighbourhood(const std::vector<Link>& links, const std::string& folder)
    : peers(makePeers(links, folder)), thread([this](const std::stop_token& ended) {
        try {
          live(ended);
        } catch (...) {
          const std::lock_guard guard(lock);
          accident = std::current_exception();
        }
      }) {}

void Neighbourhood::live(const std::stop_token& ended) {
  while (!ended.stop_requested()) {
    const auto now = Clock::now();
    for (const auto& peer : peers) {
      const std::lock_guard guard(lock);
      peer->act(now);
    }
    poll(nullptr, 0, kTickMilliseconds);
  }
}

void Neighbourhood::begin() {
  with([](Peers& all) {
    for (const auto& peer : all) peer->begin();
  });
}

void Neighbourhood::calmDown() {
  with([](Peers& all) {
    for (const auto& peer : all) peer->calmDown();
  });
}

void Neighbourhood::checkAlive() {
  const std::lock_guard guard(lock);
  if (accident != nullptr) std::rethrow_exception(accident);
}

}  // namespace soak
