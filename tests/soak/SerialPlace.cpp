#include <fcntl.h>
#include <stdlib.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <system_error>

#include "Sockets.h"

namespace soak {
namespace {

using drovane::Descriptor;

// The device's end of a pseudo-terminal.
Descriptor newTerminal() {
  Descriptor end(
      checked(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK), "posix_openpt"));
  checked(::unlockpt(end.get()), "unlockpt");
  return end;
}

std::string nameOf(const Descriptor& terminal) {
  std::array<char, 64> name{};
  const int error = ::ptsname_r(terminal.get(), name.data(), name.size());
  if (error != 0) throw std::system_error(error, std::generic_category(), "ptsname_r");
  return name.data();
}

class SerialLine : public Line {
 public:
  explicit SerialLine(Descriptor its_end) : end(std::move(its_end)) {}
  // Nothing when the rovik is gone: receive notices.
  std::size_t send(std::string_view bytes) override {
    const ssize_t sent = ::write(end.get(), bytes.data(), bytes.size());
    return static_cast<std::size_t>(std::max<ssize_t>(sent, 0));
  }
  bool receive(std::string& bytes) override {
    std::array<char, 4096> block;
    while (true) {
      const ssize_t count = ::read(end.get(), block.data(), block.size());
      if (count < 0) return errno == EAGAIN || errno == EINTR;
      if (count == 0) return false;
      bytes.append(block.data(), static_cast<std::size_t>(count));
    }
  }

 private:
  Descriptor end;
};

// Under a path that stays, a terminal of its own for each connection: the settings that a rovik has
// made would stay with an old one, and they tell when the next is there.
class SerialPlace : public Place {
 public:
  explicit SerialPlace(std::string its_path) : path(std::move(its_path)) { open(); }
  ~SerialPlace() override { shut(); }
  std::string commands() const override {
    return "  mode tty\n  tty " + path + "\n  baudrate B115200\n";
  }
  // A terminal is made to be read by lines. The rovik drops what waits in it, and then sets it to
  // pass on bytes.
  std::unique_ptr<Line> welcome() override {
    termios settings{};
    checked(::tcgetattr(next.get(), &settings), "tcgetattr");
    if ((settings.c_lflag & ICANON) != 0) return nullptr;
    auto line = std::make_unique<SerialLine>(std::move(next));
    open();
    return line;
  }
  // The link first: the terminal's name is soon another one's.
  void shut() override {
    ::unlink(path.c_str());  // it may be shut already
    next.reset();
  }
  void open() override {
    shut();
    next = newTerminal();
    checked(::symlink(nameOf(next).c_str(), path.c_str()), "symlink");
  }

 private:
  const std::string path;
  Descriptor next;
};

}  // namespace

std::unique_ptr<Place> makeSerialPlace(const std::string& path) {
  return std::make_unique<SerialPlace>(path);
}

}  // namespace soak
