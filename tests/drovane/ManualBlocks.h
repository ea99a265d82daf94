// The blocks of a manual that stand behind a line which says what they are:
//   <!-- file: NAME -->      the file, whole
//   <!-- terminal: NAME -->  what is seen in that terminal: commands behind "$ ", and under each of
//                            them its output
#pragma once

#include <gtest/gtest.h>
#include <re2/re2.h>

#include <cstddef>
#include <sstream>
#include <string>
#include <vector>

#include "SimulatedDevice.h"

using Texts = std::vector<std::string>;

struct Block {
  bool is_file = false;
  std::string name;      // of the file or of the terminal
  std::size_t line = 0;  // of the mark
  Texts content;
};

inline Texts linesOf(const std::string& text) {
  std::istringstream in(text);
  Texts lines;
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

// `manual` is a path below the top folder.
inline Texts linesOfManual(const std::string& manual) {
  return linesOf(contentOf(DROVANE_SOURCE_DIR "/" + manual));
}

inline std::vector<Block> markedBlocks(const std::string& manual) {
  static const RE2 kMark("<!-- (file|terminal): (.*) -->");
  const Texts lines = linesOfManual(manual);
  std::vector<Block> all;
  for (std::size_t at = 0; at < lines.size(); ++at) {
    std::string kind;
    std::string name;
    if (!RE2::FullMatch(lines[at], kMark, &kind, &name)) continue;
    Block block{kind == "file", name, at + 1, {}};
    EXPECT_TRUE(lines.at(++at).starts_with("```")) << "line " << at;
    while (lines.at(++at) != "```") block.content.push_back(lines[at]);
    all.push_back(block);
  }
  return all;
}

// The output of a command that has ended, with its status in a last line unless that is 0.
inline Texts shownBy(const Finished& done) {
  Texts shown = linesOf(done.output);
  if (done.status != 0) shown.push_back("[exit status " + std::to_string(done.status) + ']');
  return shown;
}
