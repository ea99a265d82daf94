#include <algorithm>
#include <cstdint>
#include <iostream>
#include <optional>

#include "ControlClient.h"
#include "Recording.h"
#include "Signals.h"
#include "Subcommands.h"
#include "Terminal.h"
#include "TraceText.h"

namespace drovane {
namespace {

// What is traced, seen from the client: each event goes to the recording, if there is one, and then
// to standard output.
class Tracing {
 public:
  explicit Tracing(const Options& options)
      : client(ControlClient::choosePath(options.control)), style{options.hex, coloursWanted()} {
    const Json request = newRequest("trace");
    addText(request.get(), "rovik", options.rovik);
    const Json reply = client.request(request);
    readText(reply.get(), "rovik", rovik);
    if (!options.record.empty()) beginRecording(reply.get(), options);
    const bool open = cJSON_IsTrue(cJSON_GetObjectItemCaseSensitive(reply.get(), "link_open")) != 0;
    std::cerr << "drovane: tracing " + printable(rovik) + ", its link is " +
                     (open ? "open" : "closed") + '\n';
  }

  // Until the rovik is gone.
  int run() {
    while (true) {
      const Json line(cJSON_Parse(client.readLine().c_str()));
      if (const auto event = tracedEvent(line.get()))
        show(*event);
      else if (const auto lost = lostEvents(line.get()))
        tellLost(*lost, line.get());
      else if (isEnd(line.get()))
        break;
    }
    std::cerr << "drovane: rovik " + printable(rovik) + " is gone; expected it to stay\n";
    return kRefused;
  }

 private:
  void beginRecording(const cJSON* reply, const Options& options) {
    RecordingHead head;
    head.rovik = rovik;
    readText(reply, "mode", head.mode);
    const bool one_word = std::all_of(head.mode.begin(), head.mode.end(),
                                      [](char letter) { return letter > ' ' && letter < 0x7F; });
    if (!one_word) head.mode.clear();
    readText(reply, "time", head.start);
    recording.emplace(options.record, options.force);
    recording->begin(head);
  }

  void show(const TracedEvent& event) {
    if (recording) recording->add(event.microseconds, event.sign, event.bytes);
    printLine(traceText(event, style));
  }

  static bool isEnd(const cJSON* line) {
    std::string name;
    return readText(line, "event", name) && name == "ended";
  }

  static std::optional<double> lostEvents(const cJSON* line) {
    const cJSON* const dropped = cJSON_GetObjectItemCaseSensitive(line, "dropped");
    return cJSON_IsNumber(dropped) ? std::optional(dropped->valuedouble) : std::nullopt;
  }

  void tellLost(double count, const cJSON* line) {
    const cJSON* const bytes = cJSON_GetObjectItemCaseSensitive(line, "dropped_bytes");
    const std::string events = std::to_string(static_cast<std::uint64_t>(count)) + " events";
    if (recording) {
      const double lost = cJSON_IsNumber(bytes) ? bytes->valuedouble : 0;
      recording->remark(events + " with " + std::to_string(static_cast<std::uint64_t>(lost)) +
                        " bytes are missing here: they came too fast");
    }
    printLine('(' + events + " not shown: they came too fast)");
  }

  ControlClient client;
  const TraceStyle style;
  std::string rovik;
  std::optional<RecordingWriter> recording;
};

}  // namespace

// Every line is written out at once, so there is nothing to tidy up.
int trace(const Options& options) {
  leaveOnSignals();
  return Tracing(options).run();
}

}  // namespace drovane
