#include "support/RoundTrips.h"

#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <system_error>
#include <vector>

#include "support/Statistics.h"
#include "support/Usage.h"

namespace bench {
namespace {

constexpr int kWarmUp = 100;  // round trips that do not count
constexpr timeval kPatience{10, 0};

// A read of the socket ends after that time.
void limitReads(int socket) {
  if (setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &kPatience, sizeof kPatience) != 0)
    throw std::system_error(errno, std::generic_category(), "setsockopt");
}

RoundTrips timed(int out, int in, int rounds) {
  std::vector<double> samples;
  int wrong = 0;
  for (int i = -kWarmUp; i < rounds; ++i) {
    const std::string line = "T17=" + std::to_string(1000 + kWarmUp + i) + "\n";
    const auto begun = SteadyClock::now();
    writeAll(out, line);
    const bool same = readLine(in) == line;
    const auto ended = SteadyClock::now();
    if (i >= 0 || !same) samples.push_back(secondsSince(begun, ended) * 1e6);
    if (same) continue;
    ++wrong;
    break;
  }
  return {quantile(samples, 0.5), quantile(samples, 0.99), quantile(samples, 1), wrong};
}

}  // namespace

struct RoundTripPeers::Job {
  int rounds;
  Back back;
};

RoundTripPeers::RoundTripPeers() : process([this](int channel) { play(channel); }) {}

RoundTrips RoundTripPeers::measure(int rounds, Back back) {
  process.send(Job{rounds, back});
  return process.receive<RoundTrips>();
}

void RoundTripPeers::play(int channel) const {
  while (const auto job = receiveRecord<Job>(channel)) {
    const drovane::Descriptor there = out.accept();
    sendAtOnce(there.get());
    limitReads(there.get());
    if (job->back == Back::SameConnection) {
      sendRecord(channel, timed(there.get(), there.get(), job->rounds));
    } else {
      const drovane::Descriptor back = in.accept();
      limitReads(back.get());
      sendRecord(channel, timed(there.get(), back.get(), job->rounds));
    }
  }
}

std::string readLine(int socket) {
  std::string line;
  std::array<char, 256> buffer;
  while (line.empty() || line.back() != '\n') {
    const ssize_t received = read(socket, buffer.data(), buffer.size());
    if (received <= 0) break;
    line.append(buffer.data(), static_cast<std::size_t>(received));
  }
  return line;
}

}  // namespace bench
