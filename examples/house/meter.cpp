// A simulated energy meter on a pseudo-terminal, which is to a program what a serial port is. It
// prints its readings at a steady interval and whenever it is sent READ.
#include <fcntl.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <system_error>

#include "Simulator.h"

namespace {

namespace fs = std::filesystem;
using simulator::checked;
using simulator::Descriptor;

constexpr const char* kHelp =
    "Usage: meter [--link PATH] [--interval SECONDS]\n"
    "A simulated energy meter on a pseudo-terminal, whose name is printed. With --link there is\n"
    "also a symbolic link to it, PATH, until the program ends. Whoever opens it gets the "
    "readings,\n"
    "lines such as P=1234 W and E=5678.90 kWh, each interval (default 2 seconds) and as the "
    "answer\n"
    "to the line READ; any other line is answered with ERR=?.\n"
    "\n"
    "Example: meter --link /run/meter --interval 0.5\n";

// Counts what a house draws that switches things on and off.
class Meter : public simulator::Device {
 public:
  std::string report(double seconds) override {
    watts = std::clamp(watts + change(generator), kLeast, kMost);
    kilowatt_hours += watts * seconds / kWattSeconds;
    return reading();
  }

  std::string answer(const std::string& request) override {
    return request == "READ" ? reading() : "ERR=?\r\n";
  }

 private:
  static constexpr double kLeast = 180.0;        // watts, with everything switched off
  static constexpr double kMost = 7400.0;        // watts, where the main fuse is
  static constexpr double kWattSeconds = 3.6e6;  // in a kilowatt hour

  std::string reading() const {
    std::array<char, 64> text;
    std::snprintf(text.data(), text.size(), "P=%.0f W\r\nE=%.2f kWh\r\n", watts, kilowatt_hours);
    return text.data();
  }

  double watts = 1234.0;
  double kilowatt_hours = 5678.9;
  std::mt19937 generator{std::random_device{}()};
  std::normal_distribution<double> change{0.0, 60.0};
};

// Both ends of a pseudo-terminal: the meter's, and the one that clients open. The latter is held
// open here too, so that the line is there while no client is.
struct PseudoTerminal {
  Descriptor meter_end;
  Descriptor client_end;
  std::string name;

  PseudoTerminal()
      : meter_end(
            checked(posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC), "posix_openpt")) {
    checked(grantpt(meter_end.get()), "grantpt");
    checked(unlockpt(meter_end.get()), "unlockpt");
    std::array<char, 128> path{};
    // Unlike the others it returns the error's number.
    checked(-(errno = ptsname_r(meter_end.get(), path.data(), path.size())), "ptsname_r");
    name = path.data();
    client_end = Descriptor(checked(open(path.data(), O_RDWR | O_NOCTTY | O_CLOEXEC), path.data()));
    passBytesOn();
  }

 private:
  // A fresh terminal would send back what it receives and change the ends of lines.
  void passBytesOn() const {
    termios settings{};
    checked(tcgetattr(client_end.get(), &settings), "tcgetattr");
    cfmakeraw(&settings);
    checked(tcsetattr(client_end.get(), TCSANOW, &settings), "tcsetattr");
  }
};

// A line of the meter's that never closes.
class SerialLine : public simulator::PlainConnection {
 public:
  explicit SerialLine(PseudoTerminal&& terminal)
      : PlainConnection(std::move(terminal.meter_end)),
        client_end(std::move(terminal.client_end)) {}

  // What nobody reads is lost, as on a wire: a client that comes later does not find it.
  bool send(const std::string& text) override {
    int unread = 0;
    checked(ioctl(client_end.get(), FIONREAD, &unread), "ioctl FIONREAD");
    if (unread > kMostUnread) checked(tcflush(client_end.get(), TCIFLUSH), "tcflush");
    PlainConnection::send(text);
    return true;
  }

 private:
  static constexpr int kMostUnread = 1024;  // bytes
  Descriptor client_end;
};

// A symbolic link for the life of the object; none for an empty path. One that leads nowhere any
// more, left behind by a meter that was killed, is replaced; anything else is left alone.
class Link {
 public:
  Link(const std::string& target, fs::path its_path) : path(std::move(its_path)) {
    if (path.empty()) return;
    if (fs::is_symlink(path) && !fs::exists(path)) fs::remove(path);
    checked(symlink(target.c_str(), path.c_str()), path.c_str());
  }
  ~Link() {
    std::error_code gone_already;
    if (!path.empty()) fs::remove(path, gone_already);
  }
  Link(const Link&) = delete;
  Link& operator=(const Link&) = delete;

 private:
  const fs::path path;
};

void simulate(const simulator::Options& options) {
  Meter meter;
  simulator::Simulation simulation(meter, options.interval());
  PseudoTerminal terminal;
  const std::string& path = options.text("link");
  const Link link(terminal.name, path);
  simulator::announce("meter: listening on " + (path.empty() ? terminal.name : path));
  simulation.add(std::make_unique<SerialLine>(std::move(terminal)));
  simulation.run();
}

}  // namespace

int main(int argc, char** argv) {
  return simulator::run(kHelp, simulator::Options({{"link", ""}, {"interval", "2"}}), argc, argv,
                        simulate);
}
