// Follows docs/tutorial.md from its first line to its last, with the real program and the simulated
// device. A command that goes on running is stopped by Ctrl-C when the next one comes in its
// terminal; a block without a command is what the one that runs shows next. What is shown of it has
// to come in that order, and "..." marks what is left out. Of a command that ends the whole output
// is shown, and its status unless that is 0. Times, temperatures, numbers of processes and counters
// may differ. The device takes any free port, and is in more of a hurry than the one of the page.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <re2/re2.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <map>

#include "ManualBlocks.h"
#include "SimulatedDevice.h"
#include "support/Eventually.h"

namespace {

constexpr const char* kLeftOut = "...";
constexpr const char* kManual = "docs/tutorial.md";

// A line without what differs from run to run.
std::string lasting(const std::string& line) {
  static const struct {
    RE2 passing;
    const char* name;
  } kRows[] = {
      {R"(^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}[+-]\d\d:\d\d )", "DATE "},
      {R"(^\d\d:\d\d:\d\d\.\d{3} )", "TIME "},
      {R"((T=|5_1_0 = ")-?\d+\.\d)", R"(\1DEGREES)"},
      {R"(pid \d+   up \d\d:\d\d:\d\d)", "pid NUMBER   up TIME"},
      {R"(( (open|closed)  )( +\d+){4}$)", R"(\1 COUNTERS)"},
      {R"(^(      open for )\d\d:\d\d:\d\d, script \d+ bytes, timer in [0-9.]+ s$)",
       R"(\1TIME, script BYTES, timer in TIME)"},
      {R"(^(      [<>]) \d+ \(\d+ bytes\), [0-9.]+ s ago: )", R"(\1 COUNTERS, TIME ago: )"},
  };
  std::string text = line;
  for (const auto& row : kRows) RE2::GlobalReplace(&text, row.passing, row.name);
  return text;
}

Texts lasting(Texts lines) {
  for (std::string& line : lines) line = lasting(line);
  return lines;
}

// A command that goes on running, and how much of its output has been shown on the page.
class Running {
 public:
  Running(const Arguments& line, const Process::Environment& environment)
      : process(line, environment) {}

  // Waits until the lines have come, in this order, behind those of the last time.
  bool shows(const Texts& expected) {
    return std::all_of(expected.begin(), expected.end(), [this](const std::string& line) {
      return line == kLeftOut || eventually([&] { return passes(lasting(line)); });
    });
  }
  std::string output() { return process.output(); }

  // Ctrl-C, unless it has ended already. The exit status.
  std::optional<int> stop() {
    process.signal(SIGINT);
    return process.wait();
  }

 private:
  bool passes(const std::string& line) {
    const std::string& text = process.output();
    const Texts lines = lasting(linesOf(text.substr(0, text.rfind('\n') + 1)));
    const auto from = lines.begin() + static_cast<std::ptrdiff_t>(shown);
    const auto found = std::find(from, lines.end(), line);
    if (found == lines.end()) return false;
    shown = static_cast<std::size_t>(found - lines.begin()) + 1;
    return true;
  }

  Process process;
  std::size_t shown = 0;  // lines
};

class Tutorial : public testing::Test {
 protected:
  Tutorial() {
    std::filesystem::create_directory(folder / "build");
    std::filesystem::create_directory_symlink(DROVANE_DEVICES, folder / "build/bin");
  }

  void follow(const Block& block) {
    if (block.is_file) return write(block);
    Texts output;
    std::string command;
    for (const std::string& line : block.content) {
      if (line.starts_with("$ ")) {
        take(block.name, command, output);
        command = line.substr(2);
        output.clear();
      } else {
        output.push_back(line);
      }
    }
    take(block.name, command, output);
  }

  void write(const Block& block) {
    std::string text;
    for (const std::string& line : block.content) text += line + '\n';
    if (block.name.ends_with(".conf")) replace(text, "port 7001\n", "port " + port + "\n");
    folder.write(block.name, text);
  }

  void take(const std::string& terminal, const std::string& command, const Texts& output) {
    if (command.empty()) {
      if (output.empty()) return;
      ASSERT_TRUE(terminals.contains(terminal)) << "nothing runs in the terminal " << terminal;
      EXPECT_TRUE(terminals[terminal]->shows(output)) << terminals[terminal]->output();
    } else if (command == "script/build") {
      EXPECT_EQ(::access(DROVANE_SOURCE_DIR "/script/build", X_OK), 0);  // what it makes is here
    } else if (command.ends_with(" &")) {
      switchOn(command, output);
    } else if (command.starts_with("build/bin/drovane run ") ||
               command == "build/bin/drovane watch") {
      start(terminal, command, output);
    } else {
      runToItsEnd(command, output);
    }
  }

  void switchOn(std::string command, const Texts& output) {
    replace(command, "--port 7001 &", "--port 0 --interval 0.2");
    device = running(command);
    ASSERT_TRUE(eventually([this] { return device->output().ends_with("\n"); }));
    std::string said = device->output();
    port = said.substr(said.rfind(' ') + 1);
    port.pop_back();
    replace(said, "port " + port, "port 7001");
    EXPECT_EQ(linesOf(said), output);
  }

  void start(const std::string& terminal, const std::string& command, const Texts& output) {
    auto& there = terminals[terminal];
    if (there) {
      const bool house = terminal == "house";
      const std::optional<int> status = there->stop();
      EXPECT_TRUE(status && (!house || *status == 0)) << there->output();
    }
    there = running(command);
    EXPECT_TRUE(there->shows(output)) << there->output();
  }

  void runToItsEnd(const std::string& command, const Texts& output) const {
    const Finished done = runToEnd(shell(command), environment());
    const Texts shown = shownBy(done);
    if (command.ends_with(" status"))
      EXPECT_EQ(lasting(shown), lasting(output));
    else
      EXPECT_EQ(shown, output);
  }

  std::unique_ptr<Running> running(const std::string& command) const {
    return std::make_unique<Running>(shell("exec " + command), environment());
  }
  Arguments shell(const std::string& command) const {
    return {"bash", "-c", "cd " + folder.path() + " && { " + command + "; } 2>&1"};
  }
  Process::Environment environment() const { return {{"DROVANE_CONTROL", folder / "control"}}; }

  const TempFolder folder;
  std::string port;
  std::unique_ptr<Running> device;
  std::map<std::string, std::unique_ptr<Running>> terminals;
};

TEST_F(Tutorial, WorksFromTheFirstLineToTheLast) {
  for (const Block& block : markedBlocks(kManual)) {
    const testing::ScopedTrace trace(DROVANE_SOURCE_DIR "/docs/tutorial.md",
                                     static_cast<int>(block.line), block.name);
    follow(block);
    if (HasFailure()) return;
  }
  ASSERT_TRUE(terminals.contains("house"));
  EXPECT_EQ(terminals["house"]->stop(), 0);
}

TEST(TutorialPage, HasAMarkBeforeEachBlock) {
  const Texts lines = linesOfManual(kManual);
  const auto fences = std::count_if(lines.begin(), lines.end(),
                                    [](const auto& line) { return line.starts_with("```"); });
  EXPECT_EQ(static_cast<std::size_t>(fences), 2 * markedBlocks(kManual).size());
  EXPECT_GE(markedBlocks(kManual).size(), 30U);
}

}  // namespace
