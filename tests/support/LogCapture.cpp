#include "support/LogCapture.h"

#include <algorithm>

#include "Drovane.h"
#include "framework/Log.h"
#include "support/Eventually.h"

std::ostream& operator<<(std::ostream& out, const CapturedLine& line) {
  return out << line.level << ' ' << line.id << ' ' << line.name << ' ' << line.text;
}

LogCapture::LogCapture(int level) : level_before(Drovane::global.logLevel()) {
  drovane::Log::global().observe([this](const drovane::LogLine& line) {
    const std::lock_guard guard(lock);
    captured.push_back({line.level, line.id, std::string(line.name), std::string(line.text)});
    more.notify_all();
  });
  Drovane::global.setLogLevel(level);
}

LogCapture::~LogCapture() {
  Drovane::global.setLogLevel(level_before);
  drovane::Log::global().observe({});
}

std::vector<CapturedLine> LogCapture::lines() const {
  const std::lock_guard guard(lock);
  return captured;
}

std::size_t LogCapture::countLocked(const std::string& part) const {
  const auto holds = [&](const CapturedLine& line) {
    return line.text.find(part) != std::string::npos;
  };
  return static_cast<std::size_t>(std::count_if(captured.begin(), captured.end(), holds));
}

std::size_t LogCapture::count(const std::string& part) const {
  const std::lock_guard guard(lock);
  return countLocked(part);
}

bool LogCapture::waitFor(const std::string& part) {
  std::unique_lock guard(lock);
  return more.wait_for(guard, kPatienceOfTests, [&] { return countLocked(part) > 0; });
}
