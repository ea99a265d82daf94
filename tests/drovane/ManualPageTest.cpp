// Holds the manual pages and the completion of bash against what the program says about itself.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <re2/re2.h>

#include <fstream>
#include <iterator>
#include <map>
#include <set>
#include <sstream>

#include "NamesFound.h"
#include "RunningProgram.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::UnorderedElementsAre;
using OptionsOf = std::map<std::string, Names>;  // by subcommand

std::string contentOf(const std::string& file) {
  std::ifstream stream(DROVANE_SOURCE_DIR "/" + file);
  EXPECT_TRUE(stream) << file;
  return {std::istreambuf_iterator<char>(stream), {}};
}

// --help is everywhere and needs no word in the pages.
OptionsOf optionsOfTheProgram() {
  const Program program;
  OptionsOf options;
  const std::string help = program.ask({"--help"}).output;
  for (const auto& name :
       foundIn(help.substr(help.find("\nSubcommands:")), "^  ([a-z][a-z-]*)( |$)")) {
    options[name] = foundIn(program.ask({name, "--help"}).output, "^ +(?:-[a-z],)?(--[a-z-]+)");
    EXPECT_EQ(options[name].erase("--help"), 1U) << name;
  }
  EXPECT_GE(options.size(), 7U);
  return options;
}

// The sections of the subcommands begin with .SS, their options stand under .TP.
OptionsOf optionsOfThePage() {
  std::string page = contentOf("packaging/drovane.1");
  page = page.substr(page.find("\n.SH SUBCOMMANDS\n"));
  std::istringstream lines(page.substr(0, page.find("\n.SH ", 1)));
  OptionsOf options;
  std::string name;
  for (std::string line; std::getline(lines, line);) {
    RE2::GlobalReplace(&line, R"(\\-)", "-");
    std::string option;
    if (RE2::PartialMatch(line, "^\\.SS ([a-z-]+)", &name)) options[name];
    if (RE2::PartialMatch(line, "^\\.BI?R? (--[a-z-]+)", &option)) options[name].insert(option);
  }
  return options;
}

// What bash would offer for the last of these words.
std::vector<std::string> completed(Arguments words, const Process::Environment& extra = {}) {
  Arguments line = {"bash",
                    "--norc",
                    "-c",
                    "source " DROVANE_SOURCE_DIR
                    "/packaging/drovane.bash\n"
                    "COMP_WORDS=(\"$@\") COMP_CWORD=$(($# - 1))\n"
                    "_drovane\n"
                    "for each in \"${COMPREPLY[@]}\"; do echo \"$each\"; done",
                    "bash",
                    DROVANE_PROGRAM};
  line.insert(line.end(), words.begin(), words.end());
  const Finished done = runToEnd(line, extra);
  EXPECT_EQ(done.errors, "");
  std::istringstream lines(done.output);
  std::vector<std::string> offers;
  for (std::string offer; std::getline(lines, offer);) offers.push_back(offer);
  return offers;
}

Names completedNames(const Arguments& words) {
  const auto offers = completed(words);
  return {offers.begin(), offers.end()};
}

TEST(ManualPage, HasEverySubcommandAndOptionOfTheProgramAndNoOther) {
  EXPECT_EQ(optionsOfThePage(), optionsOfTheProgram());
}

TEST(ManualPage, NamesEveryCommandOfGenericNet) {
  const std::string page = contentOf("packaging/drovane.conf.5");
  Names expected = foundIn(contentOf("docs/commands.md"), "^### [0-9]+\\. `([a-z_]+)`");
  EXPECT_GE(expected.size(), 29U);
  expected.merge(foundIn(contentOf("docs/lua.md"), "^\\| `(lua[a-z]+)"));
  const std::size_t begin = page.find("\n.SS Commands of generic_net\n");
  EXPECT_EQ(foundIn(page.substr(begin, page.find("\n.SH", begin) - begin),
                    "^\\.T[PQ]\n\\.B[IR]? \"?([a-z_]+)"),
            expected);
}

TEST(ManualPage, ExampleOfTheConfigurationIsClean) {
  std::string page = contentOf("packaging/drovane.conf.5");
  page = page.substr(page.find("\n.EX\n") + 5);
  std::string config = page.substr(0, page.find("\n.EE\n"));
  RE2::GlobalReplace(&config, R"(\\\(aq)", "'");
  RE2::GlobalReplace(&config, R"(\\e)", R"(\\)");
  const Program program;
  const Finished done = program.check(config);
  EXPECT_EQ(done.output, program.file() + ": ok, 1 rovik\n") << config;
  EXPECT_EQ(done.errors, "");
}

TEST(ManualPage, IsSetWithoutAWarning) {
  if (runToEnd({"sh", "-c", "command -v man"}).status != 0)
    GTEST_SKIP() << "there is no man on this machine";
  for (const char* page : {"drovane.1", "drovane.conf.5"}) {
    const Finished done =
        runToEnd({"man", "--warnings", "-l", DROVANE_SOURCE_DIR "/packaging/" + std::string(page)},
                 {{"LC_ALL", "C.UTF-8"}, {"MANWIDTH", "80"}, {"PAGER", "cat"}});
    EXPECT_EQ(done.status, 0);
    EXPECT_EQ(done.errors, "");
    EXPECT_THAT(done.output, HasSubstr("DESCRIPTION"));
  }
}

TEST(Completion, OffersEverySubcommandAndNoOther) {
  Names expected = {"--help", "--version"};
  for (const auto& [name, options] : optionsOfTheProgram()) expected.insert(name);
  EXPECT_EQ(completedNames({""}), expected);
}

TEST(Completion, OffersTheOptionsOfEachSubcommandAndNoOther) {
  for (auto [name, options] : optionsOfTheProgram()) {
    options.insert("--help");
    EXPECT_EQ(completedNames({name, "-"}), options) << name;
  }
}

TEST(Completion, OffersFilesWhereAFileIsWanted) {
  const TempFolder folder;
  const std::string file = folder.write("house.conf", "");
  EXPECT_THAT(completed({"run", folder / "hou"}), ElementsAre(file));
  EXPECT_THAT(completed({"run", "--strict", folder / "hou"}), ElementsAre(file));
  EXPECT_THAT(completed({"run", file, "--log-file", folder / "hou"}), ElementsAre(file));
  EXPECT_THAT(completed({"run", file, folder / "hou"}), IsEmpty());
  EXPECT_THAT(completed({"run", file, "--plugins", folder / "hou"}), IsEmpty());
}

TEST(Completion, OffersTheRoviksOfTheRunningHouse) {
  Program program;
  program.startReady(houseWith("rovik 7 bell echo\n"));
  const Process::Environment house = {{"DROVANE_CONTROL", program.control}};
  EXPECT_THAT(completed({"cmd", "b"}, house), UnorderedElementsAre("boiler", "bell"));
  EXPECT_THAT(completed({"get", "5_1_0", "int", "--to", "o"}, house), ElementsAre("other"));
  EXPECT_THAT(completed({"cmd", "--control", program.control, "o"}), ElementsAre("other"));
  EXPECT_THAT(completed({"cmd", "--control", "/nowhere", "o"}), IsEmpty());
}

TEST(Completion, OffersTheRoviksOfTheConfigurationThatIsTried) {
  const TempFolder folder;
  const std::string file = folder.write("house.conf", houseWith("rovik 7 bell echo\n"));
  EXPECT_THAT(completed({"try", file, "b"}), UnorderedElementsAre("boiler", "bell"));
  EXPECT_THAT(completed({"try", "--for", "3", file, "o"}), ElementsAre("other"));
}

TEST(Completion, OffersTheValuesOfAnOption) {
  EXPECT_THAT(completed({"run", "--log-level", ""}), ElementsAre("2", "3", "4"));
  EXPECT_THAT(completed({"send", "5_1_0", "s"}), ElementsAre("string"));
  EXPECT_THAT(completed({"watch", "--kind", "data"}), ElementsAre("data", "data-request"));
}

}  // namespace
