#include <cinttypes>
#include <cmath>
#include <iostream>

#include "ControlClient.h"
#include "RovikUtil.h"
#include "Subcommands.h"
#include "Terminal.h"

namespace drovane {
namespace {

constexpr std::size_t kColumns = 80;

std::string text(const cJSON* object, const char* field) {
  std::string value;
  readText(object, field, value);
  return printable(value);
}

double number(const cJSON* object, const char* field) {
  const cJSON* item = cJSON_GetObjectItemCaseSensitive(object, field);
  return cJSON_IsNumber(item) ? item->valuedouble : 0;
}

bool flag(const cJSON* object, const char* field) {
  return cJSON_IsTrue(cJSON_GetObjectItemCaseSensitive(object, field)) != 0;
}

// Whole up to six digits, then rounded down to thousands, millions and so on.
std::string count(const cJSON* object, const char* field) {
  double value = number(object, field);
  std::string unit;
  for (const char* const next : {"k", "M", "G", "T", "P"}) {
    if (value < 1e6) break;
    value = std::floor(value / 1000);
    unit = next;
  }
  return RovikUtil::vsnprintftostr("%.0f%s", value, unit.c_str());
}

std::string linkText(const cJSON* row) {
  if (!flag(row, "running")) return flag(row, "starting") ? "starts" : "stopped";
  if (flag(row, "held_back")) return "waits";
  return flag(row, "link_open") ? "open" : "closed";
}

std::string uptime(double seconds) {
  const auto whole = static_cast<std::int64_t>(seconds);
  const std::int64_t days = whole / 86400;
  const std::string clock =
      RovikUtil::vsnprintftostr("%02d:%02d:%02d", static_cast<int>(whole % 86400 / 3600),
                                static_cast<int>(whole % 3600 / 60), static_cast<int>(whole % 60));
  return days > 0 ? std::to_string(days) + " d " + clock : clock;
}

void printWrapped(const std::string& first, const std::string& indent, const std::string& line) {
  const std::string* lead = &first;
  for (const std::string& part : wrapped(line, kColumns - first.size())) {
    std::cout << *lead << part << '\n';
    lead = &indent;
  }
}

void printHeader(const cJSON* reply) {
  std::cout << RovikUtil::vsnprintftostr("drovane %s   pid %.0f   up %s   to nobody: %s\n",
                                         text(reply, "version").c_str(), number(reply, "pid"),
                                         uptime(number(reply, "uptime")).c_str(),
                                         count(reply, "undeliverable").c_str());
  printWrapped("configuration ", std::string(14, ' '), text(reply, "config"));
}

// id, name, plug-in, link, queued, in, out, dropped: 78 columns.
constexpr const char* kRow = "%5s %-19s %-14s %-7s %7s %7s %7s %5s\n";

void printRow(const cJSON* row) {
  std::cout << RovikUtil::vsnprintftostr(
      kRow, count(row, "id").c_str(), fitted(text(row, "name"), 19).c_str(),
      fitted(text(row, "plug_in"), 14).c_str(), linkText(row).c_str(), count(row, "queued").c_str(),
      count(row, "in").c_str(), count(row, "out").c_str(), count(row, "dropped").c_str());
  if (number(row, "warning_count") < 1) return;
  const std::string time = text(row, "warning_time");
  const std::string day = time.substr(0, 10) + ' ' + time.substr(11, 8);
  printWrapped("      ! ", "        ",
               day + " (" + count(row, "warning_count") + "x) " + text(row, "warning"));
}

void printTable(const cJSON* reply) {
  printHeader(reply);
  std::cout << '\n'
            << RovikUtil::vsnprintftostr(kRow, "ID", "NAME", "PLUG-IN", "LINK", "QUEUED", "IN",
                                         "OUT", "DROP");
  const cJSON* row = nullptr;
  cJSON_ArrayForEach(row, cJSON_GetObjectItemCaseSensitive(reply, "roviks")) printRow(row);
}

void printLines(const cJSON* reply) {
  const cJSON* row = nullptr;
  cJSON_ArrayForEach(row, cJSON_GetObjectItemCaseSensitive(reply, "roviks")) {
    std::cout << jsonLine(row) << '\n';
  }
}

}  // namespace

int status(const Options& options) {
  ControlClient client(ControlClient::choosePath(options.control));
  const Json reply = client.request(newRequest("status"));
  if (options.json)
    printLines(reply.get());
  else
    printTable(reply.get());
  std::cout << std::flush;
  return kDone;
}

}  // namespace drovane
