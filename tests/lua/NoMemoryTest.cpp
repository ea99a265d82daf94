// What scripts see when there is no memory for a message.
#include <gtest/gtest.h>

#include <optional>

#include "ScriptTest.h"
#include "faults/MemoryFaults.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

struct Call {
  const char* name;
  const char* chunk;
  MessageTypes type;  // of the message that it makes
};

class ScriptWithoutMemory : public ScriptTest, public testing::WithParamInterface<Call> {};

TEST_P(ScriptWithoutMemory, IsRefusedAndGoesOn) {
  script("");
  const std::string call = std::string("return select('#', ") + GetParam().chunk + ")";
  {
    const NoRecords gone(GetParam().type);
    EXPECT_EQ("0", lua(call));
  }
  EXPECT_THAT(newLines(), ElementsAre("4 LUA: could not create message"));
  EXPECT_THAT(traffic.takeTexts(), IsEmpty());
  EXPECT_EQ("", warning());
  EXPECT_EQ("2", lua("return 1 + 1"));
}

INSTANTIATE_TEST_SUITE_P(
    Calls, ScriptWithoutMemory,
    testing::Values(Call{"sndDATA", "sndDATA('5_1_0', 'int', 1, 6)", MM_DATA},
                    Call{"sndDATA_REQUEST", "sndDATA_REQUEST('5_1_0', 'int', 6)", MM_DATA_REQUEST},
                    Call{"sndACTUATOR_REQUEST", "sndACTUATOR_REQUEST('5_1_0', 'int', 1, 6)",
                         MM_ACTUATOR_REQUEST},
                    Call{"sndMSG", "sndMSG(1, 'text')", MM_MSG},
                    Call{"sndCMD", "sndCMD('go', 6)", MM_CMD_REQUEST},
                    Call{"sndMM", "sndMM({type = 'MM_MSG', channel = 1, msg = 'text'}, 6)", MM_MSG},
                    Call{"getDATA", "getDATA('5_1_0', 'int', 6)", MM_DATA_REQUEST},
                    Call{"getCMD", "getCMD('go', 6)", MM_CMD_REQUEST},
                    Call{"getMM", "getMM({type = 'MM_CMD_REQUEST', cmd = 'go'}, 6)",
                         MM_CMD_REQUEST}),
    [](const auto& each) { return each.param.name; });

}  // namespace
