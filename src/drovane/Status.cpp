#include <iostream>

#include "ControlClient.h"
#include "RovikUtil.h"
#include "StatusText.h"
#include "Subcommands.h"
#include "Terminal.h"

namespace drovane {
namespace {

void printHeader(const cJSON* reply) {
  std::cout << RovikUtil::vsnprintftostr(
      "drovane %s   pid %.0f   up %s   to nobody: %s\n", statusText(reply, "version").c_str(),
      statusNumber(reply, "pid"), durationText(statusNumber(reply, "uptime")).c_str(),
      statusCount(reply, "undeliverable").c_str());
  printWrapped("configuration ", std::string(14, ' '), statusText(reply, "config"));
}

// id, name, plug-in, link, queued, in, out, dropped: 78 columns.
constexpr const char* kRow = "%5s %-19s %-14s %-7s %7s %7s %7s %5s\n";

constexpr const char* kBelow = "      ";
constexpr std::size_t kBelowColumns = 74;

void printBelow(const std::string& line) {
  if (!line.empty()) std::cout << kBelow << fitted(line, kBelowColumns) << '\n';
}

// How long the link has been as it is; script and timer.
std::string stateLine(const cJSON* row) {
  std::string line;
  if (hasField(row, "link_seconds"))
    line = linkText(row) + " for " + durationText(statusNumber(row, "link_seconds"));
  if (statusNumber(row, "script_memory") < 1) return line;
  line += std::string(line.empty() ? "" : ", ") + "script " + statusCount(row, "script_memory") +
          " bytes";
  if (hasField(row, "timer_seconds"))
    line += ", timer " + dueText(statusNumber(row, "timer_seconds"));
  return line;
}

struct DirectionFields {
  const char* sign;
  const char* units;
  const char* bytes;
  const char* last;
  const char* last_seconds;
};

constexpr DirectionFields kIn = {"<", "units_in", "bytes_in", "last_in", "last_in_seconds"};
constexpr DirectionFields kOut = {">", "units_out", "bytes_out", "last_out", "last_out_seconds"};

// Nothing when nothing has ever gone that way.
std::string directionLine(const cJSON* row, const DirectionFields& fields, double dropped) {
  if (!hasField(row, fields.last_seconds) && dropped < 1) return "";
  std::string line = std::string(fields.sign) + ' ' + statusCount(row, fields.units) + " (" +
                     statusCount(row, fields.bytes) + " bytes)";
  if (dropped >= 1) line += ", " + statusCount(row, "units_dropped") + " dropped";
  if (hasField(row, fields.last_seconds))
    line += ", " + ageText(statusNumber(row, fields.last_seconds)) +
            " ago: " + statusText(row, fields.last);
  return line;
}

void printWarning(const cJSON* row) {
  if (statusNumber(row, "warning_count") < 1) return;
  printWrapped("      ! ", "        ",
               momentText(statusText(row, "warning_time")) + " (" +
                   statusCount(row, "warning_count") + "x, " +
                   ageText(statusNumber(row, "warning_seconds")) + " ago) " +
                   statusText(row, "warning"));
}

void printRow(const cJSON* row) {
  std::cout << RovikUtil::vsnprintftostr(
      kRow, statusCount(row, "id").c_str(), fitted(statusText(row, "name"), 19).c_str(),
      fitted(statusText(row, "plug_in"), 14).c_str(), linkText(row).c_str(),
      statusCount(row, "queued").c_str(), statusCount(row, "in").c_str(),
      statusCount(row, "out").c_str(), statusCount(row, "dropped").c_str());
  const std::string slot = statusText(row, "slot");
  if (!slot.empty())
    printBelow("! in " + slot + " for " + ageText(statusNumber(row, "slot_seconds")));
  printBelow(stateLine(row));
  printBelow(directionLine(row, kIn, statusNumber(row, "units_dropped")));
  printBelow(directionLine(row, kOut, 0));
  printWarning(row);
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

void printDetails(const cJSON* reply) {
  const cJSON* row = nullptr;
  cJSON_ArrayForEach(row, cJSON_GetObjectItemCaseSensitive(reply, "roviks")) printDetail(row);
}

}  // namespace

int status(const Options& options) {
  ControlClient client(ControlClient::choosePath(options.control));
  const Json request = newRequest("status");
  const bool table = !options.json && options.rovik.empty();
  if (!options.rovik.empty()) addText(request.get(), "rovik", options.rovik);
  if (table) cJSON_AddTrueToObject(request.get(), "brief");
  const Json reply = client.request(request);
  if (table)
    printTable(reply.get());
  else if (options.json)
    printLines(reply.get());
  else
    printDetails(reply.get());
  std::cout << std::flush;
  return kDone;
}

}  // namespace drovane
