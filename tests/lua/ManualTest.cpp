// Runs every example of docs/lua.md: a block of Lua behind a line
//   <!-- example: STEP; STEP... -->
// and before a block of text that says what it does. The steps, taken once the script is open:
//   connected            a device is there, and the link is open since before the script was
//   peer                 a device is there
//   open                 the link is opened
//   tick                 the timer expires
//   line TEXT            a line arrives
//   command WORDS        a command; its answer is a "reply: " line
//   message JSON         a message arrives
//   meter KEY TYPE VALUE a second rovik, 9 "meter", answers requests with this value, and the
//                        command "hello there" with "you said hello there"
// The lines of the text, in order for each kind: "log: " what scripts log, "sent: " messages,
// "reply: " answers, "timer: " delays, "peer: " what the device receives, escaped.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <fstream>
#include <map>
#include <ostream>
#include <sstream>
#include <utility>

#include "RovikUtil.h"
#include "ScriptTest.h"

namespace {

struct Example {
  std::string name;
  Texts steps;
  std::string script;
  Texts expected;
};

std::ostream& operator<<(std::ostream& out, const Example& example) { return out << example.name; }

Texts linesOf(const std::string& text) {
  std::istringstream in(text);
  Texts lines;
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

Texts manual() {
  std::ifstream file(DROVANE_SOURCE_DIR "/docs/lua.md");
  std::stringstream text;
  text << file.rdbuf();
  return linesOf(text.str());
}

Texts stepsIn(std::string text) {
  Texts steps;
  for (std::size_t end; (end = text.find("; ")) != std::string::npos; text.erase(0, end + 2))
    steps.push_back(text.substr(0, end));
  if (!text.empty()) steps.push_back(text);
  return steps;
}

std::string nameFrom(const std::string& heading, std::size_t number) {
  std::string name;
  for (const char c : heading)
    if (std::isalnum(static_cast<unsigned char>(c)) != 0) name += c;
  return name + "_" + std::to_string(number);
}

// The lines of the fenced block whose opening is line `at`, which then becomes the closing one's
// number; nothing when it opens no such block.
Texts block(const Texts& lines, std::size_t& at, const std::string& opening) {
  Texts content;
  if (at >= lines.size() || lines[at] != opening) return content;
  for (++at; at < lines.size() && lines[at] != "```"; ++at) content.push_back(lines[at]);
  return content;
}

std::vector<Example> examples() {
  static const std::string kMark = "<!-- example:";
  const Texts lines = manual();
  std::vector<Example> all;
  std::string heading;
  for (std::size_t at = 0; at < lines.size(); ++at) {
    if (lines[at].starts_with("#")) heading = lines[at];
    if (!lines[at].starts_with(kMark)) continue;
    Example example;
    example.name = nameFrom(heading, all.size() + 1);
    const std::string between = lines[at].substr(kMark.size());
    const std::size_t begin = between.find_first_not_of(' ');
    const std::size_t end = between.rfind(" -->");
    if (begin < end) example.steps = stepsIn(between.substr(begin, end - begin));
    for (const auto& line : block(lines, ++at, "```lua")) example.script += line + '\n';
    example.expected = block(lines, ++at, "```text");
    all.push_back(example);
  }
  return all;
}

using ByKind = std::map<std::string, Texts>;

ByKind byKind(const Texts& lines) {
  ByKind all;
  for (const auto& line : lines) {
    const std::size_t colon = line.find(": ");
    all[line.substr(0, colon)].push_back(line.substr(colon + 2));
  }
  return all;
}

class ManualTest : public ScriptTest, public testing::WithParamInterface<Example> {
 protected:
  // What the timer is set to before each step: longer than any script can ask for.
  static constexpr int kUntouched = 1000;

  void run(const Example& example) {
    net->command({"unparsedout", "off"});
    for (const auto& step : example.steps) prepare(step);
    scripts.write("manual.lua", example.script);
    net->command({"luafile", "manual.lua"});
    ASSERT_EQ("OK", net->command({"luaopen"})) << warning();
    for (const auto& step : example.steps) take(step);
    seen["log"] = logged();
    for (const auto& msg : traffic.take())
      if (msg->src == 5) seen["sent"].push_back(Traffic::textFor(*msg));
    if (device) seen["peer"] = {received()};
  }

  // What has to be there before the script is opened.
  void prepare(const std::string& step) {
    const auto [word, rest] = split(step);
    if (word == "peer" || word == "connected") {
      device = std::make_unique<TcpPeer>();
      net->command({"persist", "on"});
      net->command({"host", "127.0.0.1"});
      net->command({"port", std::to_string(device->port())});
    }
    if (word == "connected") {
      ASSERT_EQ("OK", net->command({"open"}));
    }
    if (word == "meter") startMeter(rest);
  }

  void take(const std::string& step) {
    const auto [word, rest] = split(step);
    net->timer.set(TimeValue(kUntouched, 0), false);
    if (word == "open") {
      ASSERT_EQ("OK", net->command({"open"}));
    } else if (word == "tick") {
      net->selectTI();
    } else if (word == "line") {
      std::string line = rest;
      net->rcvData(line.data(), static_cast<int>(line.size()));
    } else if (word == "command") {
      seen["reply"].push_back(net->command(words(rest)));
    } else if (word == "message") {
      std::string json = rest;
      const Owned<RovikMessage> msg(RovikMessage::create(json.data()));
      ASSERT_NE(nullptr, msg) << rest;
      net->selectMM(msg.get());
    } else {
      ASSERT_TRUE(word == "peer" || word == "connected" || word == "meter") << word;
    }
    noteTimer();
  }

  void noteTimer() {
    if (net->delay() > kUntouched / 2) return;
    std::ostringstream text;
    text << std::round(net->delay() * 10) / 10 << " s";
    seen["timer"].push_back(text.str());
  }

  void startMeter(const std::string& arguments) {
    const auto part = words(arguments);
    scripts.write("meter.lua",
                  "function ROVIK_INIT(me) m_p = me end\n"
                  "function ROVIK_RCV(msg)\n"
                  "  if msg.key ~= '" +
                      part.at(0) +
                      "' then return end\n"
                      "  sndMM({ type = 'MM_DATA', key = msg.key, value_type = '" +
                      part.at(1) + "', value = " + part.at(2) +
                      ", seqnr = msg.seqnr }, msg.src)\n"
                      "end\n"
                      "function hello(words) return 'you said hello ' .. words.arg1 "
                      "end\n");
    meter = ScriptRovik::make(9, "meter");
    meter->command({"luafile", "meter.lua"});
    ASSERT_EQ("OK", meter->command({"luaopen"}));
    meter->run();
  }

  static std::pair<std::string, std::string> split(const std::string& step) {
    const std::size_t blank = step.find(' ');
    if (blank == std::string::npos) return {step, ""};
    return {step.substr(0, blank), step.substr(blank + 1)};
  }

  static Texts words(const std::string& text) {
    std::istringstream in(text);
    Texts all;
    for (std::string word; in >> word;) all.push_back(word);
    return all;
  }

  Texts logged() {
    Texts texts;
    for (const auto& line : newLines()) {
      const std::string text = line.substr(2);
      if (text.starts_with("LUA: ") || text.starts_with("got ") ||
          text.starts_with("lua function error"))
        texts.push_back(text);
    }
    return texts;
  }

  // All that the device was sent, once the link is closed.
  std::string received() {
    net->command({"luaclose"});
    net->command({"close"});
    if (!device->hasLink()) device->accept();
    const std::string bytes = device->receive(1 << 20);
    std::string text;
    RovikUtil::escape(text, bytes.data(), bytes.size());
    return text;
  }

  std::unique_ptr<TcpPeer> device;
  std::unique_ptr<ScriptRovik> meter;
  ByKind seen;
};

TEST_P(ManualTest, DoesWhatTheManualSays) {
  run(GetParam());
  ByKind expected = byKind(GetParam().expected);
  // How a stream is cut into pieces is not seen by the device.
  std::string bytes;
  for (const auto& piece : expected["peer"]) bytes += piece;
  expected["peer"] = device ? Texts{bytes} : Texts{};
  for (const char* kind : {"log", "sent", "reply", "timer", "peer"})
    EXPECT_EQ(expected[kind], seen[kind]) << kind;
}

INSTANTIATE_TEST_SUITE_P(Example, ManualTest, testing::ValuesIn(examples()),
                         [](const auto& each) { return each.param.name; });

TEST(Manual, HasAnExampleAroundEveryBlockOfLua) {
  const Texts lines = manual();
  const auto blocks = static_cast<std::size_t>(std::count(lines.begin(), lines.end(), "```lua"));
  EXPECT_GE(blocks, 15U);
  EXPECT_EQ(blocks, examples().size());
  for (const auto& example : examples()) {
    EXPECT_NE("", example.script) << example.name;
    EXPECT_FALSE(example.expected.empty()) << example.name;
  }
}

TEST(Manual, UsesOnlyTheKindsOfLinesThatAreCompared) {
  for (const auto& example : examples())
    for (const auto& [kind, lines] : byKind(example.expected))
      EXPECT_TRUE(kind == "log" || kind == "sent" || kind == "reply" || kind == "timer" ||
                  kind == "peer")
          << example.name << ": " << kind;
}

}  // namespace
