// The main road: lines from a TCP peer, through GenericNet and the router, into another rovik.
//
//   sender process ==TCP==> GenericNet ==router==> Receiver
#pragma once

#include <stdexcept>
#include <thread>
#include <vector>

#include "generic_net/GenericNet.h"
#include "support/LineRun.h"
#include "support/Lines.h"
#include "support/Roviks.h"

namespace bench {

// Shows every data value to a check, which has a `take` for its text, a `fault`, and an `ending`.
template <typename Check>
class Receiver : public Rovik {
 public:
  explicit Receiver(Check& its_check) : check(its_check) {}
  int selectMM(RovikMessage* msg) override {
    if (msg->type == MM_DATA) check.take(static_cast<MMData*>(msg)->value_s);
    return 0;
  }

 private:
  Check& check;
};

// GenericNet closes its link at the end of the stream: then every line is on its way.
inline void awaitQuiet(Rovik& link, Rovik& receiver) {
  const auto deadline = SteadyClock::now() + kPatience;
  while (hostOf(link).status().link_open || hostOf(receiver).status().queued > 0) {
    if (SteadyClock::now() > deadline) throw std::runtime_error("the link does not close");
    std::this_thread::yield();
  }
}

// The link is rovik 1, the receiver rovik 2.
template <typename Check>
Run road(LineSource& source, const Job& job, const std::vector<Words>& settings, Check& check) {
  const auto receiver = makeRovik<Receiver<Check>>(2, "receiver", check);
  const auto link = makeRovik<GenericNet>(1, "link");
  for (const Words& words : settings) command(*link, words);
  openLink(*link, source.port());
  startThread(*receiver);
  startThread(*link);
  Run run = measure(source, job, check.ending);
  awaitQuiet(*link, *receiver);
  link->stop();
  receiver->stop();
  run.fault = check.fault();
  return run;
}

}  // namespace bench
