#include <gtest/gtest.h>

#include <string>

#include "RovikUtil.h"

namespace {

TEST(FormatTest, FormatsLikePrintf) {
  EXPECT_EQ(RovikUtil::vsnprintftostr("bind (errno: %d %s)\n", 98, "in use"),
            "bind (errno: 98 in use)\n");
  EXPECT_EQ(RovikUtil::vsnprintftostr("%s", ""), "");
}

TEST(FormatTest, TextsOfAnyLengthComeOutWhole) {
  for (const std::size_t length : {510U, 511U, 512U, 513U, 5000U, 1000000U}) {
    const std::string text(length, 'x');
    ASSERT_EQ(RovikUtil::vsnprintftostr("%s", text.c_str()), text);
  }
}

TEST(FormatTest, EveryArgumentOfALongTextIsStillThere) {
  const std::string text(1000, 'x');
  EXPECT_EQ(RovikUtil::vsnprintftostr("%s %d %s", text.c_str(), 7, "end"), text + " 7 end");
}

TEST(FormatTest, ZeroBytesStay) {
  EXPECT_EQ(RovikUtil::vsnprintftostr("a%cb", 0), std::string("a\0b", 3));
}

}  // namespace
