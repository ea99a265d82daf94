// The program on a machine whose wall clock has passed the year 2038, in which the seconds since
// 1970 outgrow a signed number of 32 bits. Where a time_t has 64 bits all goes on. Where it has 32
// the system no longer tells the time: for the program it stands still at the last moment before,
// and all else goes on.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <future>
#include <limits>
#include <sstream>

#include "RunningProgram.h"
#include "support/Eventually.h"
#include "support/OtherHost.h"
#include "support/PeerTls.h"
#include "support/ShiftedClock.h"

namespace {

using testing::HasSubstr;
using testing::StartsWith;

constexpr bool kGoesOn = sizeof(time_t) >= 8;
constexpr std::int64_t kIn2040 = 2'220'000'000;  // 2040-05-07T14:40:00 UTC
constexpr std::int64_t kLastSecondOf32Bits = std::numeric_limits<std::int32_t>::max();
constexpr std::int64_t kTestsLast = 3600;  // seconds, at most

// How every time of day begins that is written down in 2040.
const std::string kDate = kGoesOn ? "2040-05-07T1" : "2038-01-19T03:14:07.";

std::int64_t shiftTo(std::int64_t moment) { return moment - std::time(nullptr); }

// Programs that are started meanwhile have the clock, and live in Greenwich.
class ClockOfChildren {
 public:
  explicit ClockOfChildren(std::int64_t moment)
      : clock(shiftTo(moment)), environment(clock.environment({{"TZ", "UTC0"}})) {
    for (const auto& [name, value] : environment)
      EXPECT_EQ(::setenv(name.c_str(), value.c_str(), 1), 0);
  }
  ~ClockOfChildren() {
    for (const auto& [name, value] : environment) ::unsetenv(name.c_str());
  }
  ClockOfChildren(const ClockOfChildren&) = delete;
  ClockOfChildren& operator=(const ClockOfChildren&) = delete;

  void jumpTo(std::int64_t moment) const { clock.set(shiftTo(moment)); }

 private:
  const ShiftedClock clock;
  const Process::Environment environment;
};

class YearsAhead : public testing::Test {
 protected:
  // A house of one rovik with this script.
  std::string houseWithScript(const std::string& text) const {
    std::filesystem::create_directories(program.folder / "lua");
    program.folder.write("lua/net.lua", "function ROVIK_INIT(me) m_p = me end\n" + text);
    return "log level 4\nrovik 5 net generic_net\n  luafile net.lua\n  luaopen\n";
  }

  // A number in the line that the watcher prints about the message with this text.
  static double number(Process& watcher, const std::string& text, const char* field) {
    EXPECT_TRUE(watcher.waitForOutput(text));
    EXPECT_TRUE(eventually([&] { return watcher.output().ends_with("}\n"); }));
    const std::string& printed = watcher.output();
    const std::size_t begin = printed.rfind('\n', printed.find(text)) + 1;
    const drovane::Json line(cJSON_Parse(printed.c_str() + begin));
    return cJSON_GetNumberValue(cJSON_GetObjectItemCaseSensitive(line.get(), field));
  }

  // The time stamp of the value that "boiler" sends now.
  double stamp(Process& watcher, const std::string& text) const {
    program.ask({"cmd", "boiler", "tell", text});
    return number(watcher, '"' + text + '"', "tv_sec");
  }

  static void expectStamp(double stamp, std::int64_t moment) {
    if (kGoesOn || moment <= kLastSecondOf32Bits) {
      EXPECT_GE(stamp, static_cast<double>(moment));
      EXPECT_LT(stamp, static_cast<double>(moment + kTestsLast));
    } else {
      EXPECT_EQ(stamp, static_cast<double>(kLastSecondOf32Bits));
    }
  }

  ClockOfChildren clock{kIn2040};
  Program program;
};

TEST_F(YearsAhead, LogLinesTellTheTime) {
  program.startReady(houseWith());
  program.ask({"cmd", "boiler", "log", "hello"});
  ASSERT_TRUE(program.running().waitForErrors("hello\n"));
  std::istringstream lines(program.running().errors());
  for (std::string line; std::getline(lines, line);) EXPECT_THAT(line, StartsWith(kDate));
}

TEST_F(YearsAhead, MessagesCarryTheTime) {
  program.startReady(houseWith());
  const auto watcher = program.watch({"--json"});
  expectStamp(stamp(*watcher, "warm"), kIn2040);
  EXPECT_THAT(watcher->output(), HasSubstr("\"time\":\"" + kDate));
}

TEST_F(YearsAhead, WarningsHaveTheTime) {
  program.startReady(houseWith("  warn careful\n"));
  const drovane::Json row = program.statusOf(6);
  const cJSON* time = cJSON_GetObjectItemCaseSensitive(row.get(), "warning_time");
  ASSERT_TRUE(cJSON_IsString(time));
  EXPECT_THAT(time->valuestring, StartsWith(kDate));
}

// The interpreter's own os.time and os.date are as good as the C library.
TEST_F(YearsAhead, ScriptsAreToldTheTime) {
  program.startReady(
      houseWithScript("function now() return string.format('%.0f %s %s', gettimeofday().sec / 1e6, "
                      "tostring(os.time() and true), os.date('!%Y')) end"));
  EXPECT_EQ(program.ask({"cmd", "net", "now"}).output,
            kGoesOn ? "2220 true 2040\n" : "2147 nil 1969\n");
}

TEST_F(YearsAhead, ARequestForRecordedValuesEndsNow) {
  program.startReady(houseWithScript(
      "function ask() sndMM({type='MM_DATA_REQUEST', key='5_1_0', value_type='int', req_op=1}, "
      "'BC') end"));
  const auto watcher = program.watch({"--json"});
  program.ask({"cmd", "net", "ask"});
  const double end = number(*watcher, "\"to_tv_sec\"", "to_tv_sec");
  expectStamp(end, kIn2040);
  EXPECT_EQ(number(*watcher, "\"to_tv_sec\"", "from_tv_sec"), end - 86400);
}

TEST_F(YearsAhead, TimersExpire) {
  program.startReady(houseWithScript(
      "n = 0 function ROVIK_PERIODIC() n = n + 1 print('expired ' .. n) return 10000 end\n"
      "function ROVIK_RCV() return 0 end"));
  program.ask({"send", "5_1_0", "int", "1"});  // arms it
  EXPECT_TRUE(program.running().waitForErrors("LUA: expired 5"));
  program.expectEndsInTime();
}

TEST_F(YearsAhead, RequestsAreAnswered) {
  program.startReady(houseWith());
  EXPECT_EQ(program.ask({"get", "5_1_0", "float", "--to", "other"}).output, "21.5\n");
}

// The last second that 32 bits can count passes while the program runs.
TEST_F(YearsAhead, TheLastMomentOf32BitsDisturbsNothing) {
  clock.jumpTo(kLastSecondOf32Bits - kTestsLast);
  program.startReady(houseWith());
  const auto watcher = program.watch({"--json"});
  expectStamp(stamp(*watcher, "before"), kLastSecondOf32Bits - kTestsLast);
  clock.jumpTo(kLastSecondOf32Bits + 1);
  expectStamp(stamp(*watcher, "after"), kLastSecondOf32Bits + 1);
  program.ask({"cmd", "boiler", "log", "hello"});
  EXPECT_TRUE(program.running().waitForErrors(" boiler hello\n"));
  program.expectEndsInTime();
}

// A certificate that ended in the meantime. Without a time it has not even begun.
TEST_F(YearsAhead, CertificatesAreHeldAgainstTheTime) {
  const std::string refusal = OwnNetwork::refusal();
  if (!refusal.empty()) GTEST_SKIP() << refusal;
  const Certificate ca = authority("Home Authority");
  CertificateWish wish;
  wish.issuer = &ca;
  TlsPeer peer(makeCertificate(wish));
  const std::string trusted = program.folder.write("trusted", ca.pem());
  program.folder.write(
      "house.conf", "log level 4\nrovik 5 net generic_net\n  mode ssl\n  host 127.0.0.1\n  port " +
                        std::to_string(peer.port()) + "\n  open\n");
  auto taken = std::async(std::launch::async, [&] { return peer.accept(); });
  Process run({"unshare", "--mount", "sh", "-c",
               "mount -t tmpfs none /etc/ssl/certs && cp \"$1\" /etc/ssl/certs/\"$2\" && shift 2 "
               "&& exec \"$@\"",
               "-", trusted, ca.trustFileName(), DROVANE_PROGRAM, "run", program.file(),
               "--control", program.control});
  EXPECT_TRUE(run.waitForErrors("Verify failed: "));
  EXPECT_TRUE(run.waitForErrors(kGoesOn ? "Verify failed: certificate has expired\n"
                                        : "Verify failed: certificate is not yet valid\n"))
      << run.errors();
  EXPECT_TRUE(taken.get());
  run.signal(SIGTERM);
  EXPECT_EQ(run.wait(), 0);
}

}  // namespace
