// What the simulated devices of the examples have in common: a command line, clients that are
// served line by line, a steady report to all of them, and an orderly end.
//
// A simulator is one thread. It fails by an exception, which ends the program with its text.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace simulator {

// Passes on what a system call has returned. Throws std::system_error with errno when it is
// negative.
int checked(int result, const char* call);

// Prints a line about the program itself, at once.
void announce(const std::string& line);

// Closes its descriptor at the end of its life. -1 when it holds none.
class Descriptor {
 public:
  explicit Descriptor(int opened = -1) : number(opened) {}
  Descriptor(Descriptor&& other) noexcept : number(std::exchange(other.number, -1)) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    std::swap(number, other.number);
    return *this;
  }
  ~Descriptor();
  int get() const { return number; }

 private:
  int number;
};

// What a device does, whatever it is connected by.
class Device {
 public:
  virtual ~Device() = default;
  // What it tells all clients now, `seconds` after the last time: complete lines, or nothing.
  virtual std::string report(double seconds) = 0;
  // What it answers to a line of a client, which comes without its end: complete lines, or nothing.
  virtual std::string answer(const std::string& request) = 0;
  // It has lost its power, and with it what it does not keep.
  virtual void losePower() {}
};

// The way to one client. Neither function waits.
class Connection {
 public:
  virtual ~Connection() = default;
  // What to wait on until there is something to receive.
  virtual int descriptor() const = 0;
  // Appends what has come. False when the client is gone.
  virtual bool receive(std::string& bytes) = 0;
  // False when the client is gone, or does not read what it is sent.
  virtual bool send(const std::string& text) = 0;
};

// Bytes as they are, over a non-blocking descriptor.
class PlainConnection : public Connection {
 public:
  explicit PlainConnection(Descriptor its_stream) : stream(std::move(its_stream)) {}
  int descriptor() const override { return stream.get(); }
  bool receive(std::string& bytes) override;
  bool send(const std::string& text) override;

 private:
  Descriptor stream;
};

std::unique_ptr<Connection> plainly(Descriptor socket);

// Connects a device with its clients. What they send ends its lines in CR, LF or both; an empty
// line is none.
class Simulation {
 public:
  using Welcome = std::function<std::unique_ptr<Connection>(Descriptor socket)>;
  // Makes the device reachable, by add or accept; called each time that it is plugged in. The
  // result tells people where it is found.
  using PlugIn = std::function<std::string(Simulation& simulation)>;

  // The device reports every `interval` seconds, for the first time after half of that.
  Simulation(std::string its_name, Device& its_device, double its_interval, PlugIn how);

  void add(std::unique_ptr<Connection> connection);
  // Whoever connects to the socket becomes a client, over what `welcome` makes of it.
  void accept(Descriptor socket, Welcome its_welcome);
  // Plugs the device in and serves until SIGINT or SIGTERM. SIGUSR1 draws the plug: every client is
  // cut off and nothing is there to connect to, while time goes on for the device. SIGUSR2 plugs it
  // in again, in the same place.
  void run();

 private:
  struct Client {
    std::unique_ptr<Connection> connection;
    std::string line;  // what has come of a line that is not complete yet
  };

  void restart();
  void putIn(const std::string& what);
  void pullOut();
  bool obey(int signals);
  void acceptOne();
  void reportToAll();
  bool serve(Client& client);

  const std::string name;
  Device& device;
  const double interval;
  const PlugIn plug_in;
  const Descriptor timer;
  bool plugged = false;
  Descriptor listener;
  Welcome welcome;
  std::vector<Client> clients;
};

// A TCP port of 127.0.0.1. For port 0 the system picks a free one, which is kept from then on.
Simulation::PlugIn atPort(std::uint16_t port, Simulation::Welcome welcome = plainly);

// The command line: any of "--NAME VALUE".
class Options {
 public:
  // The names that there are, each with the value that holds when it is not given.
  explicit Options(std::map<std::string, std::string> defaults) : values(std::move(defaults)) {}

  // Status to end with: 0 after --help, 2 after anything unknown, -1 to go on.
  int read(int argc, char** argv, const char* help);
  const std::string& text(const std::string& name) const { return values.at(name); }
  // Ends the program with a hint when the value is not a number within the bounds.
  double number(const std::string& name, double lowest, double highest) const;
  std::uint16_t port() const { return static_cast<std::uint16_t>(number("port", 0, 65535)); }
  double interval() const { return number("interval", 0.001, 3600); }

 private:
  std::map<std::string, std::string> values;
};

// The whole program: reads the command line into `options`, then simulates until asked to end. The
// result is that of main.
int run(const char* help, Options options, int argc, char** argv,
        void (*simulate)(const Options& options));

}  // namespace simulator
