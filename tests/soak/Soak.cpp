#include "Soak.h"

#include <poll.h>

#include <filesystem>
#include <fstream>
#include <iostream>
#include <stdexcept>

#include "Drift.h"
#include "support/Eventually.h"

namespace soak {
namespace {

using std::chrono::seconds;

// What a slow machine needs at most for a step that is not part of the load.
constexpr seconds kPatience{60};
constexpr seconds kDrainsWithin{20};
constexpr double kAnswersWithinMs = 5000;

std::string folderIn(const TempFolder& folder, const char* name) {
  const std::string path = folder / name;
  std::filesystem::create_directory(path);
  return path;
}

// A line every ten seconds, or every minute of a long run.
seconds interval(std::chrono::minutes length) {
  return length.count() > 5 ? seconds(60) : seconds(10);
}

std::string counted(double count) { return std::to_string(static_cast<std::int64_t>(count)); }

}  // namespace

Soak::Soak(std::chrono::minutes its_length, std::function<bool()> interrupted,
           std::string its_samples_file)
    : length(its_length),
      is_interrupted(std::move(interrupted)),
      samples_file(std::move(its_samples_file)),
      neighbours(links, folderIn(folder, "lines")),
      house(links, neighbours, folder.path()),
      watcher(house.pid(), house.control()) {}

bool Soak::run() {
  try {
    begin();
    load();
    calmDown();
    settle();
  } catch (const std::exception& error) {
    fail({error.what()});
  }
  fail(house.end());
  judgeSamples();
  summarize();
  writeSamples();
  return failures.empty();
}

void Soak::begin() {
  if (!eventually([this] { return everybodyIsThere(); }, kPatience))
    throw std::runtime_error("not every link came about");
  house.control().command("ledger", "fill");
  if (!eventually([this] { return house.control().status().queued == 0; }, kPatience))
    throw std::runtime_error("messages wait although there is no load");
  before_load = watcher.look();
  std::cout << house.control().status().roviks << " roviks run; the load begins\n" << std::flush;
  house.control().command("ledger", "begin");
  neighbours.begin();
}

bool Soak::everybodyIsThere() {
  neighbours.checkAlive();
  return neighbours.with([](const Peers& peers) {
    for (const auto& peer : peers)
      if (peer->stays() && !peer->connected()) return false;
    return true;
  });
}

void Soak::load() {
  const drovane::Json before = house.control().statusRows();
  const auto begun = Clock::now();
  auto next_line = begun + interval(length);
  while (!over(begun + length)) {
    const auto next_look = Clock::now() + seconds(1);
    while (!over(next_look)) poll(nullptr, 0, 20);
    watchOnce();
    if (Clock::now() < next_line) continue;
    next_line += interval(length);
    std::cout << lineOf(samples.back()) << '\n' << std::flush;
  }
  judgeHouse(before, house.control().statusRows());
}

bool Soak::over(Clock::time_point moment) const {
  return Clock::now() >= moment || is_interrupted();
}

void Soak::watchOnce() {
  neighbours.checkAlive();
  house.drain();
  samples.push_back(watcher.look());
}

// The example house goes on by itself: each of its roviks has sent something.
void Soak::judgeHouse(const drovane::Json& before, const drovane::Json& after) {
  const cJSON* const first = cJSON_GetObjectItemCaseSensitive(before.get(), "roviks");
  const cJSON* const last = cJSON_GetObjectItemCaseSensitive(after.get(), "roviks");
  for (int i = 0; i < cJSON_GetArraySize(last); ++i) {
    const cJSON* const row = cJSON_GetArrayItem(last, i);
    if (numberIn(row, "id") < kLedgerId && textIn(row, "name") != "thermostat" &&
        numberIn(row, "out") <= numberIn(cJSON_GetArrayItem(first, i), "out"))
      fail({textIn(row, "name") + " of the example house has sent nothing"});
  }
}

void Soak::calmDown() {
  house.control().command("ledger", "rest");
  for (const Link& link : links)
    if (link.kind.handling == Handling::Sender || link.kind.handling == Handling::Writer ||
        link.kind.handling == Handling::Asker)
      last_words[link.name] = house.control().command(link.name, "rest");
  neighbours.calmDown();
  if (!eventually([this] { return unfinished().empty(); }, kPatience)) fail(unfinished());
}

std::vector<std::string> Soak::unfinished() {
  house.drain();
  neighbours.checkAlive();
  return neighbours.with([](const Peers& peers) {
    std::vector<std::string> names;
    for (const auto& peer : peers)
      if (!peer->finished()) names.push_back(peer->link().name + ": did not come to an end");
    return names;
  });
}

// What was said arrives in the end, and nothing is left of the load.
void Soak::settle() {
  std::vector<std::string> different;
  const auto agree = [&] {
    const drovane::Json ledger(cJSON_Parse(house.control().command("ledger", "report").c_str()));
    different = neighbours.with(
        [&](const Peers& peers) { return differences(peers, ledger.get(), last_words); });
    return different.empty();
  };
  eventually(agree, kDrainsWithin);
  fail(different);
  for (const Link& link : links)
    if (link.kind.handling == Handling::Asker && house.control().command(link.name, "owed") != "0")
      fail({link.name + ": a request was never answered"});
  Sample calm;
  eventually(
      [&] {
        calm = watcher.look();
        return calm.own() == before_load.own() && calm.threads == before_load.threads &&
               calm.queued == 0;
      },
      kDrainsWithin);
  judgeCalm(calm);
}

void Soak::judgeCalm(const Sample& calm) {
  if (calm.own() != before_load.own())
    fail({"descriptors without links: " + counted(calm.own()) + " after the load, " +
          counted(before_load.own()) + " before"});
  if (calm.threads != before_load.threads)
    fail({"threads: " + counted(calm.threads) + " after the load, " + counted(before_load.threads) +
          " before"});
  if (calm.queued > 0) fail({counted(calm.queued) + " messages still wait after the load"});
  if (calm.dropped > 0) fail({counted(calm.dropped) + " messages were dropped"});
  if (calm.undeliverable > 0) fail({counted(calm.undeliverable) + " messages had no receiver"});
}

void Soak::judgeSamples() {
  fail(drift(samples));
  if (!is_interrupted()) fail(neighbours.with(omissions));
  for (const Sample& sample : samples)
    if (sample.answer_ms > kAnswersWithinMs)
      fail({"status answered after " + counted(sample.answer_ms) + " ms"});
}

void Soak::summarize() {
  std::cout << '\n' << table(warm(samples)) << '\n' << neighbours.with(deeds) << '\n';
  for (const std::string& failure : failures) std::cout << "FAILED: " << failure << '\n';
  if (failures.empty()) std::cout << "Nothing was lost, nothing grows.\n";
  std::cout << std::flush;
}

void Soak::writeSamples() const {
  if (samples_file.empty()) return;
  std::ofstream file(samples_file);
  file << csv(samples);
  if (!file.flush()) throw std::runtime_error("cannot write " + samples_file);
}

void Soak::fail(const std::vector<std::string>& texts) {
  failures.insert(failures.end(), texts.begin(), texts.end());
}

}  // namespace soak
