// The figures of a benchmark: as a table for people and as JSON for machines.
#pragma once

#include <cjson/cJSON.h>

#include <optional>
#include <string>

#include "framework/MessageJson.h"
#include "support/Options.h"
#include "support/Statistics.h"

namespace bench {

// What a figure's ratio to its floor has to be (the median of the pairs counts), or the figure
// itself, in its own unit.
struct Goal {
  enum class Relation { AtLeast, Below };
  enum class Of { Ratio, Figure };
  Relation relation;
  double limit;
  Of of = Of::Ratio;
};

struct Figure {
  std::string name;
  double value;
  std::string unit;
  std::optional<double> floor;  // the same quantity of the floor, measured in the same run
  std::optional<Spread> ratio;  // value / floor, pair by pair
  std::optional<Goal> goal;
};

class Report {
 public:
  Report(std::string bench, Options options);

  // Throws std::logic_error when the goal is about a ratio that the figure does not have.
  void add(const Figure& figure);

  // Something that was measured turned out wrong: the figures then count for nothing.
  void fault(const std::string& what);

  // Prints the table, or the faults, and adds the figures to the file of --json. The exit status.
  int finish();

 private:
  const std::string bench;
  const Options options;
  drovane::Json figures;
  bool faulty = false;
};

// The table of an array of figures, on standard output.
void printFigures(const cJSON* figures);

// The document in a file that --json wrote; null when there is none that can be read.
drovane::Json readResults(const std::string& file);

}  // namespace bench
