// What many measurements of one thing amount to.
#pragma once

#include <algorithm>
#include <cstddef>
#include <vector>

namespace bench {

struct Spread {
  double median;
  double lowest;
  double highest;
};

// The value that a share (0 to 1) of the samples do not exceed. `samples` must not be empty.
inline double quantile(std::vector<double> samples, double share) {
  std::sort(samples.begin(), samples.end());
  const auto last = static_cast<double>(samples.size() - 1);
  return samples[static_cast<std::size_t>(last * share + 0.5)];
}

inline double median(const std::vector<double>& samples) { return quantile(samples, 0.5); }

inline Spread spread(const std::vector<double>& samples) {
  const auto [lowest, highest] = std::minmax_element(samples.begin(), samples.end());
  return {median(samples), *lowest, *highest};
}

// Measurements of one quantity and of its floor, taken in turn.
struct Pairs {
  std::vector<double> figure;
  std::vector<double> floor;

  void add(double its_figure, double its_floor) {
    figure.push_back(its_figure);
    floor.push_back(its_floor);
  }
  Spread ratio() const {
    std::vector<double> ratios;
    for (std::size_t i = 0; i < figure.size(); ++i) ratios.push_back(figure[i] / floor[i]);
    return spread(ratios);
  }
};

}  // namespace bench
