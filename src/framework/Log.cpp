#include "Log.h"

#include <spdlog/async.h>
#include <spdlog/sinks/base_sink.h>
#include <spdlog/sinks/stdout_color_sinks.h>
#include <spdlog/spdlog.h>

#include <algorithm>
#include <atomic>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <iterator>
#include <mutex>
#include <shared_mutex>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "Clock.h"
#include "Drovane.h"
#include "LogFile.h"
#include "RovikUtil.h"
#include "TimeValue.h"

namespace drovane {
namespace {

constexpr const char* kPattern = "%Y-%m-%dT%H:%M:%S.%e%z %^%v%$";
constexpr std::size_t kWaitingLines = 8192;
// A log that cannot be written says so this often, in nanoseconds.
constexpr std::int64_t kComplaintPause = 10 * Clock::kNanosecondsPerSecond;

bool control(char byte) {
  const auto value = static_cast<unsigned char>(byte);
  return value < 0x20 || value == 0x7F;
}

spdlog::level::level_enum spdlogLevel(int level) {
  if (level <= LOG_LEVEL_ERROR) return spdlog::level::err;
  return level == LOG_LEVEL_INFO ? spdlog::level::info : spdlog::level::debug;
}

std::shared_ptr<spdlog::sinks::sink> terminalSink() {
  auto sink = std::make_shared<spdlog::sinks::stderr_color_sink_mt>();
  sink->set_color(spdlog::level::info, "");
  sink->set_color(spdlog::level::debug, "\033[2m");
  return sink;
}

// On the writer's thread.
class FileSink final : public spdlog::sinks::base_sink<std::mutex> {
 public:
  explicit FileSink(const std::string& path) : file(path) {}

 private:
  void sink_it_(const spdlog::details::log_msg& msg) override {
    spdlog::memory_buf_t line;
    formatter_->format(msg, line);
    file.write({line.data(), line.size()});
  }
  void flush_() override {}

  LogFile file;
};

// The number that the text begins with, and the blank behind it, are taken off the text.
int takeNumber(std::string_view& text) {
  int number = 0;
  const auto end = std::from_chars(text.data(), text.data() + text.size(), number).ptr;
  text.remove_prefix(static_cast<std::size_t>(end - text.data()) + 1);
  return number;
}

// Takes apart what State::put has put together: no name holds a blank.
LogLine apart(std::string_view line) {
  const int level = takeNumber(line);
  const int id = takeNumber(line);
  const std::size_t blank = line.find(' ');
  return {level, id, line.substr(0, blank), line.substr(blank + 1)};
}

// On the writer's thread.
class WriterSink final : public spdlog::sinks::base_sink<std::mutex> {
 public:
  explicit WriterSink(std::function<void(const LogLine&)> its_writer)
      : writer(std::move(its_writer)) {}

 private:
  void sink_it_(const spdlog::details::log_msg& msg) override {
    writer(apart({msg.payload.data(), msg.payload.size()}));
  }
  void flush_() override {}

  const std::function<void(const LogLine&)> writer;
};

// To standard error, whatever the log writes to: the log itself is what does not work. By the
// monotonic clock, so that setting the clock back does not silence it.
void complain(const std::string& why) {
  static std::atomic<std::int64_t> next{0};
  const std::int64_t now = Clock::now();
  std::int64_t due = next.load();
  if (now < due || !next.compare_exchange_strong(due, now + kComplaintPause)) return;
  std::fprintf(stderr, "drovane: the log cannot be written: %s\n", why.c_str());
}

std::shared_ptr<spdlog::logger> prepared(std::shared_ptr<spdlog::logger> logger) {
  logger->set_level(spdlog::level::trace);
  logger->flush_on(spdlog::level::trace);
  logger->set_pattern(kPattern);
  logger->set_error_handler(complain);
  return logger;
}

}  // namespace

struct Log::State {
  std::shared_mutex lock;  // shared: writing a line; exclusive: changing where lines go
  std::shared_ptr<spdlog::logger> logger;
  std::shared_ptr<spdlog::details::thread_pool> writer;  // its thread uses the logger: goes first
  std::function<void(const LogLine&)> observer;
  std::atomic<std::size_t> reported_losses{0};
  std::atomic<std::size_t> not_made{0};  // lines, for want of memory

  // Line by line, for the time before the program has said where lines go and after it has ended.
  void direct() {
    writer.reset();  // ends with its thread, which still uses the logger
    logger = prepared(std::make_shared<spdlog::logger>("drovane", terminalSink()));
    reported_losses = 0;
  }

  void open(std::shared_ptr<spdlog::sinks::sink> sink) {
    const std::unique_lock exclusive(lock);
    writer = std::make_shared<spdlog::details::thread_pool>(kWaitingLines, 1);
    logger = prepared(std::make_shared<spdlog::async_logger>(
        "drovane", std::move(sink), writer, spdlog::async_overflow_policy::overrun_oldest));
    reported_losses = 0;
  }

  // With the time as we take it: the library's own is any moment where the system cannot tell it.
  template <typename... Parts>
  void put(int level, fmt::format_string<int&, Parts...> form, Parts&&... parts) {
    timeval now{};
    TimeValue::getCurrentSystemTime(now);
    const auto since_1970 =
        std::chrono::seconds(now.tv_sec) + std::chrono::microseconds(now.tv_usec);
    spdlog::memory_buf_t line;
    fmt::format_to(std::back_inserter(line), form, level, std::forward<Parts>(parts)...);
    logger->log(spdlog::log_clock::time_point(since_1970), spdlog::source_loc{}, spdlogLevel(level),
                spdlog::string_view_t(line.data(), line.size()));
  }

  void reportNotMade() {
    if (not_made.load(std::memory_order_relaxed) == 0) return;
    put(LOG_LEVEL_ERROR, "{} {} {} {} log lines lost for want of memory", kFrameworkId,
        kFrameworkName, not_made.exchange(0));
  }

  void reportLosses() {
    if (!writer) return;
    const std::size_t lost = writer->overrun_counter();
    std::size_t reported = reported_losses.load(std::memory_order_relaxed);
    // One line per flood: the next report waits until the queue has room again.
    if (lost == reported || writer->queue_size() > kWaitingLines / 2) return;
    if (!reported_losses.compare_exchange_strong(reported, lost)) return;
    put(LOG_LEVEL_ERROR, "{} {} {} {} log lines lost in a flood", kFrameworkId, kFrameworkName,
        lost - reported);
  }
};

Log::Log() : state(std::make_unique<State>()) { state->direct(); }

Log::~Log() = default;

Log& Log::global() {
  static Log log;
  return log;
}

void Log::openTerminal() {
  // A coloured line is written in pieces; what shares the terminal must not get in between.
  std::setvbuf(stderr, nullptr, _IOLBF, BUFSIZ);
  state->open(terminalSink());
}

void Log::openFile(const std::string& path) {
  try {
    state->open(std::make_shared<FileSink>(path));
  } catch (const std::system_error& error) {
    throw std::runtime_error("log file '" + path + "' cannot be opened: " + error.code().message());
  }
}

void Log::openWriter(std::function<void(const LogLine&)> writer) {
  state->open(std::make_shared<WriterSink>(std::move(writer)));
}

void Log::close() {
  const std::unique_lock exclusive(state->lock);
  // The writer's destructor waits until its queue is empty.
  state->direct();
}

void Log::observe(std::function<void(const LogLine&)> observer) {
  const std::unique_lock exclusive(state->lock);
  state->observer = std::move(observer);
}

void Log::makeOneLine(std::string& text) {
  if (!text.empty() && text.back() == '\n') text.pop_back();
  if (std::none_of(text.begin(), text.end(), control)) return;
  std::string clean;
  std::string escaped;
  for (const char& byte : text) {
    if (!control(byte)) {
      clean += byte;
      continue;
    }
    RovikUtil::escape(escaped, &byte, 1);
    clean += escaped;
  }
  text = std::move(clean);
}

void Log::write(int level, int id, std::string_view name, std::string& text) {
  makeOneLine(text);
  const std::shared_lock shared(state->lock);
  if (state->observer) state->observer({level, id, name, text});
  state->put(level, "{} {} {} {}", id, name, text);
  state->reportNotMade();
  state->reportLosses();
}

void Log::countLost() noexcept { state->not_made.fetch_add(1, std::memory_order_relaxed); }

}  // namespace drovane
