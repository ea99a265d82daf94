#include "Systemd.h"

#include <dlfcn.h>

#include <stdexcept>
#include <string>

namespace drovane {
namespace {

constexpr const char* kLibrary = "libsystemd.so.0";

[[noreturn]] void fail() {
  const char* const reason = dlerror();
  throw std::runtime_error(std::string("the library of systemd cannot be loaded: ") +
                           (reason != nullptr ? reason : kLibrary));
}

template <typename Function>
void find(void* library, const char* name, Function& function) {
  function = reinterpret_cast<Function>(dlsym(library, name));
  if (function == nullptr) fail();
}

}  // namespace

Systemd::Systemd() {
  void* const library = dlopen(kLibrary, RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);
  if (library == nullptr) fail();
  find(library, "sd_journal_sendv", journalSendv);
  find(library, "sd_watchdog_enabled", watchdogEnabled);
}

const Systemd& Systemd::library() {
  static const Systemd loaded;
  return loaded;
}

}  // namespace drovane
