// What the tests of scripts share.
#pragma once

#include <gmock/gmock.h>

#include <cstdint>
#include <lua.hpp>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "framework/Mailbox.h"
#include "framework/RovikHost.h"
#include "generic_net/GenericNet.h"
#include "support/LogCapture.h"
#include "support/Message.h"
#include "support/PeerTcp.h"
#include "support/TempFolder.h"

// A GenericNet whose members a test reads, and whose slots it calls itself.
class ScriptRovik final : public GenericNet {
 public:
  // In the router, not yet running.
  static std::unique_ptr<ScriptRovik> make(int id, const std::string& name);
  ScriptRovik() = default;
  // Stops the thread if it runs.
  ~ScriptRovik() override;

  drovane::RovikHost& host() { return drovane::RovikHost::of(*this); }
  void run();
  // One command, called directly or on the rovik's own thread; its reply.
  std::string command(std::vector<std::string> words);
  int localPrepLua() override;

  // What the loop does when the link is readable.
  void readLinkNow();
  // The seconds for which the timer is armed, from now on; below zero when it is not armed.
  double delay() const;
  // Whether another thread could take luaLock.
  bool lockIsFree();

  bool refuses_prep = false;  // localPrepLua then fails

  using GenericNet::addeolout;
  using GenericNet::chopeolin;
  using GenericNet::closeGeneric;
  using GenericNet::closeLua;
  using GenericNet::echo;
  using GenericNet::fd;
  using GenericNet::id;
  using GenericNet::initLua;
  using GenericNet::lua_state;
  using GenericNet::luafile;
  using GenericNet::luaLock;
  using GenericNet::name;
  using GenericNet::network_id;
  using GenericNet::openGeneric;
  using GenericNet::openLua;
  using GenericNet::persistent;
  using GenericNet::popTimer;
  using GenericNet::prepLua;
  using GenericNet::processMM;
  using GenericNet::pushRovikMessage;
  using GenericNet::raw;
  using GenericNet::rcvData;
  using GenericNet::reconnect;
  using GenericNet::timer;
  using GenericNet::type;
};

using Texts = std::vector<std::string>;

// A script in an installation root of its own.
class Scripts {
 public:
  Scripts();
  ~Scripts();
  Scripts(const Scripts&) = delete;
  Scripts& operator=(const Scripts&) = delete;

  void write(const std::string& name, std::string_view text) const;
  std::string path(const std::string& name) const;
  const std::string& root() const { return folder.path(); }

 private:
  TempFolder folder;
  std::string root_before;
};

// Everything that is routed while it lives.
class Traffic {
 public:
  Traffic();
  ~Traffic();
  Traffic(const Traffic&) = delete;
  Traffic& operator=(const Traffic&) = delete;

  std::vector<Owned<RovikMessage>> take();
  // A message as text: kind, payload and destination.
  static std::string textFor(RovikMessage& msg);
  // Everything, as such texts.
  Texts takeTexts();
  // The one message that has been sent since the last look; null when it is not exactly one of this
  // type.
  template <typename Kind>
  Owned<Kind> takeOne(MessageTypes type) {
    auto all = take();
    if (all.size() != 1 || all[0]->type != static_cast<std::uint32_t>(type)) return nullptr;
    return Owned<Kind>(static_cast<Kind*>(all[0].release()));
  }

 private:
  std::shared_ptr<drovane::Mailbox> tap;
};

// A script that stores m_p and nothing else.
inline constexpr std::string_view kPlainScript = "function ROVIK_INIT(me) m_p = me end\n";

// A rovik 5 called "net" without a thread of its own, its script, everything that it logs and
// everything that is sent.
class ScriptTest : public ::testing::Test {
 protected:
  ScriptTest();
  ~ScriptTest() override;

  // Writes the script behind kPlainScript and opens it; what that logs is not among newLines.
  void script(std::string_view text);
  // Runs a chunk inside the open script and leaves the stack as it was. Its results as texts, or
  // "raised: " and the error.
  std::string lua(const std::string& chunk);
  // The height of the interpreter's stack.
  int height() const { return lua_gettop(net->lua_state); }

  // The texts logged since the last call, each behind its level: "4 text".
  Texts newLines();
  // The rovik's current warning.
  std::string warning() const;

  // Points the rovik at the peer and opens the link, also at the other end.
  void openTo(TcpPeer& peer);
  // Sends bytes and has them read.
  void feed(TcpPeer& peer, std::string_view bytes);

  LogCapture log{4};
  Scripts scripts;
  Traffic traffic;
  std::unique_ptr<ScriptRovik> net = ScriptRovik::make(5, "net");

 private:
  std::size_t seen = 0;
};
