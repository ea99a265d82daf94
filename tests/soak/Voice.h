// The two sides of a peer: what it says, and what it hears.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "Place.h"

namespace soak {

// Numbered lines, as the plug-in "ledger" reads them, and anything between them.
class Voice {
 public:
  // A new connection: what the last one has not taken is lost.
  void begin();
  void say(std::size_t padding = 0) { add("", padding); }
  // The last line of this connection, which is to end in good order.
  void sayLast();
  // Bytes that are no numbered line.
  void mumble(std::string_view bytes) { pending += bytes; }
  // Lets the line take what it has room for. True when nothing is left.
  bool passOn(Line& line);

  bool idle() const { return pending.empty(); }
  bool saidLast() const { return said_last; }
  // Of the connections whose last line has been passed on.
  std::int64_t ends() const { return ended; }
  std::int64_t endedLines() const { return ended_lines; }
  std::int64_t lines() const { return all_lines; }

 private:
  void add(std::string_view ending, std::size_t padding);

  std::string pending;
  std::int64_t connection = 0;
  std::int64_t number = 0;
  bool said_last = false;
  bool counted = false;
  std::int64_t ended = 0;
  std::int64_t ended_lines = 0;
  std::int64_t all_lines = 0;
};

// Numbered requests, "R17" and a blank and any padding, and lines of a script, "W17".
class Ear {
 public:
  enum class Rule {
    Every,          // none may be missing, also from one connection to the next
    InConnections,  // none within a connection
    None,
  };

  explicit Ear(Rule its_rule) : rule(its_rule) {}
  void begin();
  void hear(std::string_view bytes);

  // The number heard last of this kind, 0 before.
  std::int64_t last(char kind) const;
  std::int64_t lines() const { return all_lines; }
  const std::vector<std::string>& faults() const { return found; }

 private:
  void check(std::string_view line);

  const Rule rule;
  std::string partial;
  std::map<char, std::int64_t> numbers;
  std::map<char, bool> begun;  // kinds heard in this connection
  std::int64_t all_lines = 0;
  std::vector<std::string> found;
};

}  // namespace soak
