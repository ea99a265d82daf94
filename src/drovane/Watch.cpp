#include <signal.h>
#include <unistd.h>

#include <iostream>

#include "ControlClient.h"
#include "MessageText.h"
#include "Subcommands.h"
#include "Terminal.h"
#include "framework/Router.h"

namespace drovane {
namespace {

// Every line is written out at once, so there is nothing to tidy up.
void leave(int) { ::_exit(kDone); }

void leaveOnSignals() {
  struct sigaction action {};
  action.sa_handler = leave;
  for (const int signal : {SIGINT, SIGTERM}) ::sigaction(signal, &action, nullptr);
}

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

}  // namespace

int watch(const Options& options) {
  leaveOnSignals();
  ControlClient client(ControlClient::choosePath(options.control));
  const RovikNames names = rovikNames(client);
  const bool colours = coloursWanted();
  client.request(newRequest("watch"));
  while (true) {
    const std::string line = client.readLine();
    std::cout << (options.json ? line : textLine(line, names, colours)) << std::endl;
  }
}

}  // namespace drovane
