#include "Books.h"

#include <cstdint>
#include <cstdlib>
#include <utility>

namespace soak {
namespace {

// Of the connections that ended in good order.
struct Entry {
  std::int64_t ends = 0;
  std::int64_t lines = 0;
  bool operator==(const Entry&) const = default;
};

constexpr int kCatchAllNode = 0;
constexpr int kRuleNode = 1;
constexpr int kScriptNode = 2;

// Finds by rovik and node.
class LedgerBook {
 public:
  explicit LedgerBook(const cJSON* ledger) {
    const cJSON* row = nullptr;
    cJSON_ArrayForEach(row, cJSON_GetObjectItemCaseSensitive(ledger, "streams"))
        streams[{numberIn(row, "id"), numberIn(row, "node")}] = {numberIn(row, "ends"),
                                                                 numberIn(row, "lines")};
    cJSON_ArrayForEach(row, cJSON_GetObjectItemCaseSensitive(ledger, "asked"))
        asked[numberIn(row, "id")] = numberIn(row, "sent");
    cJSON_ArrayForEach(row, cJSON_GetObjectItemCaseSensitive(ledger, "answered"))
        answered[numberIn(row, "id")] = numberIn(row, "answers");
  }

  Entry stream(int rovik, int node) const {
    const auto found = streams.find({rovik, node});
    return found != streams.end() ? found->second : Entry();
  }
  std::int64_t requests(int rovik) const { return find(asked, rovik); }
  std::int64_t answers(int rovik) const { return find(answered, rovik); }

 private:
  using Counts = std::map<std::int64_t, std::int64_t>;
  static std::int64_t find(const Counts& counts, int rovik) {
    const auto found = counts.find(rovik);
    return found != counts.end() ? found->second : 0;
  }

  std::map<std::pair<std::int64_t, std::int64_t>, Entry> streams;
  Counts asked;
  Counts answered;
};

std::string inWords(const Entry& entry) {
  return std::to_string(entry.lines) + " lines in " + std::to_string(entry.ends) + " connections";
}

int nodeOf(Handling handling) {
  if (handling == Handling::Rules) return kRuleNode;
  return handling == Handling::Reporter ? kScriptNode : kCatchAllNode;
}

class Comparison {
 public:
  Comparison(const LedgerBook& its_book, const LastWords& its_words)
      : book(its_book), words(its_words) {}

  void compare(const Peer& peer) {
    const Link& link = peer.link();
    for (const std::string& fault : peer.faults()) note(link, fault);
    for (const std::string& fault : peer.heard().faults()) note(link, fault);
    if (!link.mayLose()) compareLines(link, peer.said());
    if (hearsEverything(link))
      compareCount(link, "requests sent", book.requests(link.id), peer.heard().last('R'));
    compareScript(peer);
  }
  std::vector<std::string> found;

 private:
  static bool hearsEverything(const Link& link) {
    return !link.mayPart() || link.kind.character == Character::Visited;
  }

  void note(const Link& link, const std::string& text) { found.push_back(link.name + ": " + text); }

  void compareLines(const Link& link, const Voice& voice) {
    const Entry said{voice.ends(), voice.endedLines()};
    const Entry got = book.stream(link.id, nodeOf(link.kind.handling));
    if (said != got) note(link, "said " + inWords(said) + ", the ledger got " + inWords(got));
  }

  void compareCount(const Link& link, const std::string& what, std::int64_t sent,
                    std::int64_t got) {
    if (sent != got)
      note(link, what + ": " + std::to_string(sent) + ", arrived: " + std::to_string(got));
  }

  void compareScript(const Peer& peer) {
    const Link& link = peer.link();
    const auto said = words.find(link.name);
    if (said == words.end()) return;
    const std::int64_t count = std::atoll(said->second.c_str());
    if (count < 1) note(link, "the script answered \"" + said->second + "\", expected a count");
    if (link.kind.handling == Handling::Sender)
      compareCount(link, "lines sent", count, book.stream(link.id, kScriptNode).lines);
    if (link.kind.handling == Handling::Writer)
      compareCount(link, "lines written", count, peer.heard().last('W'));
    if (link.kind.handling == Handling::Asker)
      compareCount(link, "requests", count, book.answers(link.id));
  }

  const LedgerBook& book;
  const LastWords& words;
};

}  // namespace

std::vector<std::string> differences(const Peers& peers, const cJSON* ledger,
                                     const LastWords& words) {
  const LedgerBook book(ledger);
  Comparison comparison(book, words);
  for (const auto& peer : peers) comparison.compare(*peer);
  const cJSON* text = nullptr;
  cJSON_ArrayForEach(text, cJSON_GetObjectItemCaseSensitive(ledger, "texts"))
      comparison.found.push_back(std::string("ledger: ") + text->valuestring);
  return comparison.found;
}

std::string deeds(const Peers& peers) {
  std::int64_t lines = 0;
  std::int64_t heard = 0;
  std::int64_t connections = 0;
  std::int64_t slowed = 0;
  for (const auto& peer : peers) {
    lines += peer->said().lines();
    heard += peer->heard().lines();
    connections += peer->connections();
    slowed += peer->slowed();
  }
  return "The peers had " + std::to_string(connections) + " connections, said " +
         std::to_string(lines) + " lines, heard " + std::to_string(heard) +
         " and were slowed down " + std::to_string(slowed) + " times.\n";
}

std::vector<std::string> omissions(const Peers& peers) {
  std::map<std::string, std::int64_t> slowed;
  for (const auto& peer : peers)
    if (peer->link().kind.character == Character::Floods && !peer->link().mayLose())
      slowed[peer->link().kind.name] += peer->slowed();
  std::vector<std::string> found;
  for (const auto& [kind, times] : slowed)
    if (times == 0) found.push_back(kind + ": was never slowed down");
  return found;
}

}  // namespace soak
