// An interpreter that gets no more memory: what fails is reported, the rovik and the script live
// on.
#include <gtest/gtest.h>

#include "ScriptTest.h"
#include "framework/Identity.h"

namespace {

// While it lives, the interpreter gets nothing beyond what it has. The allocator keeps its context,
// by which the rovik is found.
class NoLuaMemory {
 public:
  explicit NoLuaMemory(lua_State* const& its_state) : owner(its_state), state(its_state) {
    allocate = lua_getallocf(state, &context);
    current = this;
    lua_setallocf(state, refuse, context);
  }
  // Unless the interpreter was closed meanwhile.
  ~NoLuaMemory() {
    if (owner == state) lua_setallocf(state, allocate, context);
  }
  NoLuaMemory(const NoLuaMemory&) = delete;
  NoLuaMemory& operator=(const NoLuaMemory&) = delete;

 private:
  static void* refuse(void* context, void* block, std::size_t before, std::size_t wanted) {
    if (wanted > 0 && (block == nullptr || wanted > before)) return nullptr;
    return current->allocate(context, block, before, wanted);
  }

  static inline const NoLuaMemory* current = nullptr;

  lua_State* const& owner;
  lua_State* const state;
  lua_Alloc allocate = nullptr;
  void* context = nullptr;
};

// A call then needs a larger stack.
void fillStack(lua_State* L) {
  for (int i = 0; i < 30; ++i) lua_pushnil(L);
}

// A call then needs memory for other things only.
void enlargeStack(lua_State* L) { ASSERT_NE(0, lua_checkstack(L, 200)); }

class InterpreterMemoryTest : public ScriptTest {
 protected:
  void SetUp() override { script("function twice(t) return tostring(2 * t.arg1) end"); }

  void expectAlive() {
    lua_settop(net->lua_state, 0);
    EXPECT_EQ("42", net->command({"twice", "21"}));
  }
};

TEST_F(InterpreterMemoryTest, ACommandIsAnsweredWithAnError) {
  enlargeStack(net->lua_state);
  {
    const NoLuaMemory gone(net->lua_state);
    EXPECT_EQ("ERROR (LUA FUNCTION ERROR)", net->command({"a_word_that_is_new_to_the_script"}));
  }
  EXPECT_EQ("lua function error: not enough memory", warning());
  expectAlive();
}

TEST_F(InterpreterMemoryTest, ACommandWithoutRoomOnTheStackIsAnsweredWithAnError) {
  fillStack(net->lua_state);
  {
    const NoLuaMemory gone(net->lua_state);
    EXPECT_EQ("ERROR (LUA FUNCTION ERROR)", net->command({"twice", "21"}));
  }
  EXPECT_EQ("lua function error: stack overflow", warning());
  expectAlive();
}

TEST_F(InterpreterMemoryTest, AnEventIsReported) {
  enlargeStack(net->lua_state);
  {
    const NoLuaMemory gone(net->lua_state);
    EXPECT_EQ(0, net->selectTI());
  }
  EXPECT_EQ("lua function error: not enough memory", warning());
  expectAlive();
}

TEST_F(InterpreterMemoryTest, AnEventWithoutRoomOnTheStackIsReported) {
  fillStack(net->lua_state);
  {
    const NoLuaMemory gone(net->lua_state);
    EXPECT_EQ(0, net->selectTI());
  }
  EXPECT_EQ("lua function error: stack overflow", warning());
  expectAlive();
}

TEST_F(InterpreterMemoryTest, AFunctionOfTheRovikThatNeedsNoneIsCarriedOut) {
  script("function ROVIK_PERIODIC() print('tick') end");
  net->selectTI();  // what the call needs is there from now on
  newLines();
  {
    const NoLuaMemory gone(net->lua_state);
    EXPECT_EQ(0, net->selectTI());
  }
  EXPECT_THAT(newLines(), testing::Contains("3 LUA: tick"));
}

TEST_F(InterpreterMemoryTest, AScriptWhoseInitIsNotFoundInTimeIsClosed) {
  net->closeLua();
  scripts.write("test.lua", "");
  ASSERT_EQ(0, net->prepLua());
  const NoLuaMemory gone(net->lua_state);
  EXPECT_EQ(-1, net->initLua());
  EXPECT_EQ(nullptr, net->lua_state);
  EXPECT_EQ("lua init error: not enough memory", warning());
}

// Has no memory left when its own part of the opening comes.
class HungryNet final : public GenericNet {
 public:
  int localPrepLua() override {
    const NoLuaMemory gone(lua_state);
    return GenericNet::localPrepLua();
  }
  using GenericNet::lua_state;
};

TEST_F(InterpreterMemoryTest, AnOpeningThatIsCutShortLeavesNoInterpreter) {
  const drovane::IdentityForConstruction identity(7, "hungry");
  HungryNet hungry;
  auto& host = drovane::RovikHost::of(hungry);
  EXPECT_EQ("OK", host.command({"luafile", "test.lua"}).text);
  EXPECT_EQ("ERROR", host.command({"luaopen"}).text);
  EXPECT_EQ(nullptr, hungry.lua_state);
  EXPECT_EQ("lua file load error: not enough memory", host.status().warning);
}

}  // namespace
