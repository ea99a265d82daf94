#include "Drovane.h"

#include <cstdarg>
#include <exception>

#include "Format.h"
#include "Log.h"
#include "MessageFields.h"
#include "Mutex.h"

namespace {

struct Root {
  Mutex lock;
  std::string path DROVANE_GUARDED_BY(lock) = ".";
};

std::string& lineOfThisThread() {
  static thread_local std::string line;
  return line;
}

Root& root() {
  static Root instance;
  return instance;
}

}  // namespace

Drovane Drovane::global;

void Drovane::log(int level, int id, std::string name, const char* fmt, ...) {
  if (!logs(level)) return;
  std::string& text = lineOfThisThread();
  va_list args;
  va_start(args, fmt);
  try {
    drovane::formatInto(text, fmt, args);
    drovane::Log::global().write(level, id, name, text);
  } catch (const std::exception&) {
    // Whoever reports an error must not meet another one.
    drovane::Log::global().countLost();
  }
  va_end(args);
}

void drovane::Log::prepareThread() { lineOfThisThread(); }

void Drovane::getInstRoot(char* buf, int size) const {
  MutexLock lock(root().lock);
  drovane::copyText(root().path, buf, size);
}

void Drovane::setInstRoot(const std::string& path) {
  MutexLock lock(root().lock);
  root().path = path;
}
