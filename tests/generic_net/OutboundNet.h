// What the tests of the way out share.
#pragma once

#include <algorithm>
#include <string>

#include "NetTest.h"
#include "support/Message.h"

// A request for a text.
inline Owned<MMActuatorRequest> requestFor(const std::string& key, const std::string& value) {
  auto request = newMessage<MMActuatorRequest>(MM_ACTUATOR_REQUEST);
  EXPECT_EQ(0, request->setKey(key.c_str()));
  request->value_type = VAL_STRING;
  request->value_s = value;
  return request;
}

// A rovik with a link that is kept.
class OutboundNet : public NetTest {
 protected:
  static constexpr std::size_t kBuffer = 4096;
  // More than any test sends.
  static constexpr std::size_t kEverything = 1 << 20;

  OutboundNet() {
    net->persistent = true;
    openTo(peer);
  }

  void set(const std::string& keyword, const std::string& word) {
    ASSERT_EQ("OK", net->command({keyword, word}));
    newLines();
  }

  // Appends a rule and has rules applied.
  void rule(std::string key, std::string regex, std::string output) {
    EXPECT_EQ(0, net->setRegexTableOUT(key.data(), regex.data(), output.data()));
    net->reg = true;
  }

  void request(const std::string& key, const std::string& value) {
    const auto msg = requestFor(key, value);
    EXPECT_EQ(0, net->selectMM(msg.get()));
  }

  // Data in a buffer of this capacity.
  int send(const std::string& data, std::size_t capacity = kBuffer) {
    std::string buffer = data;
    buffer.resize(std::max(capacity, data.size()));
    return net->sndData(buffer.data(), static_cast<int>(data.size()), static_cast<int>(capacity));
  }

  // Everything that has reached the peer since the link was opened. Ends the link.
  std::string sent() {
    net->closeGeneric();
    return peer.receive(kEverything);
  }

  static CapturedLine requestLine(const std::string& key, const std::string& value) {
    return infoLine("Actuator Request " + key + " = " + value);
  }
  static CapturedLine matchLine() { return traceLine("REGOUT MATCH"); }

  TcpPeer peer;
};
