// Random tables and lines: all at once, one after the other, and each expression by itself through
// RovikUtil::regex_replace say the same.
#include <cstdint>
#include <utility>

#include "Drovane.h"
#include "NetTest.h"
#include "Owned.h"
#include "RandomRules.h"
#include "RegexTable.h"
#include "RovikUtil.h"
#include "support/Inbox.h"

namespace {

using Matches = std::vector<std::pair<std::size_t, std::string>>;

struct Rule {
  std::string regex;
  std::string output;
};

std::ostream& operator<<(std::ostream& out, const Rule& rule) {
  return out << '/' << rule.regex << "/ -> " << rule.output;
}

std::string escaped(const std::string& bytes) {
  std::string text;
  RovikUtil::escape(text, bytes.data(), bytes.size());
  return text;
}

// What each rule by itself makes of the text.
Matches oneByOne(const std::vector<Rule>& rules, const std::string& text) {
  Matches found;
  for (std::size_t i = 0; i < rules.size(); ++i) {
    char* result = nullptr;
    const int status = RovikUtil::regex_replace(&result, text.c_str(), rules[i].output.c_str(),
                                                rules[i].regex.c_str());
    const OwnedText owner(result);
    if (status > 0) found.emplace_back(i, owner.get());
  }
  return found;
}

Matches tableOf(RegexTable& table, const std::string& text) {
  Matches found;
  table.match(text, [&](std::size_t index, const std::string& output) {
    found.emplace_back(index, output);
  });
  return found;
}

class RulesProperty : public NetTest {
 protected:
  RulesProperty() { Drovane::global.setLogLevel(0); }

  Rule randomRule() {
    std::string regex = made.regex();
    return {std::move(regex), made.output()};
  }

  RandomRules made{20240117};
};

TEST_F(RulesProperty, TablesSayWhatEachExpressionSays) {
  std::size_t hits = 0;
  for (int round = 0; round < 60; ++round) {
    RegexTable one_pass(0);
    RegexTable walk(SIZE_MAX);
    RegexTable standard;
    std::vector<Rule> rules;
    for (int stage = 0; stage < 3; ++stage) {
      for (std::size_t more = made.upTo(12); more > 0; --more) {
        rules.push_back(randomRule());
        for (RegexTable* table : {&one_pass, &walk, &standard})
          table->add(rules.back().regex, rules.back().output);
      }
      for (int line = 0; line < 20; ++line) {
        const std::string text = escaped(made.line());
        const Matches expected = oneByOne(rules, text);
        hits += expected.size();
        ASSERT_EQ(expected, tableOf(walk, text)) << text << testing::PrintToString(rules);
        ASSERT_EQ(expected, tableOf(one_pass, text)) << text << testing::PrintToString(rules);
        ASSERT_EQ(expected, tableOf(standard, text)) << text << testing::PrintToString(rules);
      }
    }
  }
  EXPECT_GT(hits, 500U);
}

// The messages of a line: the catch-all one, then one per matching rule in table order.
TEST_F(RulesProperty, MessagesOfALineAreThoseOfItsRulesInTheirOrder) {
  for (int round = 0; round < 40; ++round) {
    net = nullptr;
    net = ExposedNet::make(5, "net");
    net->command({"reg", "on"});
    net->command({"unparsedout", round % 2 == 0 ? "on" : "off"});
    Inbox inbox;
    std::vector<Rule> rules;
    std::vector<std::pair<std::string, bool>> targets;  // key, and whether it is a request
    for (std::size_t count = made.upTo(30); count > 0; --count) {
      rules.push_back(randomRule());
      targets.emplace_back("5_1_" + std::to_string(made.upTo(3)), made.upTo(1) == 0);
      net->command({"regin", targets.back().first, rules.back().regex, rules.back().output,
                    targets.back().second ? "MM_ACTUATOR_REQUEST" : "MM_DATA"});
    }
    for (int i = 0; i < 30; ++i) {
      std::string bytes = made.line();
      net->rcvData(bytes.data(), static_cast<int>(bytes.size()));
      std::vector<Arrived> expected;
      if (net->unparsedout) expected.push_back(dataText("5_0_0", escaped(bytes)));
      for (const auto& [index, output] : oneByOne(rules, escaped(bytes))) {
        const auto& [key, request] = targets[index];
        expected.push_back(request ? requestText(key, output) : dataText(key, output));
      }
      ASSERT_EQ(expected, inbox.take()) << testing::PrintToString(rules);
    }
  }
}

}  // namespace
