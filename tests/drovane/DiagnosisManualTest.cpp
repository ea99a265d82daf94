// Holds docs/diagnosis.md against the program.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <re2/re2.h>

#include <filesystem>
#include <set>

#include "ManualBlocks.h"
#include "NamesFound.h"

namespace {

constexpr const char* kManual = "docs/diagnosis.md";

std::string sectionOf(const std::string& heading) {
  const std::string manual = contentOf(DROVANE_SOURCE_DIR "/docs/diagnosis.md");
  const std::size_t begin = manual.find("\n## " + heading + '\n');
  EXPECT_NE(begin, std::string::npos) << heading;
  return manual.substr(begin, manual.find("\n## ", begin + 1) - begin);
}

// The words in backquotes in the first column of the section's tables.
Names explainedIn(const std::string& heading) {
  return foundIn(sectionOf(heading), R"(^\| `([a-z-]+)` \|)");
}

// Runs each command of the marked blocks, in the folder of their files.
class DiagnosisManual : public testing::Test {
 protected:
  void follow(const Block& block) {
    if (block.is_file) {
      std::string text;
      for (const std::string& line : block.content) text += line + '\n';
      folder.write(block.name, text);
      return;
    }
    Texts expected;
    std::string command;
    for (const std::string& line : block.content) {
      if (!line.starts_with("$ ")) {
        expected.push_back(line);
        continue;
      }
      run(command, expected);
      command = line.substr(2);
      expected.clear();
    }
    run(command, expected);
  }

  const TempFolder folder;
  int commands = 0;

 private:
  void run(const std::string& command, const Texts& expected) {
    if (command.empty()) return;
    const std::string line =
        "PATH=${0%/*}:$PATH && cd " + folder.path() + " && { " + command + "; } 2>&1";
    EXPECT_EQ(shownBy(runToEnd({"sh", "-c", line, DROVANE_PROGRAM})), expected) << command;
    ++commands;
  }
};

TEST_F(DiagnosisManual, ExamplesOfTryAreAsShown) {
  std::filesystem::create_directory(folder / "lua");
  for (const Block& block : markedBlocks(kManual)) {
    const testing::ScopedTrace trace(DROVANE_SOURCE_DIR "/docs/diagnosis.md",
                                     static_cast<int>(block.line), block.name);
    follow(block);
  }
  EXPECT_GE(commands, 5);
}

TEST(DiagnosisPage, ExplainsEachLineOfTheStatusOfOneRovik) {
  const std::string source = contentOf(DROVANE_SOURCE_DIR "/src/drovane/StatusDetail.cpp");
  Names labels = foundIn(source, R"re(\{" *([a-z-]+)", *[A-Za-z]+Line\})re");
  EXPECT_GE(labels.size(), 10U);
  labels.insert("description");
  EXPECT_EQ(explainedIn("One rovik"), labels);
}

TEST(DiagnosisPage, ExplainsEachStateOfALink) {
  const std::string source = contentOf(DROVANE_SOURCE_DIR "/src/drovane/StatusText.cpp");
  const std::string states = source.substr(source.find("std::string linkText("));
  const Names names =
      foundIn(states.substr(0, states.find("\n}\n")), R"re((?:[?:]|return) "([a-z]+)")re");
  EXPECT_GE(names.size(), 5U);
  const Names explained = explainedIn("Reading the status");
  for (const std::string& name : names) EXPECT_TRUE(explained.contains(name)) << name;
}

TEST(DiagnosisPage, ExplainsEachKindOfMessage) {
  const std::string help = runToEnd({DROVANE_PROGRAM, "watch", "--help"}).output;
  std::string kinds;
  ASSERT_TRUE(RE2::PartialMatch(help, R"(--kind KIND:\{([a-z,-]+)\})", &kinds)) << help;
  EXPECT_EQ(explainedIn("Following messages"), foundIn(kinds, "([a-z-]+)"));
}

}  // namespace
