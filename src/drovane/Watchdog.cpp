#include "Watchdog.h"

#include "Drovane.h"
#include "RovikUtil.h"

namespace drovane {
namespace {

int secondsSince(std::int64_t moment) {
  return static_cast<int>((Clock::now() - moment) / Clock::kNanosecondsPerSecond);
}

}  // namespace

int Watchdog::Stay::seconds() const { return secondsSince(busy.since); }

void Watchdog::look(const House& house) {
  longest_stay.reset();
  for (const House::Member& member : house.all())
    if (member.rovik) lookAt(member);
  // Those that a reload has ended.
  std::erase_if(
      hangs, [&](const auto& hang) { return house.find(std::to_string(hang.first)) == nullptr; });
}

void Watchdog::lookAt(const House::Member& member) {
  const std::optional<Busy> busy = member.host().busy();
  endHang(member, busy);
  if (!busy) return;
  if (!longest_stay || busy->since < longest_stay->busy.since)
    longest_stay = Stay{member.label(), *busy};
  const int seconds = secondsSince(busy->since);
  if (seconds < kPatience.count() || !hangs.emplace(member.config.id, *busy).second) return;
  const std::string finding =
      RovikUtil::vsnprintftostr("%s has not returned for %d s\n", busy->slot, seconds);
  Drovane::global.log(LOG_LEVEL_ERROR, member.config.id, member.config.name, "%s", finding.c_str());
  member.host().setWarning(finding);
}

// It has come back, even if it is in a slot again by now.
void Watchdog::endHang(const House::Member& member, const std::optional<Busy>& busy) {
  const auto hang = hangs.find(member.config.id);
  if (hang == hangs.end() || (busy && busy->since == hang->second.since)) return;
  Drovane::global.log(LOG_LEVEL_INFO, member.config.id, member.config.name,
                      "%s has returned after %d s\n", hang->second.slot,
                      secondsSince(hang->second.since));
  hangs.erase(hang);
}

}  // namespace drovane
