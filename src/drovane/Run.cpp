#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <memory>
#include <new>
#include <optional>
#include <system_error>

#include "Caretaker.h"
#include "ControlClient.h"
#include "Drovane.h"
#include "Journal.h"
#include "Phase.h"
#include "Reload.h"
#include "RovikUtil.h"
#include "Signals.h"
#include "Subcommands.h"
#include "Terminal.h"
#include "framework/Clock.h"
#include "framework/ConfigFile.h"
#include "framework/ControlServer.h"
#include "framework/House.h"
#include "framework/Log.h"
#include "framework/PluginLoader.h"

namespace drovane {
namespace {

using std::chrono::nanoseconds;

// From the signal on: until when everything has to be over, and what the log gets after that.
constexpr std::chrono::milliseconds kStopBound{4500};
constexpr std::chrono::milliseconds kLogBound{300};
constexpr int kNothingElse = -1;  // but signals is waited for
constexpr int kInterrupted = 128 + SIGINT;

std::int64_t after(std::chrono::milliseconds delay) {
  return Clock::now() + nanoseconds(delay).count();
}

void log(int level, const std::string& text) {
  Drovane::global.log(level, kFrameworkId, kFrameworkName, "%s\n", text.c_str());
}

void openLog(const Options& options) {
  if (options.log_journal)
    openJournal();
  else if (options.log_file.empty())
    Log::global().openTerminal();
  else
    Log::global().openFile(options.log_file);
}

// Each link takes a descriptor, and the framework's own lie above those that links can use.
void raiseDescriptorLimit() {
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == limit.rlim_max) return;
  limit.rlim_cur = limit.rlim_max;
  if (::setrlimit(RLIMIT_NOFILE, &limit) != 0)
    log(LOG_LEVEL_ERROR,
        RovikUtil::vsnprintftostr("setrlimit (errno: %d %s)", errno, std::strerror(errno)));
}

// A peer that goes away while it is written to, and a file that has its largest size, are errors of
// that write, not of the process.
void ignoreFailingWrites() {
  ::signal(SIGPIPE, SIG_IGN);
  ::signal(SIGXFSZ, SIG_IGN);
}

// One run of a house, from its making to its end.
class Running {
 public:
  Running(const Options& its_options, ConfigFile config, const HouseSettings& settings)
      : options(its_options),
        house(std::move(config), [this](const std::string& finding) { report(finding); }),
        reload(options, settings, house, loader,
               [this](const std::string& finding) { report(finding); }) {}

  int run() {
    if (!house.make(loader)) return kUsage;
    control.emplace(
        ControlServer::Settings{ControlClient::choosePath(options.control), DROVANE_VERSION,
                                [this](ReloadDone done) { reload.request(std::move(done)); }},
        house);
    const int error = control->start();
    if (error != 0) throw std::system_error(error, std::generic_category(), "pthread_create");
    log(LOG_LEVEL_INFO, "control socket " + control->path());
    caretaker.emplace(house, *control, options.restart_hung);
    const int status = startAndWait();
    stop(status);
    return status;
  }

 private:
  // In a log file a finding would not be noticed at once.
  void report(const std::string& finding) const {
    log(LOG_LEVEL_ERROR, finding);
    if (!options.log_file.empty()) std::cerr << printable(finding) + '\n';
  }

  // Returns when it is time to stop: the status to leave with.
  int startAndWait() {
    starting.emplace("drovane-start", [this] { started = house.start(options.strict); });
    if (wait(starting->descriptor()) != Signals::Event::Done) return kDone;
    if (!started) return kUsage;
    log(LOG_LEVEL_INFO, options.file + ": " + house.countText());
    caretaker->ready();
    reload.open({[this] { caretaker->reloading(); }, [this] { caretaker->ready(); }});
    wait(kNothingElse);
    return kDone;
  }

  // Comes back with anything but a hang-up, which asks for a reload; the house is looked after
  // meanwhile.
  Signals::Event wait(int done) {
    while (true) {
      const Signals::Event event = signals.wait(done, caretaker->turn());
      if (event == Signals::Event::HangUp)
        reload.request();
      else if (event != Signals::Event::Deadline)
        return event;
    }
  }

  void stop(int status) {
    const std::int64_t deadline = after(kStopBound);
    Drovane::global.log(LOG_LEVEL_INFO, kFrameworkId, kFrameworkName, "stopping\n");
    caretaker->stopping();
    control.reset();
    stopping.begin();
    Signals::Event event = Signals::Event::Terminate;
    while (event == Signals::Event::Terminate || event == Signals::Event::HangUp)
      event = signals.wait(stopping.descriptor(), deadline);
    if (event == Signals::Event::Interrupt) ::_exit(kInterrupted);
    if (event == Signals::Event::Deadline) leaveStuck(status);
    closeLog(status);
  }

  void endHouse() {
    house.stop();
    reload.stop();
  }

  // Nobody can end a thread that does not come back; what it uses stays as it is.
  [[noreturn]] void leaveStuck(int status) {
    try {
      for (const std::string& rovik : house.unended())
        log(LOG_LEVEL_ERROR, "rovik " + rovik + " did not end in time");
    } catch (const std::bad_alloc&) {
      Log::global().countLost();
    }
    closeLog(status);
    std::_Exit(status);
  }

  // Whoever reads the log may have stopped reading.
  void closeLog(int status) {
    const std::int64_t deadline = after(kLogBound);
    closing.begin();
    Signals::Event event = Signals::Event::HangUp;
    while (event == Signals::Event::HangUp) event = signals.wait(closing.descriptor(), deadline);
    if (event != Signals::Event::Done) std::_Exit(status);
  }

  const Options& options;
  const Signals signals;
  House house;
  PluginLoader loader{PluginLoader::standardFolders(options.plugins)};
  std::optional<Caretaker> caretaker;  // told by `reload`, so it goes after that
  Reload reload;
  // Threads and descriptors that the end needs: by then there may be none.
  Phase stopping{"drovane-stop", [this] { endHouse(); }, Phase::Begin::WhenTold};
  Phase closing{"drovane-log", [] { Log::global().close(); }, Phase::Begin::WhenTold};
  std::optional<ControlServer> control;
  std::atomic<bool> started{false};  // set by the start phase
  std::optional<Phase> starting;
};

}  // namespace

int run(const Options& options) {
  raiseDescriptorLimit();
  ignoreFailingWrites();
  try {
    ConfigFile config = ConfigFile::read(options.file);
    const HouseSettings settings = HouseSettings::of(options, config);
    settings.apply();
    const std::unique_ptr<Running> running =
        std::make_unique<Running>(options, std::move(config), settings);
    openLog(options);
    return running->run();
  } catch (const ConfigError& error) {
    std::cerr << printable(error.what()) + '\n';
    return kUsage;
  }
}

}  // namespace drovane
