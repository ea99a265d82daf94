// A simulated boiler on a loopback TCP port. It prints its temperature to every client at a steady
// interval and takes HEAT=ON and HEAT=OFF.
#include <arpa/inet.h>
#include <getopt.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <utility>
#include <vector>

namespace {

constexpr const char* kHelp =
    "Usage: boiler [--port N] [--interval SECONDS]\n"
    "A simulated boiler on 127.0.0.1, TCP port N (default 7001; 0 takes any free port).\n"
    "Every client gets a line such as T=21.3 each interval (default 1 second), and may send\n"
    "HEAT=ON or HEAT=OFF, which is answered with the same text, or with ERR=? if it is neither.\n"
    "\n"
    "Example: boiler --port 7101 --interval 0.5\n";

// Ends the program when a system call has failed.
int checked(int result, const char* call) {
  if (result >= 0) return result;
  std::fprintf(stderr, "boiler: %s: %s\n", call, std::strerror(errno));
  std::exit(1);
}

class Descriptor {
 public:
  explicit Descriptor(int opened) : number(opened) {}
  Descriptor(Descriptor&& other) noexcept : number(std::exchange(other.number, -1)) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    std::swap(number, other.number);
    return *this;
  }
  ~Descriptor() {
    if (number >= 0) close(number);
  }
  int get() const { return number; }

 private:
  int number;
};

// The water in the boiler: it cools towards the air around it and warms while the burner is on.
class Water {
 public:
  void advance(double seconds) {
    const double goal = burning ? kHeated : kOutside;
    degrees = goal + (degrees - goal) * std::exp(-seconds / kTimeConstant);
  }
  // What the sensor reads: a little beside the truth each time.
  double measured() { return degrees + noise(generator); }
  void burner(bool on) { burning = on; }

 private:
  static constexpr double kOutside = 4.0;         // degrees Celsius, where it cools to
  static constexpr double kHeated = 58.0;         // where burner and loss are in balance
  static constexpr double kTimeConstant = 120.0;  // seconds

  double degrees = 21.3;
  bool burning = false;
  std::mt19937 generator{std::random_device{}()};
  std::normal_distribution<double> noise{0.0, 0.03};
};

struct Client {
  Descriptor socket;
  std::string line;  // what has come of a line that is not complete yet
};

Descriptor listenOn(std::uint16_t port) {
  Descriptor listener(checked(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0), "socket"));
  const int on = 1;
  checked(setsockopt(listener.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on), "setsockopt");
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  auto* const any = reinterpret_cast<sockaddr*>(&address);
  checked(bind(listener.get(), any, size), "bind");
  checked(listen(listener.get(), 16), "listen");
  checked(getsockname(listener.get(), any, &size), "getsockname");
  std::printf("boiler: listening on 127.0.0.1 port %d\n", ntohs(address.sin_port));
  std::fflush(stdout);
  return listener;
}

// Lets the timer expire every `seconds`, for the first time after half of that.
void restart(const Descriptor& timer, double seconds) {
  const auto span = [](double length) {
    return timespec{static_cast<time_t>(length), static_cast<long>(std::fmod(length, 1.0) * 1e9)};
  };
  const itimerspec setting{span(seconds), span(seconds / 2)};
  checked(timerfd_settime(timer.get(), 0, &setting, nullptr), "timerfd_settime");
}

// False when the client is gone, or does not read what it is sent.
bool print(const Client& client, const std::string& text) {
  const ssize_t sent =
      send(client.socket.get(), text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
  return sent == static_cast<ssize_t>(text.size());
}

std::string temperature(Water& water) {
  char text[32];
  std::snprintf(text, sizeof text, "T=%.1f\r\n", water.measured());
  return text;
}

std::string obey(Water& water, const std::string& command) {
  if (command != "HEAT=ON" && command != "HEAT=OFF") return "ERR=?\r\n";
  water.burner(command == "HEAT=ON");
  return command + "\r\n";
}

// Takes what the client has sent and answers every complete line. False when the client is done.
bool serve(Client& client, Water& water) {
  char bytes[512];
  const ssize_t count = recv(client.socket.get(), bytes, sizeof bytes, MSG_DONTWAIT);
  if (count <= 0) return count < 0 && (errno == EAGAIN || errno == EINTR);
  client.line.append(bytes, static_cast<std::size_t>(count));
  for (std::size_t end; (end = client.line.find('\n')) != std::string::npos;) {
    std::string command = client.line.substr(0, end);
    client.line.erase(0, end + 1);
    if (!command.empty() && command.back() == '\r') command.pop_back();
    if (!print(client, obey(water, command))) return false;
  }
  return client.line.size() <= 256;  // longer than any command
}

[[noreturn]] void run(std::uint16_t port, double interval) {
  const Descriptor listener = listenOn(port);
  const Descriptor timer(checked(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC), "timerfd_create"));
  restart(timer, interval);
  Water water;
  std::vector<Client> clients;
  for (;;) {
    std::vector<pollfd> waits{{timer.get(), POLLIN, 0}, {listener.get(), POLLIN, 0}};
    for (const Client& client : clients) waits.push_back({client.socket.get(), POLLIN, 0});
    checked(poll(waits.data(), waits.size(), -1), "poll");

    std::size_t slot = 2;
    std::erase_if(clients, [&](Client& client) {
      return waits[slot++].revents != 0 && !serve(client, water);
    });
    std::uint64_t ticks = 0;
    if (waits[0].revents != 0 && read(timer.get(), &ticks, sizeof ticks) == sizeof ticks) {
      water.advance(interval * static_cast<double>(ticks));
      const std::string line = temperature(water);
      std::erase_if(clients, [&](const Client& client) { return !print(client, line); });
    }
    if (waits[1].revents != 0) {
      const int socket = accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC);
      if (socket < 0) continue;  // gone before it was welcomed
      if (clients.empty()) restart(timer, interval);
      clients.push_back({Descriptor(socket), ""});
    }
  }
}

// Exits with a hint when `text` is not a number within the bounds.
double number(const char* option, const char* text, double lowest, double highest) {
  char* end = nullptr;
  const double value = std::strtod(text, &end);
  if (end != text && *end == '\0' && value >= lowest && value <= highest) return value;
  std::fprintf(stderr, "boiler: --%s %s: expected a number from %g to %g\n", option, text, lowest,
               highest);
  std::exit(2);
}

}  // namespace

int main(int argc, char** argv) {
  const option options[] = {{"port", required_argument, nullptr, 'p'},
                            {"interval", required_argument, nullptr, 'i'},
                            {"help", no_argument, nullptr, 'h'},
                            {nullptr, 0, nullptr, 0}};
  std::uint16_t port = 7001;
  double interval = 1.0;
  for (int choice; (choice = getopt_long(argc, argv, "h", options, nullptr)) != -1;) {
    if (choice == 'p') {
      port = static_cast<std::uint16_t>(number("port", optarg, 0, 65535));
    } else if (choice == 'i') {
      interval = number("interval", optarg, 0.001, 3600);
    } else {
      std::fputs(kHelp, choice == 'h' ? stdout : stderr);
      return choice == 'h' ? 0 : 2;
    }
  }
  for (const int ending : {SIGINT, SIGTERM}) std::signal(ending, [](int) { _exit(0); });
  run(port, interval);
}
