// A growing table of regular expressions with an output each: which of them match a text, in one
// pass over the text whatever the size of the table.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

// Every entry means what RovikUtil::regex_replace means with the same expression and output. One
// thread at a time uses a table.
class RegexTable {
 public:
  // From this many entries on one automaton finds all that match; below it trying one after the
  // other is faster.
  static constexpr std::size_t kOnePassFrom = 8;

  // With a bound of its own a table can be held to either way; the results are the same.
  explicit RegexTable(std::size_t one_pass_from = kOnePassFrom);
  ~RegexTable();
  RegexTable(RegexTable&&) noexcept;
  RegexTable& operator=(RegexTable&&) noexcept;

  // Appends an entry. An expression that is not valid is logged, once in the life of the process,
  // and never matches.
  void add(std::string_view regex, std::string_view output);
  std::size_t size() const;

  // Calls `found` for every entry that matches `text`, in the order in which they were added, with
  // the entry's index and its output filled in. `found` must not use the table.
  using Found = std::function<void(std::size_t index, const std::string& output)>;
  void match(std::string_view text, const Found& found);

 private:
  struct State;
  std::unique_ptr<State> state;
};
