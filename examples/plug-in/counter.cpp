// Counts the values that other roviks report. It tells the sum to everybody at a steady interval,
// and to whoever asks for it.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "Drovane.h"
#include "Owned.h"
#include "Rovik.h"
#include "RovikUtil.h"

namespace {

class Counter : public Rovik {
 public:
  Counter() { period = TimeValue(60, 0); }

  // every SECONDS: the interval.
  std::string interpretCmd(char** arg) override {
    const std::string_view word = arg[0] != nullptr ? arg[0] : "";
    if (word != "every" || arg[1] == nullptr) return Rovik::interpretCmd(arg);
    const int seconds = std::atoi(arg[1]);
    if (seconds < 1) {
      const std::string text = RovikUtil::vsnprintftostr("every %s: not above 0\n", arg[1]);
      Drovane::global.log(LOG_LEVEL_ERROR, id, name, "%s", text.c_str());
      setWarning(text);
      return "ERROR (NOT ABOVE 0)";
    }
    period = TimeValue(seconds, 0);
    timer.set(period, false);
    Drovane::global.log(LOG_LEVEL_INFO, id, name, "telling every %d s\n", seconds);
    return "OK";
  }

  int selectMM(RovikMessage* msg) override {
    if (msg->type == MM_DATA) ++seen;
    if (msg->type == MM_DATA_REQUEST) tell(msg->src, msg->seqnr);
    return 0;
  }

  int selectTI() override {
    tell(NO_DESTINATION, 0);
    return 0;
  }

 private:
  void tell(std::uint32_t whom, std::uint32_t seqnr) {
    const auto data = createOwned<MMData>(MM_DATA);
    if (data == nullptr) return;
    data->dst = whom;
    data->seqnr = seqnr;
    data->network_id = static_cast<std::uint32_t>(id);
    data->value_type = VAL_INT;
    data->value_i = seen;
    messageSnd(data.get());
  }

  std::uint32_t seen = 0;
};

}  // namespace

extern "C" Rovik* maker() { return new Counter; }
