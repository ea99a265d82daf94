// A device on a serial line: a pseudo-terminal, of which the house opens the other end.
#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <system_error>
#include <utility>

#include "ReplayPeer.h"
#include "framework/Clock.h"
#include "framework/Descriptor.h"

namespace drovane {
namespace {

namespace fs = std::filesystem;

// How long a house may take to set up the line that it has opened.
constexpr std::int64_t kSetUpPatience = Clock::kNanosecondsPerSecond;
// How long bytes take at most from one end of the line to the other.
constexpr std::int64_t kOnItsWay = Clock::kNanosecondsPerSecond / 5;

void check(bool fine, const std::string& what) {
  if (!fine) throw std::system_error(errno, std::generic_category(), what);
}

// A symbolic link for the life of the object. One that leads nowhere is replaced, for its device
// was killed; anything else is left alone.
class Signpost {
 public:
  Signpost(const std::string& target, fs::path its_path) : path(std::move(its_path)) {
    const bool stale =
        fs::is_symlink(path) && (!fs::exists(path) || fs::read_symlink(path) == target);
    if (stale) fs::remove(path);
    check(::symlink(target.c_str(), path.c_str()) == 0, path.string());
  }
  ~Signpost() {
    std::error_code gone_already;
    fs::remove(path, gone_already);
  }
  Signpost(const Signpost&) = delete;
  Signpost& operator=(const Signpost&) = delete;

 private:
  const fs::path path;
};

Descriptor newTerminal() {
  Descriptor terminal(::posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
  check(static_cast<bool>(terminal), "posix_openpt");
  check(::grantpt(terminal.get()) == 0, "grantpt");
  check(::unlockpt(terminal.get()) == 0, "unlockpt");
  return terminal;
}

std::string nameOf(const Descriptor& terminal) {
  std::array<char, 128> name{};
  errno = ::ptsname_r(terminal.get(), name.data(), name.size());
  check(errno == 0, "ptsname_r");
  return name.data();
}

Descriptor openEnd(const std::string& name) {
  Descriptor end(::open(name.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
  check(static_cast<bool>(end), name);
  return end;
}

// One line, from its plugging in to its end.
class Line {
 public:
  // The system tells whether the other end is open only after it was open once.
  explicit Line(const std::string& path)
      : device(newTerminal()), name(nameOf(device)), signpost(name, path) {
    openEnd(name);
  }

  bool open() const {
    pollfd watched{device.get(), POLLIN, 0};
    check(::poll(&watched, 1, 0) >= 0 || errno == EINTR, "poll");
    return (watched.revents & POLLHUP) == 0;
  }

  // A fresh line has an echo and changes the ends of lines, until the house has set it up; what was
  // sent before that is dropped.
  bool setUp() const {
    termios settings{};
    check(::tcgetattr(device.get(), &settings) == 0, "tcgetattr");
    return (settings.c_lflag & static_cast<tcflag_t>(ICANON | ECHO)) == 0;
  }

  // Whether the house has read everything.
  bool drained() const {
    int unread = 0;
    const Descriptor end = openEnd(name);
    check(::ioctl(end.get(), FIONREAD, &unread) == 0, "ioctl FIONREAD");
    return unread == 0;
  }

  int descriptor() const { return device.get(); }

 private:
  const Descriptor device;
  const std::string name;
  const Signpost signpost;
};

class SerialReplay final : public ReplayPeer {
 public:
  explicit SerialReplay(const std::string& its_path) : path(its_path) { line.emplace(path); }

  std::string place() const override { return path; }

  bool connect() override {
    if (!line->open()) {
      opened.reset();
      return false;
    }
    if (!opened) opened = Clock::now();
    connected = line->setUp() || Clock::now() - *opened > kSetUpPatience;
    return connected;
  }

  // A line that nobody has open is always readable.
  int descriptor() const override { return connected ? line->descriptor() : -1; }

  bool receive(std::string& bytes) override {
    std::array<char, 4096> block;
    const ssize_t count = ::read(line->descriptor(), block.data(), block.size());
    if (count > 0) bytes.append(block.data(), static_cast<std::size_t>(count));
    house_left = count == 0 || (count < 0 && errno != EAGAIN && errno != EINTR);
    return !house_left;
  }

  std::size_t send(std::string_view bytes) override {
    const ssize_t count = ::write(line->descriptor(), bytes.data(), bytes.size());
    return count > 0 ? static_cast<std::size_t>(count) : 0;
  }

  // What is on its way inside the system counts as read for a moment, so that has to stay so.
  bool leave() override {
    std::string rest;
    if (!receive(rest)) return true;
    if (!line->drained())
      drained.reset();
    else if (!drained)
      drained = Clock::now();
    return drained && Clock::now() - *drained >= kOnItsWay;
  }

  // A house that has left finds the same line when it comes back. Else the device is unplugged, and
  // a new line takes the place.
  void disconnect() override {
    connected = false;
    opened.reset();
    drained.reset();
    if (std::exchange(house_left, false)) return;
    line.reset();
    line.emplace(path);
  }

 private:
  const std::string path;
  std::optional<Line> line;
  std::optional<std::int64_t> opened;   // since when, in nanoseconds of Clock
  std::optional<std::int64_t> drained;  // likewise
  bool connected = false;
  bool house_left = false;
};

}  // namespace

std::unique_ptr<ReplayPeer> replayOnSerialLine(const std::string& path) {
  return std::make_unique<SerialReplay>(path);
}

}  // namespace drovane
