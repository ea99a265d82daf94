// An empty text is a text: what is made of it is one as well, and not nothing.
#include <gtest/gtest.h>

#include "ScriptTest.h"

namespace {

class EmptyTextTest : public ScriptTest {
 protected:
  void SetUp() override { script(""); }
};

TEST_F(EmptyTextTest, EscapeReturnsOne) {
  EXPECT_EQ("1", lua("return select('#', escape(''))"));
  EXPECT_EQ("string", lua("return type(escape(''))"));
}

TEST_F(EmptyTextTest, UnescapeReturnsOne) {
  EXPECT_EQ("1", lua("return select('#', unescape(''))"));
  EXPECT_EQ("string", lua("return type(unescape(''))"));
}

}  // namespace
