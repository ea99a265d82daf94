// A simulated boiler on a loopback TCP port. It prints its temperature to every client at a steady
// interval and takes HEAT=ON and HEAT=OFF.
#include <array>
#include <cmath>
#include <cstdio>
#include <random>

#include "Simulator.h"

namespace {

constexpr const char* kHelp =
    "Usage: boiler [--port N] [--interval SECONDS]\n"
    "A simulated boiler on 127.0.0.1, TCP port N (default 7001; 0 takes any free port).\n"
    "Every client gets a line such as T=21.3 each interval (default 1 second), and may send\n"
    "HEAT=ON or HEAT=OFF, which is answered with the same text, or with ERR=? if it is neither.\n"
    "\n"
    "Example: boiler --port 7101 --interval 0.5\n";

// The water in it cools towards the air around it and warms while the burner is on.
class Boiler : public simulator::Device {
 public:
  std::string report(double seconds) override {
    const double goal = burning ? kHeated : kOutside;
    degrees = goal + (degrees - goal) * std::exp(-seconds / kTimeConstant);
    // The sensor reads a little beside the truth each time.
    std::array<char, 32> text;
    std::snprintf(text.data(), text.size(), "T=%.1f\r\n", degrees + noise(generator));
    return text.data();
  }

  std::string answer(const std::string& request) override {
    if (request != "HEAT=ON" && request != "HEAT=OFF") return "ERR=?\r\n";
    burning = request == "HEAT=ON";
    return request + "\r\n";
  }

  void losePower() override { burning = false; }

 private:
  static constexpr double kOutside = 4.0;         // degrees Celsius, where it cools to
  static constexpr double kHeated = 58.0;         // where burner and loss are in balance
  static constexpr double kTimeConstant = 120.0;  // seconds

  double degrees = 21.3;
  bool burning = false;
  std::mt19937 generator{std::random_device{}()};
  std::normal_distribution<double> noise{0.0, 0.03};
};

void simulate(const simulator::Options& options) {
  Boiler boiler;
  simulator::Simulation simulation("boiler", boiler, options.interval(),
                                   simulator::atPort(options.port()));
  simulation.run();
}

}  // namespace

int main(int argc, char** argv) {
  return simulator::run(kHelp, simulator::Options({{"port", "7001"}, {"interval", "1"}}), argc,
                        argv, simulate);
}
