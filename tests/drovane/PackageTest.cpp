// What an installation has, and that it works: the program, its service, and a plug-in of one's own
// that is built against it outside of this project.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <re2/re2.h>
#include <signal.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>

#include "RunningProgram.h"
#include "support/Emulation.h"

namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;
using Names = std::set<std::string>;

// A build takes longer than most programs.
Finished runLong(const Arguments& arguments, const Process::Environment& extra = {}) {
  Process process(arguments, extra);
  Finished finished;
  for (int round = 0; round < 2 && finished.status < 0; ++round)
    finished.status = process.wait().value_or(-1);
  finished.output = process.output();
  finished.errors = process.errors();
  return finished;
}

std::string contentOf(const std::string& file) {
  std::ifstream stream(DROVANE_SOURCE_DIR "/" + file);
  EXPECT_TRUE(stream) << file;
  return {std::istreambuf_iterator<char>(stream), {}};
}

Names filesBelow(const fs::path& folder) {
  Names files;
  for (const auto& entry : fs::recursive_directory_iterator(folder))
    if (!entry.is_directory()) files.insert(entry.path().lexically_relative(folder).string());
  return files;
}

// An installation below a folder of its own.
class Installed : public testing::Test {
 protected:
  void SetUp() override {
    SKIP_WHEN_EMULATED("does not run what this machine installs and compiles");
    if (std::string(DROVANE_PREFIX) == "/usr")
      GTEST_SKIP() << "what is built for /usr would put its configuration into the system's /etc";
    install({"--prefix", prefix}, {});
  }

  static void install(const Arguments& more, const Process::Environment& environment) {
    Arguments arguments = {DROVANE_CMAKE, "--install", DROVANE_BUILD};
    arguments.insert(arguments.end(), more.begin(), more.end());
    const Finished done = runToEnd(arguments, environment);
    ASSERT_EQ(done.status, 0) << done.output << done.errors;
  }

  // Starts "drovane run" and waits until it has told where the plug-in was found.
  void expectFinds(const std::string& installed, const std::string& config,
                   const std::string& plug_in, const std::string& where,
                   const Arguments& options = {}) {
    Arguments arguments = {installed, "run", config, "--control", control};
    arguments.insert(arguments.end(), options.begin(), options.end());
    running = std::make_unique<Process>(arguments);
    EXPECT_TRUE(running->waitForErrors("plug-in " + plug_in + " from " + where + '\n'))
        << running->errors();
    EXPECT_TRUE(running->waitForErrors(config + ": 1 rovik\n")) << running->errors();
  }

  void expectEnds() {
    running->signal(SIGTERM);
    EXPECT_EQ(running->wait(), 0) << running->errors();
  }

  const TempFolder folder;
  const std::string top = fs::canonical(folder.path());
  const std::string prefix = top + "/prefix";
  const std::string program = prefix + "/bin/drovane";
  const std::string control = top + "/control";
  const std::string libraries = prefix + "/" DROVANE_LIBDIR;
  std::unique_ptr<Process> running;
};

using Package = Installed;

TEST_F(Package, HasTheseFilesAndNoOthers) {
  const std::string lib = DROVANE_LIBDIR "/";
  const std::string doc = "share/doc/drovane/";
  const std::string dev = "share/doc/drovane-dev/";
  Names expected = {"bin/drovane",
                    lib + "libdrovane.so",
                    lib + "libdrovane.so.0.1",
                    lib + "libdrovane.so.0.1.0",
                    lib + "drovane/generic_net.so",
                    lib + "cmake/drovane/drovaneConfig.cmake",
                    lib + "cmake/drovane/drovaneConfigVersion.cmake",
                    lib + "cmake/drovane/plug-in.map",
                    lib + "pkgconfig/drovane.pc",
                    "lib/systemd/system/drovane.service",
                    "lib/sysusers.d/drovane.conf",
                    "etc/default/drovane",
                    "etc/drovane/house.conf.example",
                    "share/bash-completion/completions/drovane",
                    "share/man/man1/drovane.1.gz",
                    "share/man/man5/drovane.conf.5.gz"};
  for (const auto& header : fs::directory_iterator(DROVANE_SOURCE_DIR "/src"))
    if (header.path().extension() == ".h")
      expected.insert("include/drovane/" + header.path().filename().string());
  for (const char* page : {"commands", "configuration", "control-socket", "diagnosis",
                           "installation", "links", "lua", "operation", "tutorial"})
    expected.insert(doc + page + ".md");
  expected.insert(dev + "writing-a-plug-in.md");
  for (const std::string& documents : {doc, dev})
    for (const char* file : {"copyright", "changelog.gz", "changelog.Debian.gz"})
      expected.insert(documents + file);
  for (const char* file : {"house/house.conf", "house/lua/link.lua", "house/lua/thermostat.lua",
                           "projector/projector.conf", "projector/lua/projector.lua",
                           "energy_meter/energy_meter.conf", "energy_meter/lua/energy_meter.lua"})
    expected.insert(doc + "examples/" + file);
  for (const char* way : {"plug-in/", "plug-in-pkg-config/"})
    for (const char* file : {"CMakeLists.txt", "counter.cpp", "counter.conf"})
      expected.insert(dev + "examples/" + way + file);
  EXPECT_EQ(filesBelow(prefix), expected);
}

TEST_F(Package, ProgramFindsItsPlugInWhereverItIsInstalled) {
  const std::string config = folder.write("house.conf", "rovik 5 boiler generic_net\n");
  expectFinds(program, config, "generic_net", libraries + "/drovane/generic_net.so");
  expectEnds();
}

TEST_F(Package, ProgramFindsItsPlugInBelowDestdir) {
  install({}, {{"DESTDIR", top + "/root"}});
  const std::string config = folder.write("house.conf", "rovik 5 boiler generic_net\n");
  expectFinds(top + "/root" DROVANE_PREFIX "/bin/drovane", config, "generic_net",
              top + "/root" DROVANE_PREFIX "/" DROVANE_LIBDIR "/drovane/generic_net.so");
  expectEnds();
}

TEST_F(Package, ExampleConfigurationIsClean) {
  const std::string config = prefix + "/etc/drovane/house.conf.example";
  const Finished done = runToEnd({program, "check", config});
  EXPECT_EQ(done.output, config + ": ok, 1 rovik\n");
  EXPECT_EQ(done.errors, "");
  EXPECT_EQ(done.status, 0);
}

TEST_F(Package, ExampleHousesAreClean) {
  for (const std::string name : {"house", "projector", "energy_meter"}) {
    const std::string config =
        prefix + "/share/doc/drovane/examples/" + name + '/' + name + ".conf";
    const Finished done = runToEnd({program, "check", config});
    EXPECT_THAT(done.output, HasSubstr(config + ": ok, "));
    EXPECT_EQ(done.errors, "");
  }
}

TEST(PackageManual, ShowsBothWaysToBuildAPlugIn) {
  const std::string manual = contentOf("docs/writing-a-plug-in.md");
  for (const char* way : {"plug-in", "plug-in-pkg-config"})
    EXPECT_THAT(manual, HasSubstr("\n```cmake\n" +
                                  contentOf("packaging/" + std::string(way) + "/CMakeLists.txt") +
                                  "```\n"));
}

TEST_F(Package, ServiceUsesOptionsThatTheProgramHas) {
  const std::string unit = folder.read("prefix/lib/systemd/system/drovane.service");
  std::string line;
  ASSERT_TRUE(RE2::PartialMatch(unit, "\nExecStart=(.*)\n", &line));
  const std::string help = runToEnd({program, "run", "--help"}).output;
  std::string option;
  int count = 0;
  for (re2::StringPiece rest(line); RE2::FindAndConsume(&rest, " (--[a-z-]+)", &option); ++count)
    EXPECT_THAT(help, HasSubstr("  " + option + ' '));
  EXPECT_GE(count, 1);
}

// Both ways to build the example outside of this project.
class OutsidePlugIn : public Installed, public testing::WithParamInterface<const char*> {
 protected:
  void build() {
    const std::string source = prefix + "/share/doc/drovane-dev/examples/" + GetParam();
    const Process::Environment found = {{"PKG_CONFIG_PATH", libraries + "/pkgconfig"}};
    const Finished configured =
        runLong({DROVANE_CMAKE, "-S", source, "-B", built, "-DCMAKE_PREFIX_PATH=" + prefix,
                 "-DCMAKE_CXX_COMPILER=" DROVANE_COMPILER, "-DCMAKE_CXX_FLAGS=" DROVANE_FLAGS},
                found);
    ASSERT_EQ(configured.status, 0) << configured.output << configured.errors;
    const Finished compiled = runLong({DROVANE_CMAKE, "--build", built});
    ASSERT_EQ(compiled.status, 0) << compiled.output << compiled.errors;
  }

  const std::string built = top + "/built";
  const std::string config = prefix + "/share/doc/drovane-dev/examples/plug-in/counter.conf";
};

TEST_P(OutsidePlugIn, IsBuiltAgainstTheInstallationAndRunsInIt) {
  ASSERT_NO_FATAL_FAILURE(build());
  expectFinds(program, config, "counter", built + "/counter.so", {"--plugins", built});
  const Process::Environment house = {{"DROVANE_CONTROL", control}};
  for (const char* value : {"21.3", "21.4"}) {
    const Finished sent =
        runToEnd({program, "send", "5_1_0", "float", value, "--to", "counter"}, house);
    EXPECT_EQ(sent.status, 0) << sent.errors;
  }
  const Finished got = runToEnd({program, "get", "9_0_0", "int", "--to", "counter"}, house);
  EXPECT_EQ(got.output, "2\n") << got.errors;
  expectEnds();
}

TEST_P(OutsidePlugIn, IsNotLinkedWithTheFramework) {
  ASSERT_NO_FATAL_FAILURE(build());
  const Finished headers = runToEnd({"objdump", "-p", built + "/counter.so"});
  EXPECT_EQ(headers.status, 0) << headers.errors;
  EXPECT_THAT(headers.output, HasSubstr("NEEDED"));
  EXPECT_THAT(headers.output, testing::Not(HasSubstr("libdrovane")));
  EXPECT_THAT(headers.output, testing::Not(HasSubstr("libcjson")));
}

INSTANTIATE_TEST_SUITE_P(Package, OutsidePlugIn, testing::Values("plug-in", "plug-in-pkg-config"),
                         [](const auto& each) {
                           return std::string(each.param) == "plug-in" ? "ByItsCMakePackage"
                                                                       : "ByPkgConfig";
                         });

TEST_F(Package, PlugInOfItsCMakePackageExportsItsMakerAlone) {
  const std::string map = libraries + "/cmake/drovane/plug-in.map";
  const std::string source = folder.write("one.cpp",
                                          "extern \"C\" int maker() { return 0; }\n"
                                          "extern \"C\" int other() { return 0; }\n");
  folder.write("CMakeLists.txt",
               "cmake_minimum_required(VERSION 3.25)\n"
               "project(one LANGUAGES CXX)\n"
               "find_package(drovane REQUIRED)\n"
               "drovane_add_plugin(one one.cpp)\n");
  const std::string built = top + "/one";
  for (const Arguments& step :
       {Arguments{DROVANE_CMAKE, "-S", top, "-B", built, "-DCMAKE_PREFIX_PATH=" + prefix,
                  "-DCMAKE_CXX_COMPILER=" DROVANE_COMPILER},
        Arguments{DROVANE_CMAKE, "--build", built}}) {
    const Finished done = runLong(step);
    ASSERT_EQ(done.status, 0) << done.output << done.errors;
  }
  const Finished names =
      runToEnd({"nm", "-D", "--defined-only", "-f", "just-symbols", built + "/one.so"});
  EXPECT_EQ(names.output, "maker\n") << names.errors;
}

// The unit as it is installed, but with the program where this installation has it.
class Service : public Installed {
 protected:
  void SetUp() override {
    Installed::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    if (runToEnd({"sh", "-c", "command -v systemd-analyze"}).status != 0)
      GTEST_SKIP() << "there is no systemd-analyze on this machine";
    std::string text = folder.read("prefix/lib/systemd/system/drovane.service");
    ASSERT_TRUE(RE2::Replace(&text, "ExecStart=" DROVANE_PREFIX "/bin/drovane ",
                             "ExecStart=" + program + ' '));
    unit = folder.write("drovane.service", text);
    ASSERT_EQ(::chmod(unit.c_str(), 0644), 0);  // whatever the mask is
  }

  std::string unit;
};

TEST_F(Service, IsAUnitThatSystemdUnderstands) {
  const Finished done = runToEnd({"systemd-analyze", "verify", "--man=no", unit});
  EXPECT_EQ(done.output + done.errors, "");
  EXPECT_EQ(done.status, 0);
}

// docs/installation.md names the figure of Debian 12; another version of systemd may see less.
TEST_F(Service, IsAsWellSecuredAsTheManualSays) {
  const std::string manual = contentOf("docs/installation.md");
  std::string figure;
  ASSERT_TRUE(RE2::PartialMatch(
      manual, R"(Overall exposure level for drovane\.service: ([0-9.]+) )", &figure));
  figure.erase(figure.find('.'), 1);  // in tenths
  const Finished done = runToEnd({"systemd-analyze", "security", "--offline=true", "--no-pager",
                                  "--threshold=" + figure, unit});
  EXPECT_EQ(done.status, 0) << done.output << done.errors;
  EXPECT_THAT(done.output, HasSubstr("Overall exposure level for drovane.service: "));
}

}  // namespace
