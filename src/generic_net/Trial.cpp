// The link of a rovik that is tried without its device: whoever tries it is at the other end.
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string_view>

#include "GenericNet.h"

const GenericNet::Transport GenericNet::kTrial = {COM_TTY,
                                                  &GenericNet::openTrial,
                                                  &GenericNet::closeTrial,
                                                  &GenericNet::readStream,
                                                  &GenericNet::writeTTY,
                                                  "write (errno: %d %s)\n"};

// The link carries units the way that this rovik's own would.
int GenericNet::openTrial() {
  trace("opening trial link\n");
  const bool datagrams = commode == COM_UDP;
  const bool whole = datagrams || raw;
  const std::string_view end(eolin, static_cast<std::size_t>(eolin_size));
  const TrialLink kind = {datagrams, whole || eolclose ? "" : end, eolclose && !whole};
  if (takeDescriptor(trialLink(kind))) return 0;
  report("trial link (errno: %d %s)\n", errno, std::strerror(errno));
  return -1;
}

// The descriptor is closed already.
int GenericNet::closeTrial() { return 0; }
