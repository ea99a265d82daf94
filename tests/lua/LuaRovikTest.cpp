// The layer of scripts by itself: what it does without the link of a derived class.
#include <gtest/gtest.h>

#include "ScriptTest.h"
#include "framework/Identity.h"
#include "support/SlotOf.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// A rovik with a script and nothing else, which notes when it is asked to prepare the script.
class BareRovik final : public LuaRovik {
 public:
  int localPrepLua() override {
    prepared.push_back(luaL_typename(lua_state, -1));
    lua_getglobal(lua_state, "INSTROOT");
    prepared.emplace_back(lua_tostring(lua_state, -1));
    lua_getglobal(lua_state, "ran");
    prepared.emplace_back(luaL_typename(lua_state, -1));
    lua_pop(lua_state, 2);
    return LuaRovik::localPrepLua();
  }
  std::string command(std::vector<std::string> words) {
    return drovane::RovikHost::of(*this).command(std::move(words)).text;
  }

  Texts prepared;

  using LuaRovik::fd;
  using LuaRovik::lua_state;
  using LuaRovik::processMM_HEADER;
  using LuaRovik::processMM_KEY;
  using LuaRovik::processMM_VALUE;
  using LuaRovik::processMM_VALUETYPE;
  using LuaRovik::type;
};

class LuaRovikTest : public testing::Test {
 protected:
  LuaRovikTest() {
    scripts.write("test.lua", std::string(kPlainScript) + "ran = true");
    bare.command({"luafile", "test.lua"});
  }

  LogCapture log{4};
  const Scripts scripts;
  const drovane::IdentityForConstruction identity{5, "bare"};
  BareRovik bare;
};

TEST_F(LuaRovikTest, IsAKindOfItsOwn) {
  EXPECT_EQ(8, bare.type);
  EXPECT_EQ(-1, bare.fd);
  EXPECT_EQ(nullptr, bare.lua_state);
}

TEST_F(LuaRovikTest, HandlesEveryEventByDoingNothing) {
  const auto note = newNote("x");
  cJSON* const description = cJSON_CreateObject();
  ASSERT_EQ("OK", bare.command({"luaopen"}));
  EXPECT_EQ(0, bare.selectMM(note.get()));
  EXPECT_EQ(0, bare.selectFD());
  EXPECT_EQ(0, bare.selectTI());
  EXPECT_EQ(0, bare.getDescription(description));
  EXPECT_EQ(0, cJSON_GetArraySize(description));
  cJSON_Delete(description);
  EXPECT_EQ(1U, log.lines().size()) << "the name of the script";
}

TEST_F(LuaRovikTest, LocalPrepLuaStandsBehindTheSlotsOfTheBaseClass) {
  EXPECT_EQ(slotOf(&LuaRovik::selectTI) + 1, slotOf(&LuaRovik::localPrepLua));
  EXPECT_EQ(slotOf(&Rovik::interpretCmd), slotOf(&LuaRovik::interpretCmd));
}

TEST_F(LuaRovikTest, PreparesOnceForEachOpeningBetweenLoadingAndRunning) {
  ASSERT_EQ("OK", bare.command({"luaopen"}));
  EXPECT_THAT(bare.prepared, ElementsAre("function", scripts.root(), "nil"));
  ASSERT_EQ("OK", bare.command({"luaopen"}));
  EXPECT_EQ(3U, bare.prepared.size());
  ASSERT_EQ("OK", bare.command({"luarestart"}));
  EXPECT_EQ(6U, bare.prepared.size());
}

TEST_F(LuaRovikTest, DoesNotPrepareWhatCannotBeLoaded) {
  scripts.write("test.lua", "x =");
  EXPECT_EQ("ERROR", bare.command({"luaopen"}));
  EXPECT_THAT(bare.prepared, IsEmpty());
}

TEST_F(LuaRovikTest, BindsEachFunctionToItsDispatcher) {
  struct {
    const char* name;
    lua_CFunction function;
  } const kFunctions[] = {{"print", LuaRovik::lua_print_dispatch},
                          {"unescape", LuaRovik::lua_unescape_dispatch},
                          {"escape", LuaRovik::lua_escape_dispatch},
                          {"gettimeofday", LuaRovik::lua_gettimeofday_dispatch},
                          {"getCMD", LuaRovik::lua_getCMD_dispatch},
                          {"getDATA", LuaRovik::lua_getDATA_dispatch},
                          {"sndDATA", LuaRovik::lua_sndDATA_dispatch},
                          {"sndDATA_REQUEST", LuaRovik::lua_sndDATA_REQUEST_dispatch},
                          {"sndACTUATOR_REQUEST", LuaRovik::lua_sndACTUATOR_REQUEST_dispatch},
                          {"sndMSG", LuaRovik::lua_sndMSG_dispatch},
                          {"sndCMD", LuaRovik::lua_sndCMD_dispatch},
                          {"sndMM", LuaRovik::lua_sndMM_dispatch},
                          {"getMM", LuaRovik::lua_getMM_dispatch}};
  ASSERT_EQ("OK", bare.command({"luaopen"}));
  for (const auto& each : kFunctions) {
    lua_getglobal(bare.lua_state, each.name);
    EXPECT_EQ(each.function, lua_tocfunction(bare.lua_state, -1)) << each.name;
  }
}

TEST_F(LuaRovikTest, GivesAScriptNeitherANetworkNorALink) {
  ASSERT_EQ("OK", bare.command({"luaopen"}));
  for (const char* name : {"network_id", "sndIO"}) {
    lua_getglobal(bare.lua_state, name);
    EXPECT_TRUE(lua_isnil(bare.lua_state, -1)) << name;
  }
}

TEST_F(LuaRovikTest, ReadsAKeyATypeAndAValueOnlyForKindsThatHaveThem) {
  ASSERT_EQ("OK", bare.command({"luaopen"}));
  lua_State* const L = bare.lua_state;
  ASSERT_EQ(LUA_OK, luaL_dostring(L, "return {seqnr=7, key='5_1_0', value_type='int', value=1}"));
  for (const auto type : {MM_CMD_REQUEST, MM_CMD_RESPONSE, MM_MSG, MM_EMPTY}) {
    const auto msg = newMessage<RovikMessage>(type);
    EXPECT_EQ(-1, bare.processMM_KEY(msg.get(), L));
    EXPECT_EQ(-1, bare.processMM_VALUETYPE(msg.get(), L));
    EXPECT_EQ(-1, bare.processMM_VALUE(msg.get(), L));
    EXPECT_EQ(0, bare.processMM_HEADER(msg.get(), L));
    EXPECT_EQ(7U, msg->seqnr);
  }
  const auto request = newMessage<MMDataRequest>(MM_DATA_REQUEST);
  EXPECT_EQ(0, bare.processMM_KEY(request.get(), L));
  EXPECT_EQ(0, bare.processMM_VALUETYPE(request.get(), L));
  EXPECT_EQ(-1, bare.processMM_VALUE(request.get(), L));
  EXPECT_EQ(1, lua_gettop(L));
}

}  // namespace
