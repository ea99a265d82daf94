#include "SerialLink.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <sstream>
#include <stdexcept>
#include <system_error>

#include "support/Eventually.h"

std::string textOf(const termios& settings) {
  std::ostringstream text;
  text << std::oct << "iflag " << settings.c_iflag << " oflag " << settings.c_oflag << " cflag "
       << settings.c_cflag << " lflag " << settings.c_lflag << std::dec << " line "
       << int{settings.c_line} << " in " << settings.c_ispeed << " out " << settings.c_ospeed
       << " cc";
  for (const cc_t character : settings.c_cc) text << ' ' << int{character};
  return text.str();
}

// The speed is also a part of c_cflag.
termios rawSettings(tcflag_t format, speed_t speed) {
  termios settings{};
  settings.c_iflag = IGNBRK;
  settings.c_cflag = CLOCAL | CREAD | format | speed;
  settings.c_cc[VMIN] = 1;
  settings.c_ispeed = speed;
  settings.c_ospeed = speed;
  return settings;
}

termios asAPseudoTerminalKeeps(termios settings) {
  settings.c_cflag &= ~static_cast<tcflag_t>(CSIZE | PARENB);
  settings.c_cflag |= CS8;
  return settings;
}

drovane::Descriptor rawTerminal(const std::string& path) {
  drovane::Descriptor terminal(::open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
  const termios settings = rawSettings();
  if (!terminal || tcsetattr(terminal.get(), TCSANOW, &settings) != 0)
    throw std::system_error(errno, std::generic_category(), path);
  return terminal;
}

namespace {

constexpr int kSettled = 50;  // milliseconds

}  // namespace

std::size_t fillUp(int terminal) {
  if ((fcntl(terminal, F_GETFL) & O_NONBLOCK) == 0) throw std::runtime_error("writing would wait");
  const std::string bytes(1000, 'x');
  std::size_t total = 0;
  pollfd room{terminal, POLLOUT, 0};
  do {
    ssize_t written = 0;
    while ((written = ::write(terminal, bytes.data(), bytes.size())) > 0)
      total += static_cast<std::size_t>(written);
    EXPECT_EQ(EAGAIN, errno);
    // The system hands on in the background, which makes room once more.
  } while (::poll(&room, 1, kSettled) > 0);
  return total;
}

SerialLink::SerialLink() {
  net->command({"mode", "tty"});
  pointAt(device.path());
}

void SerialLink::pointAt(const std::string& path) {
  net->command({"tty", path});
  newLines();
}

void SerialLink::open() {
  ASSERT_EQ("OK", net->command({"open"}));
  newLines();
}

termios SerialLink::portSettings() const {
  termios settings{};
  EXPECT_EQ(0, tcgetattr(net->fd, &settings));
  return settings;
}

void SerialLink::deliver(std::string_view bytes) {
  const int before = net->bytesWaiting();
  device.send(bytes);
  ASSERT_TRUE(
      eventually([&] { return net->bytesWaiting() == before + static_cast<int>(bytes.size()); }));
}

// In pieces that the terminal can hold.
void SerialLink::feed(std::string_view bytes) {
  constexpr std::size_t kPiece = 2000;
  for (; !bytes.empty(); bytes.remove_prefix(std::min(kPiece, bytes.size()))) {
    deliver(bytes.substr(0, kPiece));
    while (net->fd >= 0 && net->bytesWaiting() > 0) net->readLinkNow();
  }
}

void SerialLink::unplug() {
  device.unplug();
  awaitEnd();
}
