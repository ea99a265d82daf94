#include "Simulator.h"

#include <arpa/inet.h>
#include <getopt.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <stdexcept>
#include <system_error>

namespace simulator {

namespace {

constexpr std::size_t kLongestRequest = 256;

class WrongUsage : public std::runtime_error {
  using std::runtime_error::runtime_error;
};

sigset_t expectedSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int each : {SIGINT, SIGTERM, SIGUSR1, SIGUSR2}) sigaddset(&signals, each);
  return signals;
}

std::string placeOf(std::uint16_t port) { return "127.0.0.1 port " + std::to_string(port); }

// A socket that has a TCP port of 127.0.0.1; port 0 takes any free one.
Descriptor boundTo(std::uint16_t port) {
  Descriptor socket(
      checked(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0), "socket"));
  const int on = 1;
  checked(setsockopt(socket.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on), "setsockopt");
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  checked(bind(socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof address),
          placeOf(port).c_str());
  return socket;
}

std::uint16_t portOf(const Descriptor& socket) {
  sockaddr_in address{};
  socklen_t size = sizeof address;
  checked(getsockname(socket.get(), reinterpret_cast<sockaddr*>(&address), &size), "getsockname");
  return ntohs(address.sin_port);
}

timespec span(double seconds) {
  return {static_cast<time_t>(seconds), static_cast<long>(std::fmod(seconds, 1.0) * 1e9)};
}

}  // namespace

int checked(int result, const char* call) {
  if (result >= 0) return result;
  throw std::system_error(errno, std::generic_category(), call);
}

void announce(const std::string& line) {
  std::puts(line.c_str());
  std::fflush(stdout);
}

Descriptor::~Descriptor() {
  if (number >= 0) close(number);
}

bool PlainConnection::receive(std::string& bytes) {
  std::array<char, 512> block;
  const ssize_t count = read(stream.get(), block.data(), block.size());
  if (count <= 0) return count < 0 && (errno == EAGAIN || errno == EINTR);
  bytes.append(block.data(), static_cast<std::size_t>(count));
  return true;
}

bool PlainConnection::send(const std::string& text) {
  return write(stream.get(), text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

std::unique_ptr<Connection> plainly(Descriptor socket) {
  return std::make_unique<PlainConnection>(std::move(socket));
}

// A socket that never listens holds the port, so that nobody else gets it while the plug is drawn.
Simulation::PlugIn atPort(std::uint16_t port, Simulation::Welcome welcome) {
  const auto place = std::make_shared<const Descriptor>(boundTo(port));
  return [place, welcome = std::move(welcome)](Simulation& simulation) {
    const std::uint16_t held = portOf(*place);
    Descriptor listener = boundTo(held);
    checked(listen(listener.get(), 16), placeOf(held).c_str());
    simulation.accept(std::move(listener), welcome);
    return placeOf(held);
  };
}

Simulation::Simulation(std::string its_name, Device& its_device, double its_interval, PlugIn how)
    : name(std::move(its_name)),
      device(its_device),
      interval(its_interval),
      plug_in(std::move(how)),
      timer(
          checked(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK), "timerfd_create")) {
  restart();
}

void Simulation::restart() {
  const itimerspec setting{span(interval), span(interval / 2)};
  checked(timerfd_settime(timer.get(), 0, &setting, nullptr), "timerfd_settime");
}

void Simulation::add(std::unique_ptr<Connection> connection) {
  if (clients.empty()) restart();
  clients.push_back({std::move(connection), ""});
}

void Simulation::accept(Descriptor socket, Welcome its_welcome) {
  listener = std::move(socket);
  welcome = std::move(its_welcome);
}

void Simulation::acceptOne() {
  const int socket = accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
  if (socket >= 0) add(welcome(Descriptor(socket)));  // else it has left before it was welcomed
}

void Simulation::reportToAll() {
  std::uint64_t times = 0;
  if (read(timer.get(), &times, sizeof times) != sizeof times) return;
  const std::string text = device.report(interval * static_cast<double>(times));
  if (text.empty()) return;
  std::erase_if(clients, [&](const Client& client) { return !client.connection->send(text); });
}

// Takes what the client has sent and answers every complete line. False when the client is gone.
bool Simulation::serve(Client& client) {
  if (!client.connection->receive(client.line)) return false;
  for (std::size_t end; (end = client.line.find_first_of("\r\n")) != std::string::npos;) {
    const std::string request = client.line.substr(0, end);
    client.line.erase(0, end + 1);
    if (request.empty()) continue;
    const std::string text = device.answer(request);
    if (!text.empty() && !client.connection->send(text)) return false;
  }
  if (client.line.size() > kLongestRequest) client.line.clear();
  return true;
}

void Simulation::putIn(const std::string& what) {
  if (plugged) return;
  announce(name + ": " + what + plug_in(*this));
  plugged = true;
}

void Simulation::pullOut() {
  if (!plugged) return;
  plugged = false;
  clients.clear();
  listener = Descriptor();
  device.losePower();
  announce(name + ": unplugged");
}

// Does what the next signal asks for. False when that is to end.
bool Simulation::obey(int signals) {
  signalfd_siginfo signal{};
  if (::read(signals, &signal, sizeof signal) != sizeof signal) return true;
  if (signal.ssi_signo == SIGUSR1) {
    pullOut();
  } else if (signal.ssi_signo == SIGUSR2) {
    putIn("plugged in, listening on ");
  } else {
    return false;
  }
  return true;
}

void Simulation::run() {
  const sigset_t expected = expectedSignals();
  const Descriptor signals(checked(signalfd(-1, &expected, SFD_CLOEXEC), "signalfd"));
  putIn("listening on ");
  for (;;) {
    // poll(2) passes over the listener of a device that has none.
    std::vector<pollfd> waits{
        {signals.get(), POLLIN, 0}, {timer.get(), POLLIN, 0}, {listener.get(), POLLIN, 0}};
    for (const Client& client : clients)
      waits.push_back({client.connection->descriptor(), POLLIN, 0});
    checked(poll(waits.data(), waits.size(), -1), "poll");

    auto wait = waits.begin() + 3;
    std::erase_if(clients,
                  [&](Client& client) { return (wait++)->revents != 0 && !serve(client); });
    if (waits[1].revents != 0) reportToAll();
    if (waits[2].revents != 0) acceptOne();
    // Last, for it changes what there was to wait for.
    if (waits[0].revents != 0 && !obey(signals.get())) return;
  }
}

int Options::read(int argc, char** argv, const char* help) {
  std::vector<option> known;
  for (const auto& [name, value] : values)
    known.push_back({name.c_str(), required_argument, nullptr, 'v'});
  known.push_back({"help", no_argument, nullptr, 'h'});
  known.push_back({nullptr, 0, nullptr, 0});
  int index = 0;
  for (int choice; (choice = getopt_long(argc, argv, "h", known.data(), &index)) != -1;) {
    if (choice != 'v') {
      std::fputs(help, choice == 'h' ? stdout : stderr);
      return choice == 'h' ? 0 : 2;
    }
    values[known[static_cast<std::size_t>(index)].name] = optarg;
  }
  if (optind == argc) return -1;
  std::fputs(help, stderr);
  return 2;
}

double Options::number(const std::string& name, double lowest, double highest) const {
  const std::string& value = text(name);
  char* end = nullptr;
  const double result = std::strtod(value.c_str(), &end);
  if (end != value.c_str() && *end == '\0' && result >= lowest && result <= highest) return result;
  std::array<char, 64> bounds;
  std::snprintf(bounds.data(), bounds.size(), "%g to %g", lowest, highest);
  throw WrongUsage("--" + name + " " + value + ": expected a number from " + bounds.data());
}

int run(const char* help, Options options, int argc, char** argv,
        void (*simulate)(const Options& options)) {
  // A signal is obeyed where the program waits, not inside what it does.
  const sigset_t signals = expectedSignals();
  sigprocmask(SIG_BLOCK, &signals, nullptr);
  std::signal(SIGPIPE, SIG_IGN);
  const int over = options.read(argc, argv, help);
  if (over >= 0) return over;
  try {
    simulate(options);
    return 0;
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "%s: %s\n", program_invocation_short_name, failure.what());
    return dynamic_cast<const WrongUsage*>(&failure) != nullptr ? 2 : 1;
  }
}

}  // namespace simulator
