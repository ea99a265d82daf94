#include "Reload.h"

#include <cerrno>
#include <chrono>
#include <exception>
#include <new>
#include <system_error>
#include <utility>

#include "Drovane.h"
#include "framework/Log.h"

namespace drovane {
namespace {

// How often those that a reload has given up are looked at.
constexpr std::chrono::seconds kLook{1};

}  // namespace

HouseSettings HouseSettings::of(const Options& options, const ConfigFile& config) {
  return {options.root.empty() ? config.rootFolder() : options.root,
          options.log_level != 0 ? options.log_level : config.log_level.value_or(LOG_LEVEL_INFO)};
}

void HouseSettings::apply() const {
  Drovane::global.setLogLevel(log_level);
  Drovane::global.setInstRoot(root);
}

Reload::Reload(const Options& its_options, HouseSettings its_settings, House& its_house,
               PluginLoader& its_loader, House::Report its_report)
    : options(its_options),
      house(its_house),
      loader(its_loader),
      report(std::move(its_report)),
      settings(std::move(its_settings)) {
  const int error = start("drovane-reload");
  if (error != 0) throw std::system_error(error, std::generic_category(), "pthread_create");
}

Reload::~Reload() { Reload::stop(); }

void Reload::request() {
  const std::lock_guard guard(lock);
  requested = true;
  changed.notify_all();
}

void Reload::request(ReloadDone done) {
  const std::lock_guard guard(lock);
  waiting.push_back(std::move(done));
  requested = true;
  changed.notify_all();
}

void Reload::open(Signs its_signs) {
  const std::lock_guard guard(lock);
  signs = std::move(its_signs);
  opened = true;
  changed.notify_all();
}

int Reload::stop() {
  {
    const std::lock_guard guard(lock);
    askToStop();
    changed.notify_all();
  }
  return Thread::stop();
}

int Reload::main() {
  while (awaitRequest()) {
    signs.begins();
    const House::Reloaded outcome = perform();
    signs.is_over();
    some_late = outcome.left_some;
    for (const ReloadDone& done : served) done(outcome);
    served.clear();
  }
  return 0;
}

// False when there will be none. Everybody who asks until here gets the reload that now begins.
bool Reload::awaitRequest() {
  std::unique_lock guard(lock);
  const auto wanted = [&] { return stopping() || (opened && requested); };
  while (some_late && !changed.wait_for(guard, kLook, wanted)) {
    guard.unlock();
    endLate();
    guard.lock();
  }
  changed.wait(guard, wanted);
  if (stopping()) return false;
  requested = false;
  served.swap(waiting);
  return true;
}

// For want of memory it is tried again.
void Reload::endLate() noexcept {
  try {
    some_late = !house.endLate();
  } catch (const std::bad_alloc&) {
    Log::global().countLost();
  }
}

// For want of memory the outcome is one that needs none.
House::Reloaded Reload::perform() noexcept {
  try {
    House::Reloaded outcome = readAndReload();
    note(outcome);
    return outcome;
  } catch (const std::exception&) {
    Log::global().countLost();
    return {false, "out of memory", {}};
  }
}

House::Reloaded Reload::readAndReload() {
  try {
    const ConfigFile config = ConfigFile::read(options.file);
    HouseSettings wanted = HouseSettings::of(options, config);
    House::Terms terms;
    terms.restart_all = wanted.root != settings.root;
    terms.strict = options.strict;
    terms.apply = [&] {
      // A level that was set in another way stays, unless the file has changed it.
      if (wanted.log_level != settings.log_level) Drovane::global.setLogLevel(wanted.log_level);
      Drovane::global.setInstRoot(wanted.root);
      settings = std::move(wanted);
    };
    return house.reload(config, loader, terms);
  } catch (const ConfigError& error) {
    return refuse(error.what());
  }
}

House::Reloaded Reload::refuse(const std::string& finding) {
  report(finding);
  return {false, finding, {finding}};
}

// Findings were reported one by one.
void Reload::note(const House::Reloaded& outcome) const {
  if (outcome.done)
    Drovane::global.log(LOG_LEVEL_INFO, kFrameworkId, kFrameworkName, "%s\n", outcome.text.c_str());
  else if (!outcome.findings.empty())
    Drovane::global.log(LOG_LEVEL_ERROR, kFrameworkId, kFrameworkName,
                        "%s is not read anew: nothing was changed\n", options.file.c_str());
}

}  // namespace drovane
