// A rovik whose slots do what a test says, and which remembers what it was given.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "Rovik.h"
#include "framework/RovikHost.h"

// One message as selectMM saw it.
struct Received {
  std::uint32_t type;
  std::uint32_t seqnr;
  std::uint32_t src;
  std::string src_s;
  std::uint32_t dst;
  std::string dst_s;
  std::string text;  // what it carries
};

using Words = std::vector<std::string>;

class TestRovik final : public Rovik {
 public:
  // In the router, not yet running.
  static std::unique_ptr<TestRovik> make(int id, const std::string& name);
  // In the router and running.
  static std::unique_ptr<TestRovik> makeRunning(int id, const std::string& name);

  TestRovik() = default;
  // Stops the thread, if the test has not.
  ~TestRovik() override;

  std::string interpretCmd(char** arg) override;
  int getDescription(cJSON* desc_json) override;
  int selectMM(RovikMessage* msg) override;
  int selectFD() override;
  int selectTI() override;

  // --- Set before the thread runs; called by it
  // ---------------------------------------------------
  std::function<std::string(const Words&)> on_command;
  std::function<void(cJSON*)> on_description;
  std::function<void(RovikMessage*)> on_message;  // before the message is counted
  std::function<void()> on_link;                  // without it the link is read empty
  std::function<void()> on_timer;

  // --- Any thread --------------------------------------------------------------------------------
  drovane::RovikHost& host() { return drovane::RovikHost::of(*this); }
  void run();
  // A command that must be answered; its reply.
  std::string command(Words words);
  // Moves the clock forward and lets the loop see it.
  void passTime(int seconds);

  // Adds a note of the test's own to what has happened.
  void note(const std::string& what);
  // Everything that happened, in order: "link", "timer", "message TEXT", "command WORDS", notes.
  std::vector<std::string> events() const;
  std::size_t countOf(const std::string& event) const;
  std::vector<Received> received() const;
  std::size_t receivedCount() const;
  bool waitForEvent(const std::string& event, std::size_t times = 1);
  bool waitForMessages(std::size_t count);

  using Rovik::blocksOn;
  using Rovik::fd;
  using Rovik::id;
  using Rovik::messageSnd;
  using Rovik::messageSndBlock;
  using Rovik::name;
  using Rovik::period;
  using Rovik::readfds;
  using Rovik::setWarning;
  using Rovik::timer;
  using Rovik::type;

 private:
  std::size_t countLocked(const std::string& event) const;

  mutable std::mutex lock;
  std::condition_variable more;
  std::vector<std::string> happened;
  std::vector<Received> messages;
};

// One thread that a test holds up until it lets it go: a rovik's slot waits in pass().
class Gate {
 public:
  ~Gate() { open(); }
  void open();
  // Waits until open(), or so long that the test has failed; a gate that is open stays so.
  void pass();
  // False when nobody comes to wait in time.
  bool waitForVisitor();

 private:
  std::mutex lock;
  std::condition_variable changed;
  bool is_open = false;
  bool visited = false;
};
