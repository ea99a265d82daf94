// A simulated energy meter on a pseudo-terminal, which is to a program what a serial port is. It
// prints its readings at a steady interval and whenever it is sent READ.
#include <algorithm>
#include <array>
#include <cstdio>
#include <random>

#include "SerialLine.h"
#include "Simulator.h"

namespace {

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

void simulate(const simulator::Options& options) {
  Meter meter;
  simulator::Simulation simulation("meter", meter, options.interval(),
                                   simulator::atSerialLine(options.text("link")));
  simulation.run();
}

}  // namespace

int main(int argc, char** argv) {
  return simulator::run(kHelp, simulator::Options({{"link", ""}, {"interval", "2"}}), argc, argv,
                        simulate);
}
