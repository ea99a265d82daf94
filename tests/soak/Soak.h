// One soak from its beginning to its end.
#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "Books.h"
#include "House.h"
#include "Neighbourhood.h"
#include "Plan.h"
#include "Sample.h"
#include "support/TempFolder.h"

namespace soak {

class Soak {
 public:
  // `interrupted` is asked now and then whether the load is to end early. Every sample goes to the
  // file `samples_file` too, one line of numbers each, unless that is empty.
  Soak(std::chrono::minutes its_length, std::function<bool()> interrupted,
       std::string its_samples_file);

  // True when nothing was wrong. Tells about itself on the standard output.
  bool run();

 private:
  void begin();
  void load();
  void calmDown();
  void settle();
  void summarize();
  void writeSamples() const;

  bool everybodyIsThere();
  bool over(Clock::time_point moment) const;
  std::vector<std::string> unfinished();
  void watchOnce();
  void judgeCalm(const Sample& calm);
  void judgeHouse(const drovane::Json& before, const drovane::Json& after);
  void judgeSamples();
  void fail(const std::vector<std::string>& texts);

  const std::chrono::minutes length;
  const std::function<bool()> is_interrupted;
  const std::string samples_file;
  const TempFolder folder;
  const std::vector<Link> links = plan();
  Neighbourhood neighbours;
  House house;
  Watcher watcher;
  std::vector<Sample> samples;
  Sample before_load;
  LastWords last_words;
  std::vector<std::string> failures;
};

}  // namespace soak
