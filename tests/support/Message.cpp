#include "support/Message.h"

std::string textOf(RovikMessage& msg) {
  switch (msg.type) {
    case MM_DATA:
      return static_cast<MMData&>(msg).getValue();
    case MM_ACTUATOR_REQUEST:
      return static_cast<MMActuatorRequest&>(msg).getValue();
    case MM_CMD_REQUEST:
      return static_cast<MMCmdRequest&>(msg).cmd;
    case MM_CMD_RESPONSE:
      return static_cast<MMCmdResponse&>(msg).rsp;
    case MM_MSG:
      return static_cast<MMMsg&>(msg).msg;
    default:
      return "";
  }
}
