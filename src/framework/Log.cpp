#include "Log.h"

#include <spdlog/async.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/sinks/rotating_file_sink.h>
#include <spdlog/sinks/stdout_color_sinks.h>
#include <spdlog/spdlog.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <mutex>
#include <shared_mutex>
#include <stdexcept>

#include "Drovane.h"
#include "Format.h"
#include "RovikUtil.h"

namespace drovane {
namespace {

constexpr const char* kPattern = "%Y-%m-%dT%H:%M:%S.%e%z %^%v%$";
constexpr std::size_t kWaitingLines = 8192;
constexpr std::size_t kFileSize = 10 * 1024 * 1024;
constexpr std::size_t kOldFiles = 5;

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

// A device or a pipe is written to as it is: to begin a new one would mean to rename it.
std::shared_ptr<spdlog::sinks::sink> fileSink(const std::string& path) {
  std::error_code unknown;
  const auto kind = std::filesystem::status(path, unknown).type();
  if (kind == std::filesystem::file_type::regular || kind == std::filesystem::file_type::not_found)
    return std::make_shared<spdlog::sinks::rotating_file_sink_mt>(path, kFileSize, kOldFiles);
  return std::make_shared<spdlog::sinks::basic_file_sink_mt>(path);
}

std::shared_ptr<spdlog::logger> prepared(std::shared_ptr<spdlog::logger> logger) {
  logger->set_level(spdlog::level::trace);
  logger->flush_on(spdlog::level::trace);
  logger->set_pattern(kPattern);
  return logger;
}

}  // namespace

struct Log::State {
  std::shared_mutex lock;  // shared: writing a line; exclusive: changing where lines go
  std::shared_ptr<spdlog::logger> logger;
  std::shared_ptr<spdlog::details::thread_pool> writer;  // its thread uses the logger: goes first
  std::function<void(const LogLine&)> observer;
  std::atomic<std::size_t> reported_losses{0};

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

  void reportLosses() {
    if (!writer) return;
    const std::size_t lost = writer->overrun_counter();
    std::size_t reported = reported_losses.load(std::memory_order_relaxed);
    // One line per flood: the next report waits until the queue has room again.
    if (lost == reported || writer->queue_size() > kWaitingLines / 2) return;
    if (!reported_losses.compare_exchange_strong(reported, lost)) return;
    logger->log(spdlog::level::err, "{} {} {} {} log lines lost in a flood", LOG_LEVEL_ERROR + 0,
                kFrameworkId, kFrameworkName, lost - reported);
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
    state->open(fileSink(path));
  } catch (const spdlog::spdlog_ex& error) {
    throw std::runtime_error("log file '" + path + "' cannot be opened: " + error.what());
  }
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
  state->logger->log(spdlogLevel(level), "{} {} {} {}", level, id, name, text);
  state->reportLosses();
}

}  // namespace drovane
