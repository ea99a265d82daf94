// A simulated projector on a loopback TCP port. It says nothing by itself, answers each command
// with one line, and takes its time to warm up and to cool down.
#include <string>

#include "Simulator.h"

namespace {

constexpr const char* kHelp =
    "Usage: projector [--port N] [--warm-up SECONDS] [--cool-down SECONDS]\n"
    "A simulated projector on 127.0.0.1, TCP port N (default 7003; 0 takes any free port). "
    "Commands\n"
    "and answers are lines that end in a carriage return:\n"
    "  PWR 1, PWR 0    switch on and off; takes 8 seconds to warm up and 5 to cool down, or what\n"
    "                  the options say\n"
    "  INP 1 to INP 4  select an input, while it is on\n"
    "  PWR ?           PWR=0 off, PWR=1 on, PWR=2 warming up, PWR=3 cooling down\n"
    "  INP ?           the input, such as INP=1\n"
    "  LAMP ?          the hours that the lamp has burnt, such as LAMP=1234\n"
    "A command is answered with OK, or with ERR1: no such command, ERR2: no such value, ERR3: not\n"
    "now.\n"
    "\n"
    "Example: projector --port 7103 --warm-up 2 --cool-down 1\n";

constexpr double kStep = 0.05;  // seconds between two looks at the clock

class Projector : public simulator::Device {
 public:
  Projector(double seconds_to_warm_up, double seconds_to_cool_down)
      : warm_up(seconds_to_warm_up), cool_down(seconds_to_cool_down) {}

  // Only time passes.
  std::string report(double seconds) override {
    remaining -= seconds;
    if (power == Power::WarmingUp && remaining <= 0) power = Power::On;
    if (power == Power::CoolingDown && remaining <= 0) power = Power::Off;
    if (power == Power::On || power == Power::WarmingUp) lamp_hours += seconds / kSecondsPerHour;
    return "";
  }

  std::string answer(const std::string& request) override {
    const std::size_t blank = request.find(' ');
    const std::string command = request.substr(0, blank);
    const std::string value = blank == std::string::npos ? "" : request.substr(blank + 1);
    if (command == "PWR") return line(value == "?" ? shown(command, power) : switchTo(value));
    if (command == "INP") return line(value == "?" ? shown(command, input) : select(value));
    if (command == "LAMP") return line(value == "?" ? shown(command, lamp_hours) : kNoSuchValue);
    return line(kNoSuchCommand);
  }

  void losePower() override { power = Power::Off; }

 private:
  // What is shown for each.
  enum class Power { Off = 0, On = 1, WarmingUp = 2, CoolingDown = 3 };

  static constexpr const char* kDone = "OK";
  static constexpr const char* kNoSuchCommand = "ERR1";
  static constexpr const char* kNoSuchValue = "ERR2";
  static constexpr const char* kNotNow = "ERR3";
  static constexpr double kSecondsPerHour = 3600;

  static std::string line(const std::string& text) { return text + '\r'; }

  template <typename Value>
  static std::string shown(const std::string& command, Value value) {
    return command + '=' + std::to_string(static_cast<int>(value));
  }

  std::string switchTo(const std::string& value) {
    if (value != "0" && value != "1") return kNoSuchValue;
    if (power == Power::WarmingUp || power == Power::CoolingDown) return kNotNow;
    const Power goal = value == "1" ? Power::On : Power::Off;
    if (power == goal) return kDone;
    power = goal == Power::On ? Power::WarmingUp : Power::CoolingDown;
    remaining = goal == Power::On ? warm_up : cool_down;
    return kDone;
  }

  std::string select(const std::string& value) {
    if (value.size() != 1 || value < "1" || value > "4") return kNoSuchValue;
    if (power != Power::On) return kNotNow;
    input = value[0] - '0';
    return kDone;
  }

  const double warm_up;    // seconds
  const double cool_down;  // seconds
  Power power = Power::Off;
  double remaining = 0;  // seconds until it is warm or cold
  int input = 1;
  double lamp_hours = 1234;
};

void simulate(const simulator::Options& options) {
  Projector projector(options.number("warm-up", 0, 3600), options.number("cool-down", 0, 3600));
  simulator::Simulation simulation("projector", projector, kStep,
                                   simulator::atPort(options.port()));
  simulation.run();
}

}  // namespace

int main(int argc, char** argv) {
  return simulator::run(
      kHelp, simulator::Options({{"port", "7003"}, {"warm-up", "8"}, {"cool-down", "5"}}), argc,
      argv, simulate);
}
