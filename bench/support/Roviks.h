// Roviks of a benchmark: made as the framework makes them, in the router, configured.
#pragma once

#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "Rovik.h"
#include "framework/Identity.h"
#include "framework/RovikHost.h"

namespace bench {

using Words = std::vector<std::string>;

inline drovane::RovikHost& hostOf(Rovik& rovik) { return drovane::RovikHost::of(rovik); }

struct StopAndDelete {
  void operator()(Rovik* rovik) const {
    rovik->stop();
    std::default_delete<Rovik>()(rovik);
  }
};
// Its thread, if it runs, ends before the rovik does.
template <typename Kind>
using OwnedRovik = std::unique_ptr<Kind, StopAndDelete>;

// In the router, not yet running.
template <typename Kind, typename... Arguments>
OwnedRovik<Kind> makeRovik(int id, const std::string& name, Arguments&&... arguments) {
  const drovane::IdentityForConstruction identity(id, name);
  OwnedRovik<Kind> rovik(std::make_unique<Kind>(std::forward<Arguments>(arguments)...).release());
  if (!hostOf(*rovik).enterRouter()) throw std::runtime_error("address is taken: " + name);
  return rovik;
}

// A command that has to be answered with "OK".
inline void command(Rovik& rovik, const Words& words) {
  const auto result = hostOf(rovik).command(words);
  if (!result.answered || result.text != "OK")
    throw std::runtime_error(words.front() + ": " + result.text);
}

// The commands that open a GenericNet's link to a port of 127.0.0.1.
inline void openLink(Rovik& link, int port) {
  command(link, {"mode", "tcp"});
  command(link, {"host", "127.0.0.1"});
  command(link, {"port", std::to_string(port)});
  command(link, {"chopeol", "on"});
  command(link, {"open"});
}

inline void startThread(Rovik& rovik) {
  if (hostOf(rovik).start() != 0) throw std::runtime_error("a thread does not start");
}

}  // namespace bench
