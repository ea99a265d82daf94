// The commands that add rules.
#include "NetTest.h"

namespace {

using RuleCommands = NetTest;

TEST_F(RuleCommands, ReginAddsARuleForData) {
  EXPECT_EQ("OK", net->command({"regin", "3_1_0", "^T=(.*)$", "X"}));
  ASSERT_EQ(1U, net->regexTableIN.size());
  EXPECT_EQ("3_1_0", net->regexTableIN[0].key);
  EXPECT_EQ("^T=(.*)$", net->regexTableIN[0].regex);
  EXPECT_EQ("X", net->regexTableIN[0].output);
  EXPECT_EQ(MM_DATA, net->regexTableIN[0].type);
  EXPECT_EQ(Lines{infoLine("setRegexTableIN entry: 3_1_0 ^T=(.*)$ X MM_DATA")}, newLines());
  EXPECT_EQ(0U, net->regexTableOUT.size());
}

TEST_F(RuleCommands, ReginTakesATypeAsItsFourthWord) {
  EXPECT_EQ("OK", net->command({"regin", "3_1_0", "^X$", "1", "MM_ACTUATOR_REQUEST"}));
  ASSERT_EQ(1U, net->regexTableIN.size());
  EXPECT_EQ(MM_ACTUATOR_REQUEST, net->regexTableIN[0].type);
  EXPECT_EQ(Lines{infoLine("setRegexTableIN entry: 3_1_0 ^X$ 1 MM_ACTUATOR_REQUEST")}, newLines());
}

TEST_F(RuleCommands, EveryOtherTypeMeansData) {
  for (const char* type :
       {"MM_MSG", "MM_DATA", "mm_actuator_request", "MM_ACTUATOR_REQUEST ", ""}) {
    EXPECT_EQ("OK", net->command({"regin", "3_1_0", "^X$", "1", type}));
    EXPECT_EQ(MM_DATA, net->regexTableIN.back().type) << type;
    EXPECT_EQ(Lines{infoLine(std::string("setRegexTableIN entry: 3_1_0 ^X$ 1 ") + type)},
              newLines());
  }
}

TEST_F(RuleCommands, RegoutAddsARuleForRequests) {
  EXPECT_EQ("OK", net->command({"regout", "3_1_0", "^on$", "HEAT=ON"}));
  ASSERT_EQ(1U, net->regexTableOUT.size());
  EXPECT_EQ("3_1_0", net->regexTableOUT[0].key);
  EXPECT_EQ("^on$", net->regexTableOUT[0].regex);
  EXPECT_EQ("HEAT=ON", net->regexTableOUT[0].output);
  EXPECT_EQ(MM_ACTUATOR_REQUEST, net->regexTableOUT[0].type);
  EXPECT_EQ(Lines{infoLine("setRegexTableOUT entry: 3_1_0 ^on$ HEAT=ON MM_ACTUATOR_REQUEST")},
            newLines());
  EXPECT_EQ(0U, net->regexTableIN.size());
}

TEST_F(RuleCommands, RulesKeepTheirOrderAndEqualOnesAreKeptTwice) {
  for (const char* output : {"a", "b", "b", "c"}) {
    net->command({"regin", "1_1_1", "x", output});
    net->command({"regout", "1_1_1", "x", output});
  }
  std::string in;
  for (const auto& rule : net->regexTableIN) in += rule.output;
  std::string out;
  for (const auto& rule : net->regexTableOUT) out += rule.output;
  EXPECT_EQ("abbc", in);
  EXPECT_EQ("abbc", out);
}

TEST_F(RuleCommands, TooFewWordsAddNoRule) {
  for (const char* keyword : {"regin", "regout"}) {
    EXPECT_EQ("", net->command({keyword}));
    EXPECT_EQ("", net->command({keyword, "1_1_1"}));
    EXPECT_EQ("", net->command({keyword, "1_1_1", "x"}));
  }
  EXPECT_EQ(Lines{}, newLines());
  EXPECT_EQ(0U, net->regexTableIN.size() + net->regexTableOUT.size());
}

TEST_F(RuleCommands, RulesMayBeAddedWhileTheLinkIsOpen) {
  TcpPeer peer;
  openTo(peer);
  EXPECT_EQ("OK", net->command({"regin", "1_1_1", "x", "y"}));
  EXPECT_EQ("OK", net->command({"regout", "1_1_1", "x", "y"}));
  EXPECT_EQ(1U, net->regexTableIN.size());
  EXPECT_EQ(1U, net->regexTableOUT.size());
}

TEST_F(RuleCommands, SettersAppendAndReturnZero) {
  char key[] = "1_2_3";
  char regex[] = "r";
  char output[] = "o";
  char request[] = "MM_ACTUATOR_REQUEST";
  EXPECT_EQ(0, net->setRegexTableIN(key, regex, output, request));
  EXPECT_EQ(0, net->setRegexTableOUT(key, regex, output));
  EXPECT_EQ(MM_ACTUATOR_REQUEST, net->regexTableIN.at(0).type);
  EXPECT_EQ(MM_ACTUATOR_REQUEST, net->regexTableOUT.at(0).type);
  EXPECT_EQ(Lines{}, newLines());
}

TEST_F(RuleCommands, RuleWithAnInvalidExpressionIsTakenAndReportedByTheFramework) {
  EXPECT_EQ("OK", net->command({"regin", "1_1_1", "rule commands (", "y"}));
  EXPECT_EQ(1U, net->regexTableIN.size());
  EXPECT_EQ(1U, log.count("regular expression 'rule commands (' is not valid and never matches"));
  EXPECT_EQ(1U, log.count("setRegexTableIN entry: 1_1_1 rule commands ( y MM_DATA"));
  EXPECT_EQ(0U, warnings());
}

}  // namespace
