#include "support/QuietLog.h"

#include <stdlib.h>

#include <cerrno>
#include <filesystem>
#include <system_error>

#include "Drovane.h"
#include "framework/Log.h"

namespace bench {

QuietLog::QuietLog() : folder((std::filesystem::temp_directory_path() / "bench-XXXXXX").string()) {
  if (mkdtemp(folder.data()) == nullptr)
    throw std::system_error(errno, std::generic_category(), "mkdtemp");
  drovane::Log::global().openFile(folder + "/log");
  Drovane::global.setLogLevel(LOG_LEVEL_INFO);
}

QuietLog::~QuietLog() {
  drovane::Log::global().close();
  // What a level-3 line still says from here on is the end of the roviks, of no interest.
  Drovane::global.setLogLevel(LOG_LEVEL_ERROR);
  std::error_code ignored;
  std::filesystem::remove_all(folder, ignored);
}

}  // namespace bench
