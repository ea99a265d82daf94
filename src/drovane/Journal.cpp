#include "Journal.h"

#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <exception>
#include <iostream>
#include <string>
#include <system_error>

#include "Drovane.h"
#include "Systemd.h"
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
  const int result = Systemd::library().journalSendv(parts.data(), static_cast<int>(parts.size()));
  if (result < 0) throw std::system_error(-result, std::generic_category(), "journal");
}

// Why lines cannot be written there; empty when they can.
std::string obstacle() {
  const int missing = journalError();
  if (missing != 0) return std::string(kSocket) + ": " + std::strerror(missing);
  try {
    Systemd::library();
    return "";
  } catch (const std::exception& error) {
    return error.what();
  }
}

}  // namespace

void openJournal() {
  const std::string why = obstacle();
  if (why.empty()) {
    Log::global().openWriter(write);
    return;
  }
  std::cerr << "drovane: the journal cannot be reached: " + why +
                   "; the log goes to standard error\n";
  Log::global().openTerminal();
}

}  // namespace drovane
