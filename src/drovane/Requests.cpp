// cmd, send, get, log-level, reload: one request, one answer.
#include <iostream>

#include "ControlClient.h"
#include "MessageText.h"
#include "StatusText.h"
#include "Subcommands.h"
#include "Terminal.h"

namespace drovane {
namespace {

void print(const std::string& text) {
  const std::string shown = forOutput(text);
  std::cout << shown << (shown.ends_with('\n') ? "" : "\n") << std::flush;
}

}  // namespace

int cmd(const Options& options) {
  ControlClient client(ControlClient::choosePath(options.control));
  const Json request = newRequest("cmd");
  addText(request.get(), "rovik", options.rovik);
  cJSON* words = cJSON_AddArrayToObject(request.get(), "words");
  for (const std::string& word : options.words)
    cJSON_AddItemToArray(words, textItem("word", word).release());

  std::string text;
  readText(client.request(request).get(), "reply", text);
  if (text.empty()) {
    std::cerr << "drovane: nothing handled '" << printable(options.words.front())
              << "'; expected a command of the rovik's plug-in (some need its script or an open "
                 "link)\n";
    return kRefused;
  }
  print(text);
  return text.starts_with("ERROR") ? kRefused : kDone;
}

int send(const Options& options) {
  ControlClient client(ControlClient::choosePath(options.control));
  const Json request = newRequest("send");
  addText(request.get(), "key", options.key);
  addText(request.get(), "type", options.type);
  addText(request.get(), "value", options.value);
  if (!options.to.empty()) addText(request.get(), "to", options.to);
  if (options.actuator) cJSON_AddTrueToObject(request.get(), "actuator");
  client.request(request);
  return kDone;
}

int get(const Options& options) {
  ControlClient client(ControlClient::choosePath(options.control));
  const Json request = newRequest("get");
  addText(request.get(), "key", options.key);
  addText(request.get(), "type", options.type);
  addText(request.get(), "to", options.to);
  const Json reply = client.request(request);
  print(answerText(cJSON_GetObjectItemCaseSensitive(reply.get(), "message")));
  return kDone;
}

int logLevel(const Options& options) {
  ControlClient client(ControlClient::choosePath(options.control));
  const Json request = newRequest("log-level");
  if (!options.level.empty()) addText(request.get(), "level", options.level);
  const Json reply = client.request(request);
  print(statusCount(reply.get(), "level"));
  return kDone;
}

// What a start reports of single roviks does not make it a failure either.
int reload(const Options& options) {
  ControlClient client(ControlClient::choosePath(options.control));
  const Json reply = client.request(newRequest("reload"));
  const cJSON* finding = nullptr;
  cJSON_ArrayForEach(finding, cJSON_GetObjectItemCaseSensitive(reply.get(), "findings")) {
    std::string text;
    readTextItem(finding, "finding", text);
    std::cerr << printable(text) + '\n';
  }
  std::string summary;
  readText(reply.get(), "summary", summary);
  print(summary);
  return kDone;
}

}  // namespace drovane
