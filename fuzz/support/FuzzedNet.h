// The rovik that a fuzz target works on: one without a thread, whose slots the target calls, whose
// script is a text, and which reaches nothing but the target's peer.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "framework/Mailbox.h"
#include "generic_net/GenericNet.h"
#include "support/Sandbox.h"

namespace fuzzing {

class FuzzedNet final : public GenericNet {
 public:
  // Rovik 5, called "net". Requests that wait for an answer find none at once.
  static std::unique_ptr<FuzzedNet> make();

  // Runs the text as a script, behind one that stores m_p.
  bool openScript(std::string text);
  // A command line, unless it would reach outside of the process: see kForbidden.
  void commandLine(std::string_view line);
  std::string command(std::vector<std::string> words);
  // Closes the link and the script, as the framework does before it deletes a rovik.
  void farewell();

  bool readable(int milliseconds = 0) const;
  void readLinkNow();
  // As long as there is something to read, within reason.
  void readAll();
  // What always holds between two events.
  void checkState() const;

  int localPrepLua() override;

  // Is called before each write of the script.
  void (*before_write)(void* context) = nullptr;
  void* before_write_context = nullptr;

  using GenericNet::chopeolin;
  using GenericNet::commode;
  using GenericNet::eolclose;
  using GenericNet::eolin;
  using GenericNet::eolin_size;
  using GenericNet::fd;
  using GenericNet::lua_state;
  using GenericNet::network_id;
  using GenericNet::processMM;
  using GenericNet::pushRovikMessage;
  using GenericNet::raw;
  using GenericNet::regexTableIN;
  using GenericNet::unparsedout;

 private:
  static int writeInBounds(lua_State* L);

  std::string script;
  Sandbox sandbox;
  int writes = 0;
};

// Gets what a rovik with id 90 called "inbox" would get, and keeps the values that came under the
// rovik's default key.
class Inbox {
 public:
  Inbox();
  ~Inbox();
  Inbox(const Inbox&) = delete;
  Inbox& operator=(const Inbox&) = delete;

  // Takes everything out, of the rovik's own mailbox too.
  void empty();
  // Values of messages under "5_0_0" since the last call.
  std::vector<std::string> takeUnits();

 private:
  const std::shared_ptr<drovane::Mailbox> mailbox;
  std::vector<std::string> units;
};

}  // namespace fuzzing
