#include "support/TestRovik.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <stdexcept>

#include "framework/Clock.h"
#include "support/Eventually.h"
#include "support/Message.h"

namespace {

std::string joined(const Words& words) {
  std::string line;
  for (const auto& word : words) line += (line.empty() ? "" : " ") + word;
  return line;
}

}  // namespace

std::unique_ptr<TestRovik> TestRovik::make(int its_id, const std::string& its_name) {
  const drovane::IdentityForConstruction identity(its_id, its_name);
  auto rovik = std::make_unique<TestRovik>();
  if (!rovik->host().enterRouter()) throw std::runtime_error("address is taken: " + its_name);
  return rovik;
}

std::unique_ptr<TestRovik> TestRovik::makeRunning(int its_id, const std::string& its_name) {
  auto rovik = make(its_id, its_name);
  rovik->run();
  return rovik;
}

TestRovik::~TestRovik() { stop(); }

void TestRovik::run() {
  if (host().start() != 0) throw std::runtime_error("thread does not start: " + name);
}

std::string TestRovik::command(Words words) {
  const auto result = host().command(std::move(words));
  return result.answered ? result.text : "REFUSED: " + result.text;
}

void TestRovik::passTime(int seconds) {
  drovane::Clock::skip(seconds * drovane::Clock::kNanosecondsPerSecond);
  host().address().waker->wake();
}

std::string TestRovik::interpretCmd(char** arg) {
  Words words;
  for (; *arg != nullptr; ++arg) words.emplace_back(*arg);
  note("command " + joined(words));
  return on_command ? on_command(words) : "OK";
}

int TestRovik::getDescription(cJSON* desc_json) {
  if (on_description) on_description(desc_json);
  return 0;
}

int TestRovik::selectMM(RovikMessage* msg) {
  if (on_message) on_message(msg);
  const std::string text = textOf(*msg);
  const std::lock_guard guard(lock);
  messages.push_back({msg->type, msg->seqnr, msg->src, msg->src_s, msg->dst, msg->dst_s, text});
  happened.push_back("message " + text);
  more.notify_all();
  return 0;
}

int TestRovik::selectFD() {
  if (on_link) {
    on_link();
  } else {
    std::array<char, 4096> buffer;
    if (read(fd, buffer.data(), buffer.size()) <= 0) fd = -1;
  }
  note("link");
  return 0;
}

int TestRovik::selectTI() {
  if (on_timer) on_timer();
  note("timer");
  return 0;
}

void TestRovik::note(const std::string& what) {
  const std::lock_guard guard(lock);
  happened.push_back(what);
  more.notify_all();
}

std::vector<std::string> TestRovik::events() const {
  const std::lock_guard guard(lock);
  return happened;
}

std::size_t TestRovik::countLocked(const std::string& event) const {
  return static_cast<std::size_t>(std::count(happened.begin(), happened.end(), event));
}

std::size_t TestRovik::countOf(const std::string& event) const {
  const std::lock_guard guard(lock);
  return countLocked(event);
}

std::vector<Received> TestRovik::received() const {
  const std::lock_guard guard(lock);
  return messages;
}

std::size_t TestRovik::receivedCount() const {
  const std::lock_guard guard(lock);
  return messages.size();
}

bool TestRovik::waitForEvent(const std::string& event, std::size_t times) {
  std::unique_lock guard(lock);
  return more.wait_for(guard, kPatienceOfTests, [&] { return countLocked(event) >= times; });
}

bool TestRovik::waitForMessages(std::size_t count) {
  std::unique_lock guard(lock);
  return more.wait_for(guard, kPatienceOfTests, [&] { return messages.size() >= count; });
}

void Gate::open() {
  const std::lock_guard guard(lock);
  is_open = true;
  changed.notify_all();
}

void Gate::pass() {
  std::unique_lock guard(lock);
  visited = true;
  changed.notify_all();
  changed.wait_for(guard, kPatienceOfTests, [this] { return is_open; });
}

bool Gate::waitForVisitor() {
  std::unique_lock guard(lock);
  return changed.wait_for(guard, kPatienceOfTests, [this] { return visited; });
}
