// All peers, on a thread of their own.
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Peer.h"

namespace soak {

using Peers = std::vector<std::unique_ptr<Peer>>;

class Neighbourhood {
 public:
  Neighbourhood(const std::vector<Link>& links, const std::string& folder);

  // Looks at the peers, or tells them something, while none of them acts.
  template <typename Look>
  auto with(Look look) {
    const std::lock_guard guard(lock);
    return look(peers);
  }
  void begin();
  void calmDown();
  // Throws what has ended the thread, if something has.
  void checkAlive();

 private:
  void live(const std::stop_token& ended);

  std::mutex lock;
  Peers peers;                  // under the lock
  std::exception_ptr accident;  // under the lock
  std::jthread thread;          // last: it ends before what it uses
};

}  // namespace soak
