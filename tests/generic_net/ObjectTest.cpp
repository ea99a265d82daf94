// The object itself: its defaults, its life, its description, its factory.
#include <dlfcn.h>
#include <fcntl.h>

#include "Drovane.h"
#include "NetTest.h"
#include "framework/Identity.h"
#include "framework/RovikHost.h"

namespace {

using Object = NetTest;

TEST_F(Object, NewOneHasTheBaseMembersOfItsKind) {
  EXPECT_EQ(-1, net->fd);
  EXPECT_EQ(MT_NETWORK_GENERIC, net->type);
  EXPECT_EQ(1, net->type);
  EXPECT_EQ(30, net->period.tv_sec);
  EXPECT_EQ(0, net->period.tv_usec);
  EXPECT_EQ(5, net->id);
  EXPECT_EQ("net", net->name);
  EXPECT_EQ(nullptr, net->lua_state);
}

TEST_F(Object, NewOneHasTheDefaultsOfItsLink) {
  EXPECT_EQ(COM_TCP, net->commode);
  EXPECT_EQ(TTY_8N1, net->ttymode);
  EXPECT_EQ(FCL_NO, net->fclmode);
  EXPECT_EQ(-1, net->port);
  EXPECT_STREQ("", net->host);
  EXPECT_STREQ("", net->tty);
  EXPECT_EQ(speed_t{B9600}, net->baudrate);
  EXPECT_EQ(nullptr, net->sslctx);
  EXPECT_EQ(nullptr, net->ssl);
  EXPECT_EQ(nullptr, net->cert);
  EXPECT_EQ(nullptr, net->certname);
  EXPECT_STREQ("", net->wol_adr);
  EXPECT_THAT(net->wol_mac, testing::Each(0));
}

TEST_F(Object, NewOneHasTheDefaultsOfItsData) {
  EXPECT_EQ(5, net->network_id);
  EXPECT_EQ(std::string(1, '\n'), std::string(net->eolin, 1));
  EXPECT_EQ(1, net->eolin_size);
  EXPECT_EQ(std::string(1, '\n'), std::string(net->eolout, 1));
  EXPECT_EQ(1, net->eolout_size);
  EXPECT_EQ(4096U, sizeof net->inbuf);
  EXPECT_THAT(net->inbuf, testing::Each(0));
  EXPECT_EQ(0, net->inbufpos);
  EXPECT_TRUE(net->regexTableIN.empty());
  EXPECT_TRUE(net->regexTableOUT.empty());
}

TEST_F(Object, NewOneHasOnlyTheUnparsedFlagsSet) {
  EXPECT_TRUE(net->unparsedout);
  EXPECT_TRUE(net->unparsedin);
  for (const bool flag :
       {net->persistent, net->reconnect, net->echo, net->chopeolin, net->addeolout, net->reg,
        net->raw, net->eolclose, net->iodebug, net->accept_self_cert})
    EXPECT_FALSE(flag);
}

TEST_F(Object, NumbersOfTheEnumerationsAreFixed) {
  EXPECT_EQ(0, FCL_SW);
  EXPECT_EQ(1, FCL_HW);
  EXPECT_EQ(2, FCL_NO);
  EXPECT_EQ(10U, sizeof net->eolin);
  EXPECT_EQ(10U, sizeof net->eolout);
  EXPECT_EQ(6U, sizeof net->wol_mac);
}

TEST_F(Object, EnumerationsHave32Bits) {
  EXPECT_EQ(4U, sizeof(ComMode));
  EXPECT_EQ(4U, sizeof(TtyMode));
  EXPECT_EQ(4U, sizeof(FclMode));
}

TEST_F(Object, RuleTypeIsARequestForExactlyThatText) {
  using Rule = GenericNet::RegexRule;
  EXPECT_EQ(MM_ACTUATOR_REQUEST, Rule("k", "r", "o", "MM_ACTUATOR_REQUEST").type);
  for (const char* text : {"MM_DATA", "MM_MSG", "", "mm_actuator_request", "MM_ACTUATOR_REQUESTS"})
    EXPECT_EQ(MM_DATA, Rule("k", "r", "o", text).type) << text;
  const Rule rule("key", "regex", "output", "");
  EXPECT_EQ("key", rule.key);
  EXPECT_EQ("regex", rule.regex);
  EXPECT_EQ("output", rule.output);
}

TEST(ObjectLife, StartAndStopAreLoggedWithIdAndName) {
  const LogCapture log(4);
  auto net = ExposedNet::make(5, "net");
  EXPECT_EQ(Lines{infoLine("GenericNet rovik started")}, log.lines());
  net.reset();
  EXPECT_EQ((Lines{infoLine("GenericNet rovik started"), infoLine("GenericNet rovik stopped")}),
            log.lines());
}

// Closing the link is the business of the "close" command.
TEST(ObjectLife, DestructorLeavesAnOpenLinkOpen) {
  TcpPeer peer;
  auto net = ExposedNet::make(5, "net");
  net->command({"host", "127.0.0.1"});
  net->command({"port", std::to_string(peer.port())});
  ASSERT_EQ("OK", net->command({"open"}));
  peer.accept();
  const drovane::Descriptor link(net->fd);
  net.reset();
  EXPECT_GE(fcntl(link.get(), F_GETFD), 0);
  peer.send("still there");
  char buffer[11];
  EXPECT_EQ(11, read(link.get(), buffer, sizeof buffer));
}

class Description : public NetTest {
 protected:
  static void release(cJSON* json) { cJSON_Delete(json); }
  std::unique_ptr<cJSON, decltype(&release)> json{cJSON_CreateObject(), release};
};

TEST_F(Description, HoldsTheNetworkIdAndNothingElse) {
  EXPECT_EQ(0, net->getDescription(json.get()));
  ASSERT_EQ(1, cJSON_GetArraySize(json.get()));
  const cJSON* item = cJSON_GetObjectItemCaseSensitive(json.get(), "network_id");
  ASSERT_TRUE(cJSON_IsNumber(item));
  EXPECT_EQ(5, item->valueint);
}

TEST_F(Description, FollowsTheCommand) {
  net->command({"network_id", "-12"});
  net->getDescription(json.get());
  EXPECT_EQ(-12, cJSON_GetObjectItemCaseSensitive(json.get(), "network_id")->valueint);
}

TEST_F(Description, KeepsWhatIsThereAlready) {
  cJSON_AddStringToObject(json.get(), "name", "net");
  net->getDescription(json.get());
  EXPECT_EQ(2, cJSON_GetArraySize(json.get()));
}

// The module as the framework's loader sees it, without the loader.
class Module : public testing::Test {
 protected:
  Module() : library(dlopen(DROVANE_PLUGINS "/generic_net.so", RTLD_NOW | RTLD_LOCAL)) {}

  std::unique_ptr<Rovik> make(int id, const std::string& name) {
    const drovane::IdentityForConstruction identity(id, name);
    using Maker = Rovik* (*)();
    const auto maker = reinterpret_cast<Maker>(dlsym(library, "maker"));
    return std::unique_ptr<Rovik>(maker == nullptr ? nullptr : maker());
  }

  // Stays loaded until the process ends, as the framework's loader does it.
  void* const library;
};

TEST_F(Module, MakerMakesARovikWithTheIdentitySetAside) {
  ASSERT_NE(nullptr, library) << dlerror();
  const LogCapture log;
  const auto rovik = make(77, "from_module");
  ASSERT_NE(nullptr, rovik);
  EXPECT_EQ((Lines{{3, 77, "from_module", "GenericNet rovik started"}}), log.lines());
  auto& host = drovane::RovikHost::of(*rovik);
  EXPECT_EQ("OK", host.command({"mode", "tcp"}).text);
  EXPECT_EQ("{\"network_id\":77}", host.status().description);
  EXPECT_EQ(MT_NETWORK_GENERIC, host.status().type);
}

TEST_F(Module, EveryCallOfMakerMakesAnother) {
  ASSERT_NE(nullptr, library) << dlerror();
  const auto one = make(77, "one");
  const auto two = make(78, "two");
  ASSERT_NE(nullptr, one);
  ASSERT_NE(nullptr, two);
  EXPECT_NE(one.get(), two.get());
}

TEST_F(Module, DeletingThroughTheBaseClassLogsTheEnd) {
  ASSERT_NE(nullptr, library) << dlerror();
  auto rovik = make(77, "from_module");
  const LogCapture log;
  rovik.reset();
  EXPECT_EQ((Lines{{3, 77, "from_module", "GenericNet rovik stopped"}}), log.lines());
}

}  // namespace
