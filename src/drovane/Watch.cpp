#include "ControlClient.h"
#include "MessageText.h"
#include "Signals.h"
#include "Subcommands.h"
#include "Terminal.h"
#include "framework/Router.h"

namespace drovane {
namespace {

RovikNames rovikNames(ControlClient& client) {
  RovikNames names = {{kCommandLineId, kCommandLineName}};
  const Json reply = client.request(newRequest("status"));
  const cJSON* row = nullptr;
  cJSON_ArrayForEach(row, cJSON_GetObjectItemCaseSensitive(reply.get(), "roviks")) {
    const cJSON* id = cJSON_GetObjectItemCaseSensitive(row, "id");
    std::string name;
    if (cJSON_IsNumber(id) && readText(row, "name", name)) names[id->valueint] = printable(name);
  }
  return names;
}

std::string textLine(const std::string& line, const RovikNames& names, bool colours) {
  const Json message(cJSON_Parse(line.c_str()));
  const cJSON* dropped = cJSON_GetObjectItemCaseSensitive(message.get(), "dropped");
  if (cJSON_IsNumber(dropped))
    return "(" + std::to_string(dropped->valueint) + " messages not shown: they came too fast)";
  return messageText(message.get(), names, colours);
}

void addTexts(const Json& request, const char* field, const std::vector<std::string>& texts) {
  if (texts.empty()) return;
  cJSON* const list = cJSON_AddArrayToObject(request.get(), field);
  for (const std::string& text : texts)
    cJSON_AddItemToArray(list, cJSON_CreateString(text.c_str()));
}

Json watchRequest(const Options& options) {
  Json request = newRequest("watch");
  std::vector<std::string> types;
  for (const std::string& kind : options.kinds) types.push_back(kindOf(kind));
  addTexts(request, "roviks", options.roviks);
  addTexts(request, "kinds", types);
  addTexts(request, "keys", options.keys);
  return request;
}

}  // namespace

// Every line is written out at once, so there is nothing to tidy up.
int watch(const Options& options) {
  leaveOnSignals();
  ControlClient client(ControlClient::choosePath(options.control));
  const RovikNames names = rovikNames(client);
  const bool colours = coloursWanted();
  client.request(watchRequest(options));
  while (true) {
    const std::string line = client.readLine();
    printLine(options.json ? line : textLine(line, names, colours));
  }
}

}  // namespace drovane
