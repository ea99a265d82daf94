#include <iostream>
#include <memory>

#include "Recording.h"
#include "ReplayPeer.h"
#include "Replayer.h"
#include "Subcommands.h"
#include "Terminal.h"

namespace drovane {

int replay(const Options& options) {
  const Recording recording = Recording::read(options.file);
  const std::unique_ptr<ReplayPeer> peer =
      options.link.empty() ? replayOnTcp(static_cast<std::uint16_t>(options.port))
                           : replayOnSerialLine(options.link);
  Replayer replayer(recording, *peer, options.speed,
                    [](const std::string& finding) { std::cerr << finding + '\n'; });
  std::cout << "listening on " << printable(peer->place()) << std::endl;
  const bool as_recorded = replayer.play();
  std::cout << "played " << replayer.played() << " of " << recording.events.size() << " events, "
            << replayer.findings() << " not as recorded" << std::endl;
  return as_recorded ? kDone : kRefused;
}

}  // namespace drovane
