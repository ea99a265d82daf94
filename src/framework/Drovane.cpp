#include "Drovane.h"

#include <cstdarg>

#include "Format.h"
#include "Log.h"
#include "MessageFields.h"
#include "Mutex.h"

namespace {

struct Root {
  Mutex lock;
  std::string path DROVANE_GUARDED_BY(lock) = ".";
};

Root& root() {
  static Root instance;
  return instance;
}

}  // namespace

Drovane Drovane::global;

void Drovane::log(int level, int id, std::string name, const char* fmt, ...) {
  if (!logs(level)) return;
  static thread_local std::string text;
  va_list args;
  va_start(args, fmt);
  drovane::formatInto(text, fmt, args);
  va_end(args);
  drovane::Log::global().write(level, id, name, text);
}

void Drovane::getInstRoot(char* buf, int size) const {
  MutexLock lock(root().lock);
  drovane::copyText(root().path, buf, size);
}

void Drovane::setInstRoot(const std::string& path) {
  MutexLock lock(root().lock);
  root().path = path;
}
