#include "Control.h"

#include <algorithm>
#include <stdexcept>

namespace soak {

using drovane::Json;

std::int64_t numberIn(const cJSON* object, const char* field) {
  const cJSON* const item = cJSON_GetObjectItemCaseSensitive(object, field);
  return cJSON_IsNumber(item) != 0 ? static_cast<std::int64_t>(item->valuedouble) : 0;
}

bool trueIn(const cJSON* object, const char* field) {
  return cJSON_IsTrue(cJSON_GetObjectItemCaseSensitive(object, field)) != 0;
}

std::string textIn(const cJSON* object, const char* field) {
  const char* const text = cJSON_GetStringValue(cJSON_GetObjectItemCaseSensitive(object, field));
  return text != nullptr ? text : "";
}

Json Control::ask(const std::string& request) {
  if (!client.send(request + '\n')) throw std::runtime_error("the control socket is closed");
  Json answer(cJSON_Parse(client.readLine().c_str()));
  if (!trueIn(answer.get(), "ok"))
    throw std::runtime_error(request + ": " +
                             (answer ? textIn(answer.get(), "error") : "no answer in time"));
  return answer;
}

Json Control::statusRows() { return ask(R"({"op":"status"})"); }

Status Control::status() {
  const auto begun = std::chrono::steady_clock::now();
  const Json answer = statusRows();
  Status sum;
  sum.answered_in = std::chrono::duration_cast<std::chrono::milliseconds>(
      std::chrono::steady_clock::now() - begun);
  sum.undeliverable = numberIn(answer.get(), "undeliverable");
  const cJSON* row = nullptr;
  cJSON_ArrayForEach(row, cJSON_GetObjectItemCaseSensitive(answer.get(), "roviks")) {
    ++sum.roviks;
    sum.running += trueIn(row, "running") ? 1 : 0;
    sum.links += trueIn(row, "link_open") ? 1 : 0;
    sum.held_back += trueIn(row, "held_back") ? 1 : 0;
    sum.queued += numberIn(row, "queued");
    sum.deepest = std::max(sum.deepest, numberIn(row, "queued"));
    sum.received += numberIn(row, "in");
    sum.sent += numberIn(row, "out");
    sum.dropped += numberIn(row, "dropped");
    sum.warnings += numberIn(row, "warning_count");
  }
  return sum;
}

std::string Control::command(const std::string& rovik, const std::string& word) {
  const Json answer = ask(R"({"op":"cmd","rovik":")" + rovik + R"(","words":[")" + word + R"("]})");
  return textIn(answer.get(), "reply");
}

}  // namespace soak
