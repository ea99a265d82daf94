// What the table holds that a command of the script gets: the words behind the first, and no more.
#include <gtest/gtest.h>

#include "ScriptTest.h"

namespace {

class CommandTableTest : public ScriptTest {};

TEST_F(CommandTableTest, TheNameOfTheCommandIsNotInIt) {
  script(
      "function count(t) local n = 0 for _ in pairs(t) do n = n + 1 end "
      "return n .. tostring(t.arg0) .. tostring(t[0]) end");
  EXPECT_EQ("2nilnil", net->command({"count", "a", "b"}));
}

}  // namespace
