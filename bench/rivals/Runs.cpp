#include "rivals/Runs.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <numeric>
#include <stdexcept>
#include <system_error>

#include "support/Child.h"
#include "support/Sockets.h"
#include "support/Usage.h"

namespace bench {
namespace {

constexpr std::chrono::duration<int, std::milli> kConnecting{10'000};
constexpr std::chrono::seconds kPatience{30};
constexpr std::size_t kBlockLines = 25'000;  // 250,000 bytes: they stay in a core's cache
constexpr std::size_t kLineBytes = 10;
constexpr int kWarmUp = 100;  // round trips that do not count

// A peer that has stopped reading or answering ends as an error.
void limitWaiting(int socket) {
  const timeval limit{kPatience.count(), 0};
  for (const int option : {SO_RCVTIMEO, SO_SNDTIMEO})
    if (setsockopt(socket, SOL_SOCKET, option, &limit, sizeof limit) != 0)
      throw std::system_error(errno, std::generic_category(), "setsockopt");
}

drovane::Descriptor acceptFrom(const Listener& listener) {
  pollfd waiting{listener.socket.get(), POLLIN, 0};
  if (poll(&waiting, 1, kConnecting.count()) <= 0) throw std::runtime_error("does not connect");
  drovane::Descriptor peer = listener.accept();
  limitWaiting(peer.get());
  return peer;
}

void endStream(int socket) {
  if (shutdown(socket, SHUT_WR) != 0)
    throw std::system_error(errno, std::generic_category(), "shutdown");
}

void sendLines(int socket, const Lines& lines, std::uint64_t count) {
  for (std::uint64_t left = count; left > 0;) {
    const auto now = static_cast<std::size_t>(std::min<std::uint64_t>(left, lines.size()));
    writeAll(socket, lines.block(now));
    left -= now;
  }
}

std::string quoted(std::string text) {
  if (text.ends_with('\n')) text.pop_back();
  return "'" + text + "'";
}

void expectText(const std::string& got, const std::string& expected) {
  if (got != expected)
    throw std::runtime_error("said " + quoted(got) + " instead of " + quoted(expected));
}

// Up to a line feed, or to the end of the stream.
std::string readLine(int socket) {
  std::string line;
  std::array<char, 256> buffer{};
  while (!line.ends_with('\n')) {
    const ssize_t got = read(socket, buffer.data(), buffer.size());
    if (got < 0) throw std::system_error(errno, std::generic_category(), "no answer");
    if (got == 0) break;
    line.append(buffer.data(), static_cast<std::size_t>(got));
  }
  return line;
}

double roundTrip(int out, int in, int number) {
  const std::string value = std::to_string(10'000 + number) + "\n";
  const std::string line = "T17=" + value;
  const auto begun = SteadyClock::now();
  writeAll(out, line);
  const std::string answer = readLine(in);
  const auto ended = SteadyClock::now();
  expectText(answer, value);
  return secondsSince(begun, ended) * 1e6;
}

std::uint64_t readToEnd(int port) {
  const drovane::Descriptor socket = connectTo(port);
  std::vector<char> buffer(65'536);
  std::uint64_t bytes = 0;
  while (true) {
    const ssize_t got = read(socket.get(), buffer.data(), buffer.size());
    if (got < 0) throw std::system_error(errno, std::generic_category(), "read");
    if (got == 0) return bytes;
    bytes += static_cast<std::uint64_t>(got);
  }
}

}  // namespace

Lines::Lines() {
  for (std::size_t i = 0; i < kBlockLines; ++i) {
    values.push_back(10'000 + i * 7'919 % 90'000);
    bytes += "T" + std::to_string(10 + i % 90) + "=" + std::to_string(values.back()) + "\n";
  }
}

std::string_view Lines::block(std::size_t count) const {
  return std::string_view(bytes).substr(0, count * kLineBytes);
}

std::uint64_t Lines::sum(std::uint64_t count) const {
  const auto sumOf = [this](std::uint64_t first) {
    return std::accumulate(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(first),
                           std::uint64_t{0});
  };
  return count / size() * sumOf(size()) + sumOf(count % size());
}

Flood flood(const Rival& rival, const Lines& lines, std::uint64_t count,
            const std::string& folder) {
  const Listener listener;
  Pipeline pipeline(rival.programs({listener.port, 0, count, folder}));
  const drovane::Descriptor peer = acceptFrom(listener);
  const double cpu_before = pipeline.cpuSeconds();
  const auto begun = SteadyClock::now();
  sendLines(peer.get(), lines, count);
  endStream(peer.get());
  pipeline.noteMemory();
  std::string said = pipeline.readLine(kPatience);
  const auto ended = SteadyClock::now();
  pipeline.noteMemory();
  if (rival.stays) pipeline.terminate();
  said += pipeline.readRest(kPatience);
  const double cpu = pipeline.awaitEnd(kPatience) - cpu_before;
  expectText(said, std::to_string(count) + " " + std::to_string(lines.sum(count)) + "\n");
  return {secondsSince(begun, ended), cpu, static_cast<double>(pipeline.peakKilobytes()) / 1024};
}

double floodNobody(const Lines& lines, std::uint64_t count) {
  const Listener listener;
  Child reader([&listener](int channel) { sendRecord(channel, readToEnd(listener.port)); });
  const drovane::Descriptor peer = acceptFrom(listener);
  const auto begun = SteadyClock::now();
  sendLines(peer.get(), lines, count);
  endStream(peer.get());
  const auto bytes = reader.receive<std::uint64_t>();
  const auto ended = SteadyClock::now();
  if (bytes != count * kLineBytes) throw std::runtime_error("bytes were lost");
  return secondsSince(begun, ended);
}

std::vector<double> roundTrips(const Rival& rival, int count, const std::string& folder) {
  const Listener listener;
  const Listener answers;
  const auto lines = static_cast<std::uint64_t>(kWarmUp + count);
  Pipeline pipeline(rival.programs({listener.port, answers.port, lines, folder}));
  const drovane::Descriptor out = acceptFrom(listener);
  const drovane::Descriptor in = acceptFrom(answers);
  sendAtOnce(out.get());
  for (int i = 0; i < kWarmUp; ++i) roundTrip(out.get(), in.get(), i);
  std::vector<double> samples;
  for (int i = 0; i < count; ++i) samples.push_back(roundTrip(out.get(), in.get(), i));
  endStream(out.get());
  if (rival.stays) pipeline.terminate();
  expectText(readLine(in.get()), "");
  expectText(pipeline.readRest(kPatience), "");
  pipeline.awaitEnd(kPatience);
  return samples;
}

}  // namespace bench
