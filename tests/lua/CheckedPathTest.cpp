// Where a checked script is wrong is said with its place below the installation root, however long
// the path to that is.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>

#include "Drovane.h"
#include "ScriptTest.h"

namespace {

class CheckedPathTest : public ScriptTest {
 protected:
  CheckedPathTest() { Drovane::global.setChecking(true); }
  ~CheckedPathTest() override {
    Drovane::global.setChecking(false);
    Drovane::global.setInstRoot(scripts.root());
  }

  // The reply for a script that does not compile, at a path of this length. The slashes that fill
  // the path up lead to the same folder.
  std::string replyAt(std::size_t length) {
    const std::string below = "/lua/broken.lua";
    std::string root = scripts.root();
    root.append(length - below.size() - root.size(), '/');
    Drovane::global.setInstRoot(root);
    net->command({"luafile", "broken.lua"});
    return net->command({"luaopen"});
  }
};

// The interpreter names a path of up to 58 characters whole.
TEST_F(CheckedPathTest, IsReplacedWhateverItsLength) {
  scripts.write("broken.lua", "x = = 1\n");
  const std::size_t shortest = scripts.root().size() + 16;
  ASSERT_LT(shortest, 55U);
  for (std::size_t length = shortest; length < 140; ++length)
    EXPECT_EQ("ERROR (lua/broken.lua:1: unexpected symbol near '=')", replyAt(length)) << length;
}

}  // namespace
