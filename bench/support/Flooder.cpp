#include "support/Flooder.h"

#include <poll.h>
#include <sys/socket.h>

#include "support/Lines.h"

namespace bench {
namespace {

// Told something, or alone.
bool interrupted(int channel) {
  pollfd wait{channel, POLLIN, 0};
  return poll(&wait, 1, 0) != 0;
}

}  // namespace

Flooder::Flooder() : process([this](int channel) { serve(channel); }) {}

void Flooder::stop() {
  process.send(Step::Stop);
  process.receive<Step>();
}

void Flooder::serve(int channel) const {
  const Block block(LineForm::Reading, 10);
  while (receiveRecord<Step>(channel)) {
    const drovane::Descriptor peer = listener.accept();
    while (!interrupted(channel)) writeAll(peer.get(), block.bytes);
    shutdown(peer.get(), SHUT_WR);
    awaitClose(peer.get());
    if (receiveRecord<Step>(channel)) sendRecord(channel, Step::Stop);
  }
}

}  // namespace bench
