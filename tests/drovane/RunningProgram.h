// The real program with a folder, a control socket and a shelf of plug-ins of its own.
#pragma once

#include <cjson/cJSON.h>

#include <memory>
#include <string>
#include <vector>

#include "framework/MessageJson.h"
#include "support/Process.h"
#include "support/TempFolder.h"

using Arguments = std::vector<std::string>;

class Program {
 public:
  const TempFolder folder;
  const std::string control = folder / "control";

  // Starts "drovane run" with this configuration. Does not wait.
  Process& start(const std::string& config, const Arguments& options = {});
  // The same, and waits until every rovik runs.
  Process& startReady(const std::string& config, const Arguments& options = {});
  Process& running() { return *process; }
  // Asks it to end. It is gone with status 0, and no rovik was left behind, within 5 seconds and
  // one more for a slow machine.
  void expectEndsInTime();
  // Where the configuration is.
  std::string file() const { return folder / "house.conf"; }

  // Runs another drovane to its end: "check", or one that talks to the running one.
  Finished ask(const Arguments& arguments) const;
  Finished check(const std::string& config) const;
  // Runs "drovane run" to its end.
  Finished runToItsEnd(const std::string& config, const Arguments& options = {}) const;
  // "watch", already connected. `sign` sends a message under 9_9_9 that it has to show.
  std::unique_ptr<Process> watch(const Arguments& options = {},
                                 const Arguments& sign = {"send", "9_9_9", "int", "1"});

  // The status of a rovik, once it is there.
  drovane::Json statusOf(int id) const;

 private:
  Arguments runLine(const Arguments& options) const;
  Process::Environment environment() const { return {{"DROVANE_CONTROL", control}}; }

  std::unique_ptr<Process> process;
};

// Two well-behaved roviks, and whatever comes behind them.
std::string houseWith(const std::string& more = "");
