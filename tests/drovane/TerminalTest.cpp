// What a person at a terminal gets to see.
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <system_error>

#include "RunningProgram.h"
#include "drovane/StatusText.h"
#include "drovane/Terminal.h"
#include "support/Eventually.h"

namespace {

using drovane::fitted;
using drovane::printable;
using drovane::wrapped;

// "drovane ARGUMENTS" at a terminal of its own, killed at the end if it still runs.
class AtTerminal {
 public:
  AtTerminal(const Program& program, Arguments arguments, const char* no_color = nullptr) {
    // Behind the subcommand: what follows the first word of a command is no option.
    arguments.insert(arguments.begin() + 1, {"--control", program.control});
    arguments.insert(arguments.begin(), DROVANE_PROGRAM);
    std::vector<char*> words;
    for (std::string& argument : arguments) words.push_back(argument.data());
    words.push_back(nullptr);
    int end = -1;
    child = ::forkpty(&end, nullptr, nullptr, nullptr);
    if (child < 0) throw std::system_error(errno, std::generic_category(), "forkpty");
    if (child == 0) {
      ::unsetenv("NO_COLOR");
      if (no_color != nullptr) ::setenv("NO_COLOR", no_color, 1);
      ::execv(words[0], words.data());
      _exit(127);
    }
    screen.reset(end);
  }
  ~AtTerminal() {
    ::kill(child, SIGKILL);
    ::waitpid(child, nullptr, 0);
  }
  AtTerminal(const AtTerminal&) = delete;
  AtTerminal& operator=(const AtTerminal&) = delete;

  // Whether the screen shows the text by now.
  bool shows(const std::string& text) {
    readSome();
    return shown.find(text) != std::string::npos;
  }
  // Everything until the end.
  const std::string& all() {
    EXPECT_TRUE(eventually([&] { return !readSome(); }));
    return shown;
  }

 private:
  // False when the program has left the terminal.
  bool readSome() {
    pollfd watched = {screen.get(), POLLIN, 0};
    if (::poll(&watched, 1, 10) <= 0) return true;
    std::array<char, 4096> block;
    const ssize_t count = ::read(screen.get(), block.data(), block.size());
    if (count > 0) shown.append(block.data(), static_cast<std::size_t>(count));
    return count > 0;
  }

  pid_t child = -1;
  drovane::Descriptor screen;
  std::string shown;
};

TEST(Terminal, ARepliesControlBytesDoNothingAndItsLinesStay) {
  Program program;
  program.startReady(houseWith());
  const std::string reply = "one\n\x1b[2Jtwo";
  AtTerminal terminal(program, {"cmd", "boiler", "say", reply});
  EXPECT_EQ(terminal.all(), "one\r\n\\x1b[2Jtwo\r\n");
  EXPECT_EQ(program.ask({"cmd", "boiler", "say", reply}).output, reply + '\n');
}

TEST(Terminal, WatchIsColouredUnlessThatIsRefused) {
  Program program;
  program.startReady(houseWith());
  struct Case {
    const char* no_color;
    const char* word;
  };
  for (const Case& each : {Case{nullptr, "\033[32mdata\033[0m 5_1_0"},
                           Case{"", "\033[32mdata\033[0m 5_1_0"}, Case{"1", " data 5_1_0"}}) {
    AtTerminal terminal(program, {"watch"}, each.no_color);
    EXPECT_TRUE(eventually([&] {
      program.ask({"cmd", "boiler", "tell", "x"});
      return terminal.shows(each.word);
    }));
  }
}

TEST(Printable, TextInAnyLanguageStays) {
  for (const char* text : {"plain", "25 \u00B0C", "\u20AC", "\U0001F525", "\u00A0"})
    EXPECT_EQ(printable(text), text);
}

TEST(Printable, WhatATerminalMightObeyIsEscaped) {
  EXPECT_EQ(printable("a\x1b[2J\x7f"), "a\\x1b[2J\\x7f");
  EXPECT_EQ(printable("\xc2\x9b"), "\\xc2\\x9b");           // U+009B begins a control sequence
  EXPECT_EQ(printable("\xc1\xbf\xf5"), "\\xc1\\xbf\\xf5");  // no UTF-8 begins like this
  EXPECT_EQ(printable("\xe2\x82"), "\\xe2\\x82");           // cut off
  EXPECT_EQ(printable("\xe2\x28\xa1"), "\\xe2(\\xa1");
  EXPECT_EQ(printable("\x80"), "\\x80");
}

TEST(Fitted, IsCutByColumnsNotByBytes) {
  EXPECT_EQ(fitted("k\u00FCche", 5), "k\u00FCche");
  EXPECT_EQ(fitted("k\u00FCche", 4), "k\u00FCc~");
}

TEST(Wrapped, BreaksAtBlanksAndElseAnywhere) {
  using Lines = std::vector<std::string>;
  EXPECT_EQ(wrapped("one two three", 7), (Lines{"one two", "three"}));
  EXPECT_EQ(wrapped("one two three", 6), (Lines{"one", "two", "three"}));
  EXPECT_EQ(wrapped("onetwothree", 6), (Lines{"onetwo", "three"}));
  EXPECT_EQ(wrapped(" onetwothree", 6), (Lines{" onetw", "othree"}));
  EXPECT_EQ(wrapped("", 6), (Lines{""}));
}

// As long as a plug-in likes: 80 left no column for the text.
TEST(Wrapped, ALabelOfAnyLengthLeavesRoomForTheText) {
  for (const std::size_t length : {79U, 80U, 81U, 200U}) {
    const std::string label(length, 'l');
    testing::internal::CaptureStdout();
    drovane::printWrapped(label, "  ", "one two three four five");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), label + "one two three four\n  five\n");
  }
}

}  // namespace
