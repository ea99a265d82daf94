// A simulated energy meter on a pseudo-terminal, which is to a program what a serial port is. At a
// steady interval it sends a telegram of several lines that ends with a checksum.
#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <random>
#include <string>

#include "SerialLine.h"
#include "Simulator.h"

namespace {

constexpr const char* kHelp =
    "Usage: energy_meter [--link PATH] [--interval SECONDS] [--break-every N]\n"
    "A simulated energy meter on a pseudo-terminal, whose name is printed. With --link there is\n"
    "also a symbolic link to it, PATH, until the program ends. Whoever opens it gets a telegram "
    "of\n"
    "several lines each interval (default 5 seconds); what it is sent does not matter. With\n"
    "--break-every one digit of every Nth telegram is wrong (default 0: none is).\n"
    "\n"
    "Example: energy_meter --link /run/energy_meter --interval 1 --break-every 4\n";

// CRC-16 with the polynomial 0x8005, lowest bit first, beginning with 0.
std::uint16_t crc16(const std::string& text) {
  unsigned crc = 0;
  for (const char byte : text) {
    crc ^= static_cast<unsigned char>(byte);
    for (int bit = 0; bit < 8; ++bit) crc = (crc & 1) != 0 ? crc >> 1 ^ 0xA001 : crc >> 1;
  }
  return static_cast<std::uint16_t>(crc);
}

// "1-0:1.8.0(001234.567*kWh)" and its end of line.
std::string line(const char* code, int digits, int decimals, double value, const char* unit) {
  std::array<char, 64> text;
  std::snprintf(text.data(), text.size(), "%s(%0*.*f*%s)\r\n", code, digits + 1 + decimals,
                decimals, value, unit);
  return text.data();
}

// A house that draws from the grid, and feeds into it while the sun shines on its roof.
class EnergyMeter : public simulator::Device {
 public:
  explicit EnergyMeter(int break_every) : broken_one(break_every) {}

  std::string report(double seconds) override {
    kilowatts = std::clamp(kilowatts + change(generator), kLeast, kMost);
    (kilowatts > 0 ? drawn : fed) += std::abs(kilowatts) * seconds / kSecondsPerHour;
    for (double& each : volts) each = 230 + ripple(generator);
    std::string text = telegram();
    if (broken_one > 0 && ++sent % broken_one == 0) spoil(text);
    return text;
  }

  // It only talks.
  std::string answer(const std::string&) override { return ""; }

 private:
  static constexpr double kLeast = -5.0;  // kilowatts, at noon in summer
  static constexpr double kMost = 9.0;    // kilowatts, where the main fuse is
  static constexpr double kSecondsPerHour = 3600;

  std::string telegram() const {
    std::string text = "/DRV5\\EM340\r\n\r\n0-0:96.1.1(4530303337)\r\n";
    text += line("1-0:1.8.0", 6, 3, drawn, "kWh");
    text += line("1-0:2.8.0", 6, 3, fed, "kWh");
    text += line("1-0:1.7.0", 2, 3, std::max(kilowatts, 0.0), "kW");
    text += line("1-0:2.7.0", 2, 3, std::max(-kilowatts, 0.0), "kW");
    text += line("1-0:32.7.0", 3, 1, volts[0], "V");
    text += line("1-0:52.7.0", 3, 1, volts[1], "V");
    text += line("1-0:72.7.0", 3, 1, volts[2], "V");
    text += '!';
    std::array<char, 16> checksum;
    std::snprintf(checksum.data(), checksum.size(), "%04X\r\n", crc16(text));
    return text + checksum.data();
  }

  // As noise on the wire would: the first digit of a reading.
  static void spoil(std::string& text) {
    char& digit = text[text.find("1-0:1.8.0(") + 10];
    digit = digit == '9' ? '0' : static_cast<char>(digit + 1);
  }

  const int broken_one;
  int sent = 0;
  double drawn = 1234.567;  // kilowatt hours
  double fed = 89.012;      // kilowatt hours
  double kilowatts = 0.480;
  std::array<double, 3> volts{};
  std::mt19937 generator{std::random_device{}()};
  std::normal_distribution<double> change{0.0, 0.2};
  std::normal_distribution<double> ripple{0.0, 0.8};
};

void simulate(const simulator::Options& options) {
  EnergyMeter meter(static_cast<int>(options.number("break-every", 0, 1e6)));
  simulator::Simulation simulation("energy_meter", meter, options.interval(),
                                   simulator::atSerialLine(options.text("link")));
  simulation.run();
}

}  // namespace

int main(int argc, char** argv) {
  return simulator::run(kHelp,
                        simulator::Options({{"link", ""}, {"interval", "5"}, {"break-every", "0"}}),
                        argc, argv, simulate);
}
