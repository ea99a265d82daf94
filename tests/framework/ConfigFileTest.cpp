// The configuration file: what it says, and every way in which it cannot be used.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>

#include "framework/ConfigFile.h"
#include "support/TempFolder.h"

namespace {

using drovane::ConfigError;
using drovane::ConfigFile;
using testing::ElementsAre;
using testing::HasSubstr;

class ConfigFileTest : public testing::Test {
 protected:
  ConfigFile read(const std::string& text) {
    return ConfigFile::read(folder.write("house.conf", text));
  }

  // The error without the folder: "house.conf:LINE: ...".
  std::string error(const std::string& text) { return errorOf(folder.write("house.conf", text)); }

  std::string errorOf(const std::string& path) {
    try {
      ConfigFile::read(path);
    } catch (const ConfigError& error) {
      return std::string(error.what()).substr(folder.path().size() + 1);
    }
    return "no error";
  }

  const TempFolder folder;
};

TEST_F(ConfigFileTest, ReadsDirectivesAndBlocks) {
  const ConfigFile file = read(
      "# a house\n"
      "root lua\n"
      "log level 4\n"
      "\n"
      "rovik 5 boiler generic_net  # the first\n"
      "  regin 5_1_0 '^T=(.*)$' '\\1'\n"
      "rovik 16000 b_2.-x other\n");
  EXPECT_EQ(file.root, "lua");
  EXPECT_EQ(file.log_level, 4);
  ASSERT_EQ(file.roviks.size(), 2U);
  EXPECT_EQ(file.roviks[0].line, 5);
  EXPECT_EQ(file.roviks[0].id, 5);
  EXPECT_EQ(file.roviks[0].name, "boiler");
  EXPECT_EQ(file.roviks[0].plug_in, "generic_net");
  ASSERT_EQ(file.roviks[0].commands.size(), 1U);
  EXPECT_EQ(file.roviks[0].commands[0].line, 6);
  EXPECT_THAT(file.roviks[0].commands[0].words, ElementsAre("regin", "5_1_0", "^T=(.*)$", "\\1"));
  EXPECT_EQ(file.roviks[1].id, 16000);
  EXPECT_EQ(file.roviks[1].name, "b_2.-x");
}

TEST_F(ConfigFileTest, AcceptsCarriageReturnLineEnds) {
  const ConfigFile file = read("rovik 5 boiler echo\r\n  say a\r\n");
  EXPECT_EQ(file.roviks[0].plug_in, "echo");
  EXPECT_THAT(file.roviks[0].commands[0].words, ElementsAre("say", "a"));
}

TEST_F(ConfigFileTest, NeedsNoEndOfTheLastLine) {
  EXPECT_EQ(read("rovik 5 boiler echo").roviks[0].plug_in, "echo");
}

TEST_F(ConfigFileTest, TakesLogWithoutLevelInABlockForACommand) {
  EXPECT_THAT(read("rovik 5 a b\n log hello\n").roviks[0].commands[0].words,
              ElementsAre("log", "hello"));
}

TEST_F(ConfigFileTest, RootIsSeenFromTheFilesFolder) {
  EXPECT_EQ(read("root sub/..\nrovik 5 a b\n").rootFolder(), folder.path());
  EXPECT_EQ(read("rovik 5 a b\n").rootFolder(), folder.path());
  EXPECT_EQ(read("root /etc\nrovik 5 a b\n").rootFolder(), "/etc");
}

struct BadConfig {
  const char* what;
  const char* text;
  const char* error;
};

class BadConfigTest : public ConfigFileTest, public testing::WithParamInterface<BadConfig> {};

TEST_P(BadConfigTest, IsRefusedWithItsLine) { EXPECT_EQ(error(GetParam().text), GetParam().error); }

INSTANTIATE_TEST_SUITE_P(
    Every, BadConfigTest,
    testing::Values(
        BadConfig{"UnknownDirective", "\nroot .\nfoo bar\n",
                  "house.conf:3: unknown directive 'foo'; expected 'root DIR', 'log level 2|3|4' "
                  "or 'rovik ID NAME PLUG-IN'"},
        BadConfig{"WordMissing", "rovik 5 boiler\n",
                  "house.conf:1: a word is missing after 'rovik'; expected 'rovik ID NAME "
                  "PLUG-IN'"},
        BadConfig{"WordTooMany", "rovik 5 boiler echo twice\n",
                  "house.conf:1: there is a word too many, 'twice'; expected 'rovik ID NAME "
                  "PLUG-IN'"},
        BadConfig{"RootWithoutFolder", "root\n",
                  "house.conf:1: a word is missing after 'root'; expected 'root DIR'"},
        BadConfig{"EmptyRoot", "root ''\n",
                  "house.conf:1: the root is empty; expected a folder, '.' for the file's own"},
        BadConfig{"RootTwice", "root .\nroot .\n",
                  "house.conf:2: 'root' was already given in line 1; expected it once"},
        BadConfig{"LogLevel", "log level 5\n",
                  "house.conf:1: unknown log level '5'; expected 2 (errors), 3 (events too) or 4 "
                  "(everything)"},
        BadConfig{"IdZero", "rovik 0 boiler echo\n",
                  "house.conf:1: id '0' is out of range; expected a number from 1 to 16000"},
        BadConfig{"IdTooHigh", "rovik 16001 boiler echo\n",
                  "house.conf:1: id '16001' is out of range; expected a number from 1 to 16000"},
        BadConfig{"IdNoNumber", "rovik x5 boiler echo\n",
                  "house.conf:1: id 'x5' is out of range; expected a number from 1 to 16000"},
        BadConfig{"IdTwice", "rovik 5 boiler echo\n\nrovik 5 other echo\n",
                  "house.conf:3: id 5 is already taken in line 1; expected another id"},
        BadConfig{"NameTwice", "rovik 5 boiler echo\nrovik 6 boiler echo\n",
                  "house.conf:2: name 'boiler' is already taken in line 1; expected another name"},
        BadConfig{"NameOfDigits", "rovik 5 55 echo\n",
                  "house.conf:1: name '55' cannot be a rovik's name; expected 1 to 64 letters, "
                  "digits, '_', '.' or '-', not digits alone"},
        BadConfig{"NameWithControlByte", "rovik 5 a\x1b[1m echo\n",
                  "house.conf:1: name 'a\\x1b[1m' cannot be a rovik's name; expected 1 to 64 "
                  "letters, digits, '_', '.' or '-', not digits alone"},
        BadConfig{"NameOfTheCommandLine", "rovik 5 cli echo\n",
                  "house.conf:1: name 'cli' is the command line's own; expected another name"},
        BadConfig{"PlugInWithFolder", "rovik 5 a ../echo\n",
                  "house.conf:1: plug-in '../echo' cannot be a plug-in's name; expected letters, "
                  "digits, '_', '.' and '-', without a folder and without .so"},
        BadConfig{"DirectiveAfterRovik", "\nrovik 5 a echo\nroot .\n",
                  "house.conf:3: 'root' stands after the first rovik; expected it before line 2"},
        BadConfig{"NoRovik", "root .\n\n",
                  "house.conf:2: there is no rovik; expected 'rovik ID NAME PLUG-IN'"},
        BadConfig{"Empty", "", "house.conf:1: there is no rovik; expected 'rovik ID NAME PLUG-IN'"},
        BadConfig{"UnclosedQuote", "rovik 5 a echo\n say 'b\n",
                  "house.conf:2: quote is not closed: 'b; expected a second ' or \" of the same "
                  "kind in the same line"},
        BadConfig{"UnclosedQuoteWithControlByte", "rovik 5 a echo\n say 'b\x1b[1m\n",
                  "house.conf:2: quote is not closed: 'b\\x1b[1m; expected a second ' or \" of the "
                  "same kind in the same line"}),
    [](const auto& each) { return each.param.what; });

TEST_F(ConfigFileTest, RefusesANameOf65Characters) {
  EXPECT_THAT(error("rovik 5 " + std::string(65, 'n') + " echo\n"),
              HasSubstr(":1: name 'nnnnnnnnnn"));
  EXPECT_EQ(read("rovik 5 " + std::string(64, 'n') + " echo\n").roviks.size(), 1U);
}

TEST_F(ConfigFileTest, RefusesAZeroByte) {
  EXPECT_EQ(error(std::string("rovik 5 a echo\n say \0x\n", 23)),
            "house.conf:2: the line holds a zero byte; expected text");
}

TEST_F(ConfigFileTest, RefusesALineLongerThan65536Bytes) {
  EXPECT_EQ(error("rovik 5 a echo\n" + std::string(1'000'000, 'x') + "\n"),
            "house.conf:2: the line has 1000000 bytes; expected at most 65536");
  EXPECT_EQ(read("rovik 5 a echo\n" + std::string(65'536, 'x') + "\n").roviks.size(), 1U);
}

TEST_F(ConfigFileTest, RefusesAFileThatIsTooLong) {
  EXPECT_EQ(error(std::string(ConfigFile::kLargestFile + 1, '\n')),
            "house.conf:1: the file is too long; expected at most 16 MiB");
}

TEST_F(ConfigFileTest, RefusesAFileThatIsNotThere) {
  EXPECT_EQ(errorOf(folder / "none.conf"),
            "none.conf:1: the file cannot be opened: No such file or directory; expected a "
            "configuration file that can be read");
}

TEST_F(ConfigFileTest, RefusesAFolder) {
  ASSERT_EQ(::mkdir((folder / "sub").c_str(), 0700), 0);
  EXPECT_EQ(errorOf(folder / "sub"), "sub:1: this is a folder; expected a configuration file");
}

TEST_F(ConfigFileTest, RefusesANamedPipeWithoutWaitingForItsWriter) {
  ASSERT_EQ(::mkfifo((folder / "pipe").c_str(), 0600), 0);
  EXPECT_EQ(errorOf(folder / "pipe"),
            "pipe:1: this is no regular file; expected a configuration file");
}

}  // namespace
