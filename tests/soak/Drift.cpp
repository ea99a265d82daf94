#include "Drift.h"

#include <algorithm>
#include <array>
#include <cstdio>

namespace soak {
namespace {

constexpr std::size_t kFewestSamples = 30;

std::vector<double> valuesOf(const Quantity& quantity, const std::vector<Sample>& samples) {
  std::vector<double> values;
  for (const Sample& sample : samples) values.push_back(quantity.of(sample));
  return values;
}

template <typename... Values>
std::string text(const char* format, Values... values) {
  std::array<char, 512> line;
  std::snprintf(line.data(), line.size(), format, values...);
  return line.data();
}

// The slope of the line that fits best, per second.
double slope(const std::vector<Sample>& samples, double (*of)(const Sample&)) {
  const double count = static_cast<double>(samples.size());
  double time = 0;
  double value = 0;
  for (const Sample& sample : samples) {
    time += sample.at / count;
    value += of(sample) / count;
  }
  double together = 0;
  double alone = 0;
  for (const Sample& sample : samples) {
    together += (sample.at - time) * (of(sample) - value);
    alone += (sample.at - time) * (sample.at - time);
  }
  return alone > 0 ? together / alone : 0;
}

// What may differ by how much between the first and the last third of the warm part, by the
// medians. A link that is being opened has its descriptor a moment before it counts as a link.
struct Level {
  Quantity quantity;
  double allowed;
};
const Level kLevels[] = {
    {{"descriptors without links", [](const Sample& sample) { return sample.own(); }}, 3},
    {{"threads", [](const Sample& sample) { return sample.threads; }}, 0},
};

std::string levelDrift(const Level& level, const std::vector<Sample>& samples) {
  const auto third = static_cast<std::ptrdiff_t>(samples.size() / 3);
  const double early =
      rangeOf(valuesOf(level.quantity, {samples.begin(), samples.begin() + third})).median;
  const double late =
      rangeOf(valuesOf(level.quantity, {samples.end() - third, samples.end()})).median;
  if (late - early <= level.allowed) return "";
  return text("%s: %.0f in the first third and %.0f in the last, expected at most %.0f more",
              level.quantity.name, early, late, level.allowed);
}

// Memory goes up and down with the messages that wait and with what scripts have not swept up yet.
// So only moments at which few wait are judged, by their trend: the slope of the best line through
// them, and only when it is both more than the noise over the whole time and too much for a box
// that is to run for years, and when it goes on to the end: stocks of free records fill up slowly,
// and then they are full. What is in use is known to the byte. What the process holds beside that
// also has the room of former peaks and the gaps between what is in use.
struct Growth {
  Quantity quantity;
  double noise;    // MB
  double per_day;  // MB
};
const Growth kGrowths[] = {
    {{"memory in use", [](const Sample& sample) { return sample.heap_mb; }}, 1.5, 50},
    {{"memory beyond the most that was in use",
      [](const Sample& sample) { return sample.resident_mb - sample.peak_mb; }},
     6,
     50},
};
constexpr double kFewWait = 300;

std::vector<Sample> quiet(std::vector<Sample> samples) {
  std::erase_if(samples, [](const Sample& sample) { return sample.queued > kFewWait; });
  return samples;
}

double riseOf(const Growth& growth, const std::vector<Sample>& samples) {
  return slope(samples, growth.quantity.of) * (samples.back().at - samples.front().at);
}

std::string growthOf(const Growth& growth, const std::vector<Sample>& samples) {
  if (samples.size() < kFewestSamples / 2) return "";
  constexpr double kDay = 24 * 60 * 60;
  const double seconds = samples.back().at - samples.front().at;
  const double whole = riseOf(growth, samples);
  const double late = riseOf(
      growth, {samples.end() - static_cast<std::ptrdiff_t>(samples.size() / 2), samples.end()});
  if (whole <= growth.noise || whole / seconds * kDay <= growth.per_day || late <= whole / 3)
    return "";
  return text("%s grows: %.1f MB in %.0f s, that is %.0f MB a day; expected at most %.1f MB",
              growth.quantity.name, whole, seconds, whole / seconds * kDay, growth.noise);
}

}  // namespace

Range rangeOf(std::vector<double> values) {
  if (values.empty()) return {};
  std::sort(values.begin(), values.end());
  return {values.front(), values[values.size() / 2], values.back()};
}

std::vector<Sample> warm(const std::vector<Sample>& samples) {
  return {samples.begin() + static_cast<std::ptrdiff_t>(samples.size() / 3), samples.end()};
}

std::string table(const std::vector<Sample>& samples) {
  std::string lines = text("%-28s %10s %10s %10s\n", "", "lowest", "median", "highest");
  for (const Quantity& quantity : quantities()) {
    const Range range = rangeOf(valuesOf(quantity, samples));
    lines += text("%-28s %10.1f %10.1f %10.1f\n", quantity.name, range.lowest, range.median,
                  range.highest);
  }
  return lines;
}

std::vector<std::string> drift(const std::vector<Sample>& samples) {
  std::vector<std::string> found;
  if (samples.size() < kFewestSamples) return found;
  const std::vector<Sample> judged = warm(samples);
  for (const Level& level : kLevels) found.push_back(levelDrift(level, judged));
  for (const Growth& growth : kGrowths) found.push_back(growthOf(growth, quiet(judged)));
  std::erase(found, "");
  return found;
}

}  // namespace soak
