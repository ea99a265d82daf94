#include "Journal.h"

#define SD_JOURNAL_SUPPRESS_LOCATION  // of this source, for every line
#include <sys/uio.h>
#include <systemd/sd-journal.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <iostream>
#include <string>
#include <system_error>

#include "Drovane.h"
#include "framework/Log.h"

namespace drovane {
namespace {

constexpr const char* kSocket = "/run/systemd/journal/socket";

const char* priority(int level) {
  if (level <= LOG_LEVEL_ERROR) return "3";
  return level == LOG_LEVEL_INFO ? "6" : "7";
}

// The library takes a journal that is not there for a success. 0 or an error number.
int journalError() { return ::access(kSocket, W_OK) == 0 ? 0 : errno; }

// On the log's writing thread. Throws std::system_error, which the log complains about.
void write(const LogLine& line) {
  const int missing = journalError();
  if (missing != 0) throw std::system_error(missing, std::generic_category(), "journal");
  std::array<std::string, 5> fields = {
      std::string("PRIORITY=") + priority(line.level),
      std::string("MESSAGE=").append(line.text),
      "SYSLOG_IDENTIFIER=drovane",
      std::string("DROVANE_ROVIK=").append(line.name),
      "DROVANE_ID=" + std::to_string(line.id),
  };
  std::array<iovec, fields.size()> parts{};
  std::transform(fields.begin(), fields.end(), parts.begin(), [](std::string& field) {
    return iovec{field.data(), field.size()};
  });
  const int result = sd_journal_sendv(parts.data(), static_cast<int>(parts.size()));
  if (result < 0) throw std::system_error(-result, std::generic_category(), "journal");
}

}  // namespace

void openJournal() {
  const int missing = journalError();
  if (missing == 0) {
    Log::global().openWriter(write);
    return;
  }
  std::cerr << std::string("drovane: the journal cannot be reached: ") + kSocket + ": " +
                   std::strerror(missing) + "; the log goes to standard error\n";
  Log::global().openTerminal();
}

}  // namespace drovane
