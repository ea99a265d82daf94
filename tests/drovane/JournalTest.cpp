// The log in the journal. The program sees a journal of the test's own, in a file system of its own
// (a mount namespace).
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <filesystem>
#include <set>
#include <sstream>

#include "FaultyHouse.h"
#include "support/Emulation.h"
#include "support/Eventually.h"
#include "support/UnixDatagrams.h"

namespace {

using testing::HasSubstr;

// The fields of an entry that hold no line end, as they are sent.
std::set<std::string> fieldsOf(const std::string& entry) {
  std::set<std::string> fields;
  std::istringstream lines(entry);
  for (std::string line; std::getline(lines, line);) fields.insert(line);
  return fields;
}

class Journal : public testing::Test {
 protected:
  // Whether the program is up, with the socket at `there` as the journal's; else why not.
  std::string start(const std::string& config, const std::string& there,
                    const Arguments& options = {}) {
    Arguments all = {"--log-journal"};
    all.insert(all.end(), options.begin(), options.end());
    house.start(config, all, {},
                {"unshare", "--user", "--map-root-user", "--mount", "sh", "-c",
                 "mount -t tmpfs none /run && mkdir -p /run/systemd/journal && " + there +
                     " && exec \"$0\" \"$@\""});
    const bool up = eventually([&] {
      return house.command("other", {"say", "alive"}) == "alive\n" || refused() || over();
    });
    return up && !refused() && !over() ? "" : house.running().errors();
  }
  std::string bound() const {
    return "touch /run/systemd/journal/socket && mount --bind '" + socket +
           "' /run/systemd/journal/socket";
  }
  // A user may not have a file system of his own.
  bool refused() { return house.running().errors().find("ermi") != std::string::npos; }
  bool over() { return house.running().errors().find("unshare:") != std::string::npos; }

  FaultyHouse house;
  const std::string socket = house.program.folder / "journal";
  UnixDatagrams journal{socket};
};

#define START(config, there, ...)                                                 \
  const std::string trouble = start(config, there __VA_OPT__(, ) __VA_ARGS__);    \
  if (refused()) GTEST_SKIP() << "no file system of one's own here: " << trouble; \
  ASSERT_EQ(trouble, "")

TEST_F(Journal, GetsEachLineWithItsRovikInFieldsOfTheirOwn) {
  START(houseWith("  fail\n"), bound());
  EXPECT_EQ(house.command("boiler", {"log", "it is warm"}), "OK\n");
  ASSERT_TRUE(journal.waitFor("MESSAGE=it is warm\n"));
  EXPECT_EQ(fieldsOf(journal.all().back()),
            (std::set<std::string>{"PRIORITY=6", "MESSAGE=it is warm", "SYSLOG_IDENTIFIER=drovane",
                                   "DROVANE_ROVIK=boiler", "DROVANE_ID=5"}));
  ASSERT_TRUE(journal.waitFor("'fail' was answered with ERROR (FAILED)\n"));
  EXPECT_EQ(journal.count("PRIORITY=3\n"), 1U);
  EXPECT_GE(journal.count("DROVANE_ROVIK=drovane\nDROVANE_ID=0\n"), 3U);
  house.expectEndsInTime();
  EXPECT_TRUE(journal.waitFor("MESSAGE=rovik 6 other: stopped\n"));
  EXPECT_EQ(house.running().errors(), "");
}

TEST_F(Journal, GetsTheDetailsOfLevel4AtTheirPriority) {
  house.script("net",
               "function ROVIK_INIT(me) m_p = me end\n"
               "function lose() sndDATA('8_1_0', 'string', 'x', 'nobody') return 'OK' end\n");
  START("log level 4\n" + houseWith("rovik 7 net generic_net\n  luafile net.lua\n  luaopen\n"),
        bound());
  EXPECT_EQ(house.command("net", {"lose"}), "OK\n");
  ASSERT_TRUE(journal.waitFor("MESSAGE=nobody to receive "));
  EXPECT_THAT(journal.all().back(), HasSubstr("PRIORITY=7\n"));
  house.expectEndsInTime();
}

TEST_F(Journal, GetsALineThatIsTooLargeForADatagram) {
  SKIP_WHEN_EMULATED("loses what is too large for a datagram, and reports no error");
  START(houseWith(), bound());
  EXPECT_EQ(house.command("boiler", {"longlog", "9000000"}), "OK\n");
  const std::string text(9'000'000, 'x');
  EXPECT_TRUE(journal.waitFor("MESSAGE=" + text + "\n")) << house.running().errors();
  house.expectEndsInTime();
}

TEST_F(Journal, ThatIsNotThereIsSaidOnceAndTheLogGoesToStandardError) {
  START(houseWith(), "true");
  EXPECT_EQ(house.command("boiler", {"log", "it is warm"}), "OK\n");
  EXPECT_TRUE(house.running().waitForErrors(" 3 5 boiler it is warm\n"));
  house.expectEndsInTime();
  const std::string& said = house.running().errors();
  const std::string line =
      "drovane: the journal cannot be reached: /run/systemd/journal/socket: No such file or "
      "directory; the log goes to standard error\n";
  EXPECT_THAT(said, HasSubstr(line));
  EXPECT_EQ(said.find(line), said.rfind(line));
}

TEST_F(Journal, WithoutItsLibraryIsSaidAndTheLogGoesToStandardError) {
  START(houseWith(),
        bound() + " && export LD_LIBRARY_PATH='" + house.folderWithBroken("libsystemd.so.0") + "'");
  EXPECT_EQ(house.command("boiler", {"log", "it is warm"}), "OK\n");
  EXPECT_TRUE(house.running().waitForErrors(" 3 5 boiler it is warm\n"));
  house.expectEndsInTime();
  EXPECT_THAT(
      house.running().errors(),
      AllOf(HasSubstr("drovane: the journal cannot be reached: the library of systemd cannot "
                      "be loaded: "),
            HasSubstr("; the log goes to standard error\n")));
}

// Its socket is there, and nobody listens any more.
TEST_F(Journal, ThatEndsIsSaidAndTheHouseGoesOn) {
  START(houseWith(), bound());
  journal.close();
  EXPECT_EQ(house.command("boiler", {"log", "it is warm"}), "OK\n");
  EXPECT_TRUE(house.running().waitForErrors(
      "drovane: the log cannot be written: journal: Connection refused\n"));
  EXPECT_EQ(house.command("boiler", {"say", "alive"}), "alive\n");
  house.expectEndsInTime();
}

TEST_F(Journal, AndALogFileAreNotWrittenAtOnce) {
  const Finished done =
      house.program.runToItsEnd(houseWith(), {"--log-journal", "--log-file", "log"});
  EXPECT_EQ(done.status, 2);
  EXPECT_THAT(done.errors, HasSubstr("--log-file excludes --log-journal"));
}

}  // namespace
