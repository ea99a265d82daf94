// What the tests share in which a script writes, closes or opens the link from inside its event
// functions.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "ScriptTest.h"

// The other side of a link of some transport.
class ReentryPeer {
 public:
  virtual ~ReentryPeer() = default;
  // The settings with which the rovik reaches it.
  virtual std::vector<std::vector<std::string>> settings() const = 0;
  // Sends the units, all before the first is read, over the rovik's present link, and has the rovik
  // read them while it has that link.
  virtual void send(ScriptRovik& net, const std::vector<std::string>& units) = 0;
  // Leaves in the way of the transport, and has the rovik notice.
  virtual void leave(ScriptRovik& net) = 0;
};

std::unique_ptr<ReentryPeer> tcpReentryPeer();
std::unique_ptr<ReentryPeer> tlsReentryPeer();
std::unique_ptr<ReentryPeer> udpReentryPeer();

// What the script does, once, when `event` occurs, and what the events then are. A "!" stands where
// the script has done it.
struct Reentry {
  const char* event;
  const char* action;
  const char* trace = "";
};

std::ostream& operator<<(std::ostream& out, const Reentry& row);
std::string nameOf(const testing::TestParamInfo<Reentry>& row);

// A rovik with a script that notes each event; a unit by its first character.
class ReentryTest : public ScriptTest {
 protected:
  explicit ReentryTest(std::unique_ptr<ReentryPeer> its_peer);
  ~ReentryTest() override;

  void actOn(const Reentry& row);
  // The same, as often as the event occurs.
  void actEachTimeOn(const Reentry& row);
  // From now on the script only notes, and what it has noted is forgotten.
  void calmDown();

  // Nothing without a link.
  void receive(const std::vector<std::string>& units);
  void peerLeaves();
  void message();
  std::string trace() { return lua("return trace"); }

 private:
  void provide(const char* function, lua_CFunction body);

  void (*const pipe_signal_before)(int);
  const std::unique_ptr<ReentryPeer> peer;
};
