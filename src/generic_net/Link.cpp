// Where the link opens and closes, whatever the transport.
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string_view>

#include "GenericNet.h"
#include "SocketAddress.h"

namespace {

// Holds a flag up for the life of a scope, also when a script error unwinds through it.
class During {
 public:
  explicit During(bool& its_flag) : flag(its_flag) { flag = true; }
  ~During() { flag = false; }
  During(const During&) = delete;
  During& operator=(const During&) = delete;

 private:
  bool& flag;
};

}  // namespace

// Null for a value that is none of the four.
const GenericNet::Transport* GenericNet::transport() const {
  using Net = GenericNet;
  static constexpr Transport kTransports[] = {
      // mode    open           close           read              write
      {COM_UDP, &Net::openUDP, &Net::closeUDP, &Net::readUDP, &Net::writeUDP,
       "sendto (errno: %d %s)\n"},
      {COM_TCP, &Net::openTCP, &Net::closeTCP, &Net::readStream, &Net::writeTCP,
       "send (errno: %d %s)\n"},
      {COM_TTY, &Net::openTTY, &Net::closeTTY, &Net::readStream, &Net::writeTTY,
       "write (errno: %d %s)\n"},
      {COM_SSL, &Net::openSSL, &Net::closeSSL, &Net::readSSL, &Net::writeSSL,
       "ssl write (errno: %d %s)\n"},
  };
  if (onTrial()) return &kTrial;
  const auto* const found =
      std::find_if(std::begin(kTransports), std::end(kTransports),
                   [this](const Transport& how) { return how.mode == commode; });
  return found != std::end(kTransports) ? found : nullptr;
}

int GenericNet::openGeneric() {
  static constexpr ScriptEvent kRcvOpen = {
      "ROVIK_RCVOPEN",
      "lua ROVIK_RCVOPEN did not return expected timer info, using default timer\n"};
  if (fd >= 0) return 0;
  emptyInbuf();
  // A rovik that is being made to end opens nothing: what a script may still write is not to cost
  // time.
  const Transport* const how = blocksOn(-1) ? transport() : nullptr;
  const int result = how != nullptr ? (this->*how->open)() : -1;
  if (result < 0) {
    report("open failed\n");
    return result;
  }
  ++link_epoch;
  if (lua_state == nullptr) return 0;
  trace("notify lua script of OPEN event\n");
  raise(kRcvOpen, [](lua_State*) { return 0; });
  return 0;
}

int GenericNet::closeGeneric() {
  static constexpr ScriptEvent kRcvClose = {
      "ROVIK_RCVCLOSE",
      "lua ROVIK_RCVCLOSE did not return expected timer info, using default timer\n"};
  if (fd < 0 || closing) return 0;
  if (lua_state != nullptr) {
    const During running(closing);
    trace("notify lua script of CLOSE event\n");
    raise(kRcvClose, [](lua_State*) { return 0; });
  }
  closeDescriptor();
  emptyInbuf();
  ++link_epoch;
  if (const Transport* const how = transport()) return (this->*how->close)();
  report("could not close\n");
  return -1;
}

void GenericNet::emptyInbuf() {
  inbufpos = 0;
  std::memset(inbuf, 0, sizeof inbuf);
}

// A descriptor that does not fit into readfds counts as one that was not to be had, and so does any
// while the rovik is being made to end. False with errno set.
bool GenericNet::takeDescriptor(int descriptor) {
  fd = descriptor;
  if (fd < 0) return false;
  const bool fits = fd < FD_SETSIZE;
  if (fits && blocksOn(fd)) return true;
  closeDescriptor();
  errno = fits ? ECANCELED : EMFILE;
  return false;
}

void GenericNet::closeDescriptor() {
  blocksOn(-1);
  if (fd >= 0) ::close(fd);
  fd = -1;
}

int GenericNet::abandonLink() {
  closeDescriptor();
  return -1;
}

// Negative with errno set on failure.
ssize_t GenericNet::writeOnce(const Transport& how, const char* data, std::size_t length) {
  const ssize_t written = (this->*how.write)(data, length);
  if (written > 0) linkSent({data, static_cast<std::size_t>(written)});
  return written;
}

// The "test" command's five bytes. 0, or -1 after the failure was reported and the link closed.
int GenericNet::sendTest() {
  static constexpr std::string_view kText = "TEST\n";
  if (commode == COM_SSL) return 0;
  const Transport* const how = transport();
  if (how == nullptr || writeOnce(*how, kText.data(), kText.size()) >= 0) return 0;
  // A serial line's failure goes by the name of the datagram's here.
  report(commode == COM_TCP ? "send (errno: %d %s)\n" : "sendto (errno: %d %s)\n", errno,
         std::strerror(errno));
  closeGeneric();
  return -1;
}
