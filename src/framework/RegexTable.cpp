#include "RegexTable.h"

#include <re2/set.h>

#include <algorithm>
#include <new>
#include <utility>
#include <vector>

#include "Regex.h"

namespace {

// What the automaton of one table may use; beyond it the table is tried entry by entry.
constexpr std::int64_t kAutomatonMemory = std::int64_t{64} * 1024 * 1024;

RE2::Options automatonOptions() {
  RE2::Options options = drovane::regexOptions();
  options.set_max_mem(kAutomatonMemory);
  return options;
}

struct Entry {
  std::string regex;
  std::string output;
  bool valid;
  std::shared_ptr<const RE2> compiled;  // null until the entry is first tried
};

}  // namespace

struct RegexTable::State {
  explicit State(std::size_t bound) : one_pass_from(bound) {}

  // Entries that may match, in table order: a superset is fine, each is tried before it counts.
  const std::vector<int>& candidates(std::string_view text);
  bool buildingPays();
  void rebuild();
  bool matches(Entry& entry, std::string_view text);

  std::size_t one_pass_from;
  std::vector<Entry> entries;
  std::vector<int> every;               // 0, 1, 2, … for the walk
  std::unique_ptr<RE2::Set> automaton;  // null: walk
  std::vector<int> automaton_entries;   // which entry each expression of the automaton belongs to
  std::vector<int> hits;
  std::size_t built = 0;           // entries that the automaton was built for
  std::size_t lines_with_new = 0;  // texts since there are entries that it does not know

  drovane::RegexGroups groups;
  std::string filled;
};

// Building costs as much as trying each entry on some dozens of texts. So new entries are first
// tried one by one, while they are few beside the others and texts have been few since they came:
// rules may be added while lines arrive.
bool RegexTable::State::buildingPays() {
  constexpr std::size_t kFewEntries = 64;
  constexpr std::size_t kFewLines = 256;
  const std::size_t added = entries.size() - built;
  if (added == 0) return false;
  return built == 0 || added > std::max(kFewEntries, built / 16) || ++lines_with_new > kFewLines;
}

void RegexTable::State::rebuild() {
  built = entries.size();
  lines_with_new = 0;
  automaton.reset();
  automaton_entries.clear();
  if (entries.size() < one_pass_from) return;
  auto made = std::make_unique<RE2::Set>(automatonOptions(), RE2::UNANCHORED);
  for (std::size_t i = 0; i < entries.size(); ++i) {
    if (!entries[i].valid) continue;
    if (made->Add(entries[i].regex, nullptr) < 0) return;
    automaton_entries.push_back(static_cast<int>(i));
  }
  if (made->Compile()) automaton = std::move(made);
}

const std::vector<int>& RegexTable::State::candidates(std::string_view text) {
  if (buildingPays()) rebuild();
  if (!automaton) return every;
  hits.clear();
  RE2::Set::ErrorInfo error{};
  if (!automaton->Match({text.data(), text.size()}, &hits, &error)) {
    // Either none of its entries matches, or it has outgrown its memory on this text.
    if (error.kind != RE2::Set::kNoError) return every;
    hits.clear();
  }
  std::sort(hits.begin(), hits.end());
  std::transform(hits.begin(), hits.end(), hits.begin(),
                 [this](int hit) { return automaton_entries[static_cast<std::size_t>(hit)]; });
  hits.insert(hits.end(), every.begin() + static_cast<std::ptrdiff_t>(built), every.end());
  return hits;
}

bool RegexTable::State::matches(Entry& entry, std::string_view text) {
  if (!entry.valid) return false;
  if (!entry.compiled) entry.compiled = drovane::compiledRegex(entry.regex);
  return drovane::regexSearch(*entry.compiled, text, groups);
}

RegexTable::RegexTable(std::size_t one_pass_from) : state(std::make_unique<State>(one_pass_from)) {}
RegexTable::~RegexTable() = default;
RegexTable::RegexTable(RegexTable&&) noexcept = default;
RegexTable& RegexTable::operator=(RegexTable&&) noexcept = default;

std::size_t RegexTable::size() const { return state->entries.size(); }

void RegexTable::add(std::string_view regex, std::string_view output) {
  // Compiled here only for the verdict; of thousands of entries few ever match, and only those
  // keep what they compile to.
  const bool valid = drovane::compiledRegex(regex)->ok();
  state->entries.push_back({std::string(regex), std::string(output), valid, nullptr});
  try {
    state->every.push_back(static_cast<int>(state->every.size()));
  } catch (const std::bad_alloc&) {
    state->entries.pop_back();
    throw;
  }
}

void RegexTable::match(std::string_view text, const Found& found) {
  for (const int index : state->candidates(text)) {
    Entry& entry = state->entries[static_cast<std::size_t>(index)];
    if (!state->matches(entry, text)) continue;
    drovane::fillTemplate(state->filled, entry.output, state->groups);
    found(static_cast<std::size_t>(index), state->filled);
  }
}
