// Reading the configuration anew while the house runs.
#pragma once

#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "Options.h"
#include "Thread.h"
#include "framework/ConfigFile.h"
#include "framework/ControlOperations.h"
#include "framework/House.h"
#include "framework/PluginLoader.h"

namespace drovane {

// What holds for the whole house: options first, else the file, else what is usual.
struct HouseSettings {
  std::string root;
  int log_level = 0;

  static HouseSettings of(const Options& options, const ConfigFile& config);
  void apply() const;
};

// One thread, "drovane-reload", made before the house starts, so that a reload needs none. Reloads
// come one after the other, and none before `open`.
class Reload final : private Thread {
 public:
  // `its_settings` are those of the start. `loader` is this object's from `open` on, and
  // `its_report` is called with each finding that the house does not report. Throws
  // std::system_error.
  Reload(const Options& its_options, HouseSettings its_settings, House& its_house,
         PluginLoader& its_loader, House::Report its_report);
  ~Reload() override;

  // One more reload, after the one that may be going on. Any thread.
  void request();
  // The same; `done` is called on this object's thread.
  void request(ReloadDone done);

  // Called on this object's thread.
  struct Signs {
    std::function<void()> begins;  // a reload does
    std::function<void()> is_over;
  };
  // The start is over: what was requested meanwhile is done now.
  void open(Signs its_signs);

  // Waits for a reload that is going on, which ends soon once the house is being stopped. Who still
  // waits for one waits in vain.
  int stop() override;

 private:
  int main() override;
  bool awaitRequest();
  void endLate() noexcept;
  House::Reloaded perform() noexcept;
  House::Reloaded readAndReload();
  House::Reloaded refuse(const std::string& finding);
  void note(const House::Reloaded& outcome) const;

  const Options& options;
  House& house;
  PluginLoader& loader;
  const House::Report report;
  HouseSettings settings;  // in effect; this thread's
  bool some_late = false;  // this thread's: the last reload has given up some roviks

  std::mutex lock;
  std::condition_variable changed;
  bool opened = false;
  Signs signs;  // before `opened`; then only read
  bool requested = false;
  std::vector<ReloadDone> waiting;
  std::vector<ReloadDone> served;  // by the reload that is going on
};

}  // namespace drovane
