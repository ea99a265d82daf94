#include "support/Machine.h"

#include <stdlib.h>
#include <sys/utsname.h>

#include <array>
#include <ctime>
#include <fstream>
#include <string>
#include <thread>

namespace bench {
namespace {

// The first line of /proc/cpuinfo that names the processor: "model name" on PCs, "Model" on boards.
std::string processor() {
  std::ifstream in("/proc/cpuinfo");
  for (std::string line; std::getline(in, line);) {
    if (line.rfind("model name", 0) != 0 && line.rfind("Model", 0) != 0) continue;
    const std::size_t colon = line.find(": ");
    if (colon != std::string::npos) return line.substr(colon + 2);
  }
  return "unknown";
}

std::string kernel() {
  utsname names{};
  if (uname(&names) != 0) return "unknown";
  return std::string(names.sysname) + " " + names.release + " " + names.machine;
}

std::string compiler() {
#ifdef __clang__
  return __VERSION__;
#else
  return "GCC " __VERSION__;
#endif
}

std::string date() {
  const std::time_t now = std::time(nullptr);
  tm parts{};
  localtime_r(&now, &parts);
  std::array<char, 64> text{};
  std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%S%z", &parts);
  return text.data();
}

}  // namespace

drovane::Json newResults() {
  drovane::Json document(cJSON_CreateObject());
  cJSON_AddStringToObject(document.get(), "date", date().c_str());
  cJSON* machine = cJSON_AddObjectToObject(document.get(), "machine");
  cJSON_AddStringToObject(machine, "processor", processor().c_str());
  cJSON_AddNumberToObject(machine, "cores", std::thread::hardware_concurrency());
  cJSON_AddStringToObject(machine, "kernel", kernel().c_str());
  cJSON_AddStringToObject(machine, "compiler", compiler().c_str());
  double load = 0;
  if (getloadavg(&load, 1) == 1) cJSON_AddNumberToObject(machine, "load", load);
  cJSON_AddArrayToObject(document.get(), "figures");
  return document;
}

}  // namespace bench
