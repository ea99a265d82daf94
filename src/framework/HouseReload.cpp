// One reload of a house: who is kept, who leaves, who arrives.
#include <algorithm>
#include <limits>
#include <mutex>
#include <new>
#include <thread>

#include "Clock.h"
#include "House.h"
#include "Log.h"
#include "Router.h"

namespace drovane {
namespace {

using Member = House::Member;
using State = House::Member::State;

// How often the roviks that end or are configured are looked at.
constexpr std::chrono::milliseconds kLook{2};
constexpr std::size_t kLast = std::numeric_limits<std::size_t>::max();

std::int64_t after(std::chrono::nanoseconds delay) { return Clock::now() + delay.count(); }

// Where the lines stand in the file does not count.
bool sameBlock(const ConfigRovik& a, const ConfigRovik& b) {
  return a.id == b.id && a.name == b.name && a.plug_in == b.plug_in &&
         std::equal(a.commands.begin(), a.commands.end(), b.commands.begin(), b.commands.end(),
                    [](const auto& one, const auto& other) { return one.words == other.words; });
}

// Not both can be in one house.
bool sameAddress(const Member& a, const Member& b) {
  return a.config.id == b.config.id || a.config.name == b.config.name;
}

}  // namespace

class House::Change {
 public:
  Change(House& its_house, const ConfigFile& its_config, const Terms& its_terms)
      : house(its_house), config(its_config), terms(its_terms) {
    const std::lock_guard guard(house.findings_lock);
    house.findings = &result.findings;
  }
  ~Change() { closeFindings(); }
  Change(const Change&) = delete;
  Change& operator=(const Change&) = delete;

  Reloaded run(PluginLoader& loader) {
    if (!plan()) return interrupted();
    if (!makeAll(loader)) return refuse();
    begin();
    exchange();
    awaitConfigured();
    if (house.cancelled) return interrupted();
    finish();
    return conclude();
  }

 private:
  // A rovik that is made and not in the house yet.
  struct Arrival {
    std::list<Member> node;  // one, until it is in the house
    Member* member = nullptr;
    bool replaces = false;  // one that leaves
  };

  bool plan();
  bool isKept(const Member& member, const ConfigRovik& block) const;
  bool keeps(const ConfigRovik& block, std::size_t place);
  void addArrival(const ConfigRovik& block, std::size_t place);
  bool makeAll(PluginLoader& loader);
  bool addressFree(const Member& member);
  void begin();
  void exchange();
  void arrive();
  bool addressLeft(const Member& member) const;
  bool takeIn(Arrival& arrival);
  void bring(Member& member) noexcept;
  void awaitConfigured();
  bool allConfigured() const;
  void finish();
  static void letGo(Member& member);
  void tellLate() noexcept;
  void closeFindings();
  Reloaded refuse();
  Reloaded interrupted();
  Reloaded conclude();
  std::size_t broughtOf(bool replacing) const;
  std::size_t removed() const;
  std::size_t stuck() const;

  House& house;
  const ConfigFile& config;
  const Terms& terms;
  std::vector<Member*> kept;
  std::vector<Member*> leaving;
  std::vector<const Mailbox*> addresses_left;  // theirs, only to compare with
  std::vector<Arrival> arriving;
  Reloaded result;
};

// --- Before anything is changed ---

// False when the house is being stopped. What left in earlier reloads is forgotten: no thread is
// busy with it any more.
bool House::Change::plan() {
  const std::lock_guard guard(house.list_lock);
  if (house.cancelled) return false;
  house.departed.remove_if([](const Member& member) { return member.state == State::Ended; });
  for (std::size_t place = 0; place < config.roviks.size(); ++place)
    if (!keeps(config.roviks[place], place)) addArrival(config.roviks[place], place);
  for (Member& member : house.members) {
    if (std::find(kept.begin(), kept.end(), &member) != kept.end()) continue;
    leaving.push_back(&member);
    addresses_left.push_back(&member.host().address());
  }
  for (Arrival& arrival : arriving)
    arrival.replaces = std::any_of(leaving.begin(), leaving.end(), [&](const Member* member) {
      return sameAddress(*member, *arrival.member);
    });
  house.stopping.reserve(house.members.size() + arriving.size());
  return true;
}

// One that does not run, although it should, is started anew.
bool House::Change::isKept(const Member& member, const ConfigRovik& block) const {
  const State state = member.state;
  return !terms.restart_all && !member.unwanted &&
         (state == State::Running || state == State::Configuring) &&
         sameBlock(member.config, block);
}

bool House::Change::keeps(const ConfigRovik& block, std::size_t place) {
  const auto found = std::find_if(house.members.begin(), house.members.end(),
                                  [&](const Member& member) { return isKept(member, block); });
  if (found == house.members.end()) return false;
  found->place = place;
  kept.push_back(&*found);
  return true;
}

void House::Change::addArrival(const ConfigRovik& block, std::size_t place) {
  Arrival& added = arriving.emplace_back();
  added.member = &added.node.emplace_back(block);
  added.member->place = place;
}

// Every one is tried, so that all that cannot be made are named.
bool House::Change::makeAll(PluginLoader& loader) {
  bool all_made = true;
  for (const Arrival& arrival : arriving)
    all_made = addressFree(*arrival.member) && house.makeOne(*arrival.member, loader) && all_made;
  return all_made;
}

// Free, or that of a rovik that leaves.
bool House::Change::addressFree(const Member& member) {
  const auto table = Router::global().table();
  const auto is_free = [&](const Mailbox* holder) {
    return holder == nullptr || holder->isClosed() ||
           std::find(addresses_left.begin(), addresses_left.end(), holder) != addresses_left.end();
  };
  const ConfigRovik& block = member.config;
  return (is_free(table->byId(static_cast<std::uint32_t>(block.id))) &&
          is_free(table->byName(block.name))) ||
         house.report(block.line, "id or name of rovik " + member.label() + " is already in use");
}

// Roviks that are kept may go on to report.
void House::Change::closeFindings() {
  const std::lock_guard guard(house.findings_lock);
  house.findings = nullptr;
}

House::Reloaded House::Change::refuse() {
  closeFindings();
  result.text = result.findings.front();
  const std::size_t others = result.findings.size() - 1;
  if (others > 0) result.text += " (and " + std::to_string(others) + " more in the log)";
  return std::move(result);
}

House::Reloaded House::Change::interrupted() {
  closeFindings();
  result.text = "drovane is being stopped";
  return std::move(result);
}

// --- Changing ---

void House::Change::begin() {
  if (terms.apply) terms.apply();
  for (Member* member : leaving) member->unwanted = true;
}

// Whoever arrives waits for nobody but those with its own id or name.
void House::Change::exchange() {
  const std::int64_t patience = after(kFarewellPatience);
  const std::int64_t end = after(kReloadPatience);
  while (!house.cancelled) {
    const bool all_ended = house.allEnded(leaving, Clock::now() > patience);
    arrive();
    if (all_ended || Clock::now() > end) return;
    std::this_thread::sleep_for(kLook);
  }
}

void House::Change::arrive() {
  for (Arrival& arrival : arriving)
    if (!arrival.node.empty() && addressLeft(*arrival.member) && takeIn(arrival))
      bring(*arrival.member);
}

bool House::Change::addressLeft(const Member& member) const {
  return std::none_of(leaving.begin(), leaving.end(), [&](const Member* leaver) {
    return leaver->state != State::Ended && sameAddress(*leaver, member);
  });
}

// False when the house is being stopped: stop would not know of it.
bool House::Change::takeIn(Arrival& arrival) {
  const std::lock_guard guard(house.list_lock);
  if (house.cancelled) return false;
  house.members.splice(house.members.end(), arrival.node);
  return true;
}

// For want of memory it does not run; the next reload tries again.
void House::Change::bring(Member& member) noexcept {
  const std::lock_guard turn(member.turn);  // stop knows of it already
  try {
    if (house.enter(member)) house.launch(member, terms.strict);
  } catch (const std::bad_alloc&) {
    Log::global().countLost();
  }
}

void House::Change::awaitConfigured() {
  const std::int64_t end = after(kReloadPatience);
  while (!house.cancelled && !allConfigured() && Clock::now() < end)
    std::this_thread::sleep_for(kLook);
}

bool House::Change::allConfigured() const {
  return std::none_of(arriving.begin(), arriving.end(), [](const Arrival& arrival) {
    return arrival.member->state == State::Configuring;
  });
}

// --- Behind it ---

// One that did not end comes last.
void House::Change::finish() {
  {
    const std::lock_guard guard(house.list_lock);
    for (Member* member : leaving) member->place = kLast;
    house.members.sort([](const Member& a, const Member& b) { return a.place < b.place; });
  }
  for (Member* member : leaving) letGo(*member);
  tellLate();
}

// Of one that did not end: whoever stays is not to wait until it reads its messages.
void House::Change::letGo(Member& member) {
  const std::unique_lock turn(member.turn, std::try_to_lock);
  if (turn && member.state != State::Ended) member.host().leaveRouter();
}

void House::Change::tellLate() noexcept {
  try {
    for (const Member* member : leaving)
      if (member->state != State::Ended)
        house.tell("rovik " + member->label() +
                   " did not end in time; it is left as it is until it does");
    for (const Arrival& arrival : arriving) {
      const Member& member = *arrival.member;
      if (!arrival.node.empty())
        house.report(member.config.line, "rovik " + member.label() +
                                             " is not started: the one that has its id or name "
                                             "did not end in time");
      else if (member.state == State::Configuring)
        house.report(member.config.line, "rovik " + member.label() +
                                             " has not come to the end of its configuration in "
                                             "time; it goes on");
    }
  } catch (const std::bad_alloc&) {
    Log::global().countLost();
  }
}

std::size_t House::Change::broughtOf(bool replacing) const {
  return static_cast<std::size_t>(
      std::count_if(arriving.begin(), arriving.end(), [&](const Arrival& arrival) {
        return arrival.node.empty() && arrival.replaces == replacing;
      }));
}

std::size_t House::Change::removed() const {
  return static_cast<std::size_t>(
      std::count_if(leaving.begin(), leaving.end(), [&](const Member* member) {
        return member->state == State::Ended &&
               std::none_of(arriving.begin(), arriving.end(), [&](const Arrival& arrival) {
                 return sameAddress(*arrival.member, *member);
               });
      }));
}

std::size_t House::Change::stuck() const {
  return static_cast<std::size_t>(
      std::count_if(leaving.begin(), leaving.end(),
                    [](const Member* member) { return member->state != State::Ended; }));
}

House::Reloaded House::Change::conclude() {
  closeFindings();
  result.done = true;
  result.text = house.config_path + ": " + house.countText();
  const std::pair<std::size_t, const char*> counts[] = {{kept.size(), " kept"},
                                                        {broughtOf(true), " changed"},
                                                        {broughtOf(false), " added"},
                                                        {removed(), " removed"}};
  for (const auto& [count, what] : counts) result.text += ", " + std::to_string(count) + what;
  const std::size_t left = stuck();
  if (left > 0) result.text += ", " + std::to_string(left) + " did not end";
  result.left_some = left > 0;
  return std::move(result);
}

House::Reloaded House::reload(const ConfigFile& config, PluginLoader& loader, const Terms& terms) {
  const std::lock_guard guard(changing);
  return Change(*this, config, terms).run(loader);
}

bool House::endLate() {
  const std::lock_guard guard(changing);
  std::vector<Member*> late;
  {
    const std::lock_guard list(list_lock);
    for (Member& member : members)
      if (member.unwanted) late.push_back(&member);
  }
  return cancelled || allEnded(late, true);
}

}  // namespace drovane
