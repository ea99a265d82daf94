#include "Regex.h"

#include <cstdlib>
#include <cstring>
#include <functional>
#include <limits>
#include <list>
#include <unordered_map>
#include <unordered_set>

#include "Drovane.h"
#include "Log.h"
#include "Mutex.h"
#include "RovikUtil.h"

namespace drovane {
namespace {

// The expressions used last. A house has some dozens; the bound is for whoever makes them up.
class RegexStock {
 public:
  std::shared_ptr<const RE2> get(std::string_view regex) {
    MutexLock guard(lock);
    const auto found = index.find(regex);
    if (found != index.end()) {
      recent.splice(recent.begin(), recent, found->second);
      return found->second->second;
    }
    return add(regex);
  }

 private:
  static constexpr std::size_t kBound = 512;
  using Entry = std::pair<std::string, std::shared_ptr<const RE2>>;

  std::shared_ptr<const RE2> add(std::string_view regex) DROVANE_REQUIRES(lock) {
    auto compiled =
        std::make_shared<const RE2>(re2::StringPiece(regex.data(), regex.size()), regexOptions());
    if (!compiled->ok()) reportOnce(regex, compiled->error());
    recent.emplace_front(std::string(regex), compiled);
    index.emplace(recent.front().first, recent.begin());
    if (recent.size() > kBound) {
      index.erase(recent.back().first);
      recent.pop_back();
    }
    return compiled;
  }

  // Eight bytes an expression are kept, so that an expression that left the stock is not reported
  // again when it comes back.
  void reportOnce(std::string_view regex, const std::string& error) DROVANE_REQUIRES(lock) {
    if (!reported.insert(std::hash<std::string_view>{}(regex)).second) return;
    Drovane::global.log(LOG_LEVEL_ERROR, kFrameworkId, kFrameworkName,
                        "regular expression '%.*s' is not valid and never matches: %s\n",
                        static_cast<int>(regex.size()), regex.data(), error.c_str());
  }

  Mutex lock;
  std::list<Entry> recent DROVANE_GUARDED_BY(lock);
  std::unordered_map<std::string_view, std::list<Entry>::iterator> index DROVANE_GUARDED_BY(lock);
  std::unordered_set<std::size_t> reported DROVANE_GUARDED_BY(lock);
};

}  // namespace

RE2::Options regexOptions() {
  RE2::Options options(RE2::Latin1);
  options.set_log_errors(false);
  return options;
}

bool regexSearch(const RE2& regex, std::string_view text, RegexGroups& groups) {
  if (!regex.ok()) return false;
  // The library sets every group that is asked for, and wants to be asked for no more than needed:
  // each costs.
  const int wanted = std::min(regex.NumberOfCapturingGroups() + 1, static_cast<int>(kRegexGroups));
  groups.fill({});
  return regex.Match({text.data(), text.size()}, 0, text.size(), RE2::UNANCHORED, groups.data(),
                     wanted);
}

void fillTemplate(std::string& result, std::string_view output, const RegexGroups& groups) {
  result.clear();
  for (std::size_t at = 0; at < output.size();) {
    const std::size_t slash = std::min(output.find('\\', at), output.size());
    result.append(output, at, slash - at);
    at = slash + 2;
    if (slash + 1 >= output.size()) {
      result.append(output, slash);
      return;
    }
    const char next = output[slash + 1];
    if (next >= '0' && next <= '9') {
      const auto& group = groups[static_cast<std::size_t>(next - '0')];
      result.append(group.data(), group.size());
    } else {
      result.append(output, slash, 2);
    }
  }
}

std::shared_ptr<const RE2> compiledRegex(std::string_view regex) {
  static RegexStock stock;
  return stock.get(regex);
}

}  // namespace drovane

int RovikUtil::regex_replace(char** result, const char* text, const char* output,
                             const char* regex) {
  if (result == nullptr || text == nullptr || output == nullptr || regex == nullptr) return -1;
  const auto compiled = drovane::compiledRegex(regex);
  if (!compiled->ok()) return -1;
  drovane::RegexGroups groups;
  if (!drovane::regexSearch(*compiled, text, groups)) return 0;
  std::string filled;
  drovane::fillTemplate(filled, output, groups);
  char* copy = strdup(filled.c_str());
  if (copy == nullptr) return -1;
  *result = copy;
  return 1;
}

std::string RovikUtil::regexError(std::string_view regex) {
  const RE2 compiled(re2::StringPiece(regex.data(), regex.size()), drovane::regexOptions());
  return compiled.ok() ? "" : compiled.error();
}
