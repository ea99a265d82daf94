#include "SerialLine.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <system_error>

namespace simulator {

namespace fs = std::filesystem;

PseudoTerminal::PseudoTerminal()
    : device_end(
          checked(posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC), "posix_openpt")) {
  checked(grantpt(device_end.get()), "grantpt");
  checked(unlockpt(device_end.get()), "unlockpt");
  std::array<char, 128> path{};
  // Unlike the others it returns the error's number.
  checked(-(errno = ptsname_r(device_end.get(), path.data(), path.size())), "ptsname_r");
  name = path.data();
  client_end = Descriptor(checked(open(path.data(), O_RDWR | O_NOCTTY | O_CLOEXEC), path.data()));
  passBytesOn();
}

// A fresh terminal would send back what it receives and change the ends of lines.
void PseudoTerminal::passBytesOn() const {
  termios settings{};
  checked(tcgetattr(client_end.get(), &settings), "tcgetattr");
  cfmakeraw(&settings);
  checked(tcsetattr(client_end.get(), TCSANOW, &settings), "tcsetattr");
}

Link::Link(const std::string& target, fs::path its_path) : path(std::move(its_path)) {
  if (path.empty()) return;
  if (fs::is_symlink(path) && (!fs::exists(path) || fs::read_symlink(path) == target))
    fs::remove(path);
  checked(symlink(target.c_str(), path.c_str()), path.c_str());
}

Link::~Link() {
  std::error_code gone_already;
  if (!path.empty()) fs::remove(path, gone_already);
}

SerialLine::SerialLine(PseudoTerminal&& terminal, const std::string& its_link)
    : PlainConnection(std::move(terminal.device_end)),
      client_end(std::move(terminal.client_end)),
      path(its_link.empty() ? terminal.name : its_link),
      link(terminal.name, its_link) {}

bool SerialLine::send(const std::string& text) {
  constexpr int kMostUnread = 1024;  // bytes
  int unread = 0;
  checked(ioctl(client_end.get(), FIONREAD, &unread), "ioctl FIONREAD");
  if (unread > kMostUnread) checked(tcflush(client_end.get(), TCIFLUSH), "tcflush");
  PlainConnection::send(text);
  return true;
}

Simulation::PlugIn atSerialLine(const std::string& link) {
  return [link](Simulation& simulation) {
    auto line = std::make_unique<SerialLine>(link);
    std::string name = line->name();
    simulation.add(std::move(line));
    return name;
  };
}

}  // namespace simulator
