// The log in a pipe that nobody reads until the end: the slowest disk there is.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "support/Child.h"
#include "support/TempFolder.h"

namespace bench {

// What came out of the pipe.
struct LogTotals {
  std::uint64_t written;  // lines, but for the reports
  std::uint64_t lost;     // lines, as the reports say
  std::uint64_t reports;
};

class StuckLog {
 public:
  // Makes the process that will read. To be made before any thread.
  StuckLog();
  // Frees whoever waits for the pipe.
  ~StuckLog();
  StuckLog(const StuckLog&) = delete;
  StuckLog& operator=(const StuckLog&) = delete;

  // From here on the log goes to a new pipe. No rovik exists.
  void open();

  // Lines that were logged since, whatever became of them.
  std::uint64_t logged() const { return lines.load(std::memory_order_relaxed); }

  // Waits until so many lines were logged that the log has had to lose some. False when they do not
  // come in time.
  bool awaitLoss() const;

  // Has what waits, and all that follows, read. Not needed before finish, but for freeing threads
  // that the log holds up although it must not.
  void drain();

  // Reads what waits, logs one more line, closes the log and reads the rest. To be called after a
  // loss, when nobody logs any more; from then on lines go to standard error.
  LogTotals finish();

 private:
  void close();

  const TempFolder folder;
  std::atomic<std::uint64_t> lines{0};
  bool opened = false;
  bool draining = false;
  Child reader;
};

}  // namespace bench
