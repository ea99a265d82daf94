#include "LogFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <system_error>
#include <utility>

#include "Clock.h"
#include "Drovane.h"
#include "LocalTime.h"
#include "Log.h"

namespace drovane {
namespace {

// After a new file could not be begun.
constexpr std::int64_t kRotationPause = 10 * Clock::kNanosecondsPerSecond;
constexpr mode_t kReadableByAll = 0644;

std::string ownLine(const std::string& text) {
  return localTimeNow() + ' ' + std::to_string(LOG_LEVEL_ERROR) + ' ' +
         std::to_string(kFrameworkId) + ' ' + kFrameworkName + ' ' + text + '\n';
}

[[noreturn]] void fail(int error) { throw std::system_error(error, std::generic_category()); }

}  // namespace

LogFile::LogFile(std::string its_path) : path(std::move(its_path)) { begin(open(path)); }

// Above the links' descriptors, in a folder that is made if need be. Throws std::system_error.
Descriptor LogFile::open(const std::string& name) {
  std::error_code not_made;  // then the file cannot be opened either
  const std::filesystem::path folder = std::filesystem::path(name).parent_path();
  if (!folder.empty()) std::filesystem::create_directories(folder, not_made);
  Descriptor opened(
      ::open(name.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOCTTY, kReadableByAll));
  if (!opened) fail(errno);
  return moveAboveLinks(std::move(opened));
}

void LogFile::begin(Descriptor opened) {
  struct stat facts {};
  if (::fstat(opened.get(), &facts) != 0) fail(errno);
  regular = S_ISREG(facts.st_mode);
  size = regular ? std::int64_t{facts.st_size} : 0;
  file = std::move(opened);
}

void LogFile::write(std::string_view line) {
  if (regular && size + static_cast<std::int64_t>(line.size()) > kLargest && size > 0) makeRoom();
  if (missing > 0) reportMissing();
  if (missing == 0) missing_error = append(line);
  if (missing_error == 0) return;
  ++missing;
  fail(missing_error);
}

// Where the lines that are missing would have been.
void LogFile::reportMissing() {
  const std::string report = ownLine(std::to_string(missing) + " log lines could not be written: " +
                                     std::generic_category().message(missing_error));
  const int error = append({report.data(), report.size()});
  if (error != 0) {
    missing_error = error;
    return;
  }
  missing = 0;
}

// 0 or the error number. A piece that found room is taken back.
int LogFile::append(std::string_view text) {
  std::string_view rest = text;
  while (!rest.empty()) {
    const ssize_t count = ::write(file.get(), rest.data(), rest.size());
    const int error = errno;
    if (count >= 0) {
      rest.remove_prefix(static_cast<std::size_t>(count));
    } else if (error != EINTR) {
      const std::size_t done = text.size() - rest.size();
      if (regular && done > 0 && ::ftruncate(file.get(), static_cast<off_t>(size)) != 0)
        size += static_cast<std::int64_t>(done);
      return error;
    }
  }
  if (regular) size += static_cast<std::int64_t>(text.size());
  return 0;
}

void LogFile::makeRoom() {
  if (Clock::now() < rotate_again) return;
  rotate_again = Clock::now() + kRotationPause;
  try {
    Descriptor next = open(path + ".new");
    shiftOldFiles();
    begin(std::move(next));
    rotate_again = 0;
  } catch (const std::system_error& error) {
    append(ownLine("a new log file could not be begun: " + error.code().message()));
  }
}

// A file that somebody has moved away or deleted is left out.
void LogFile::shiftOldFiles() const {
  for (int number = kOldFiles; number > 1; --number)
    std::rename(oldFile(number - 1).c_str(), oldFile(number).c_str());
  std::rename(path.c_str(), oldFile(1).c_str());
  if (std::rename((path + ".new").c_str(), path.c_str()) != 0) fail(errno);
}

std::string LogFile::oldFile(int number) const { return path + '.' + std::to_string(number); }

}  // namespace drovane
