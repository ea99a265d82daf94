// A running house to which the system does what systems do to it.
#pragma once

#include <sys/resource.h>

#include <cstdint>
#include <memory>
#include <string>

#include "RunningProgram.h"
#include "support/PeerTcp.h"

class FaultyHouse {
 public:
  Program program;
  std::string plug_ins = DROVANE_TEST_PLUGINS;  // where they are looked for

  // Starts "drovane run" with this configuration. `before` is what runs it, when that is not this
  // test itself. Does not wait.
  Process& start(const std::string& config, const Arguments& options = {},
                 Process::Environment extra = {}, Arguments before = {});
  // The same, and waits until every rovik runs.
  Process& startReady(const std::string& config, const Arguments& options = {},
                      const Process::Environment& extra = {});
  // Once more, as an operator would, after the end.
  Process& restart(const Arguments& options = {});

  Process& running() { return *process; }
  std::string command(const std::string& rovik, const Arguments& words) const;
  // Whether the rovik "other" of houseOf has been told this value.
  bool arrives(const std::string& value) const;
  // Asks it to end; status 0, in time.
  void expectEndsInTime();

  // Sets one limit of the running program. The hard limit stays.
  void limit(__rlimit_resource resource, rlim_t now) const;
  void unlimit(__rlimit_resource resource) const;
  // The address space that it uses, in bytes.
  rlim_t addressSpace() const;

  // Writes lua/NAME.lua.
  void script(const std::string& name, const std::string& text) const;
  // LD_LIBRARY_PATH for a program that finds no library in the file of this name.
  std::string folderWithBroken(const std::string& library) const;
  // Whether the running program has it.
  bool hasLoaded(const std::string& library) const;

 private:
  std::unique_ptr<Process> process;
};

// A supply of memory and threads that can run short while a program runs.
class ShortSupply {
 public:
  ShortSupply() { set(0, 0); }
  // Every n-th request for memory fails, and the m-th thread cannot be made; 0: none.
  void set(std::uint32_t n, std::uint32_t m = 0) const;
  Process::Environment environment() const;

 private:
  TempFolder folder;
};

// "boiler", with a TCP link to this peer that is open, and "other", which keeps the last value that
// it was told.
std::string houseOf(const TcpPeer& peer, const std::string& more = "");
