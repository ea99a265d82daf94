// "drovane status ROVIK": one rovik, one thing a line.
#include <iostream>
#include <string>

#include "StatusText.h"
#include "Terminal.h"
#include "framework/MessageJson.h"

namespace drovane {
namespace {

std::string whole(const cJSON* row, const char* field) {
  cJSON* item = cJSON_GetObjectItemCaseSensitive(row, field);
  return item != nullptr ? jsonLine(item) : "0";
}

std::string counted(const cJSON* row, const char* field, const std::string& what) {
  return whole(row, field) + ' ' + what + (statusNumber(row, field) == 1 ? "" : "s");
}

std::string linkLine(const cJSON* row) {
  if (!hasField(row, "link_seconds")) return linkText(row) + ", never open";
  return linkText(row) + " for " + durationText(statusNumber(row, "link_seconds"));
}

std::string receivedLine(const cJSON* row) {
  if (!hasField(row, "bytes_in")) return "";
  return counted(row, "units_in", "line") + ", " + counted(row, "bytes_in", "byte") + ", " +
         whole(row, "units_dropped") + " dropped";
}

std::string sentLine(const cJSON* row) {
  if (!hasField(row, "bytes_out")) return "";
  return counted(row, "units_out", "write") + ", " + counted(row, "bytes_out", "byte");
}

std::string lastLine(const cJSON* row, const char* seconds, const char* text) {
  if (!hasField(row, seconds)) return "";
  return ageText(statusNumber(row, seconds)) + " ago: " + statusText(row, text);
}

std::string lastReceivedLine(const cJSON* row) {
  return lastLine(row, "last_in_seconds", "last_in");
}

std::string lastSentLine(const cJSON* row) { return lastLine(row, "last_out_seconds", "last_out"); }

std::string messagesLine(const cJSON* row) {
  return whole(row, "in") + " in, " + whole(row, "out") + " out, " + whole(row, "queued") +
         " waiting, " + whole(row, "dropped") + " dropped";
}

std::string scriptLine(const cJSON* row) {
  if (statusNumber(row, "script_memory") < 1) return "off";
  return "on, " + counted(row, "script_memory", "byte");
}

std::string timerLine(const cJSON* row) {
  return hasField(row, "timer_seconds") ? dueText(statusNumber(row, "timer_seconds")) : "off";
}

std::string slotLine(const cJSON* row) {
  if (statusText(row, "slot").empty()) return "";
  return statusText(row, "slot") + " for " + ageText(statusNumber(row, "slot_seconds"));
}

std::string warningLine(const cJSON* row) {
  if (statusNumber(row, "warning_count") < 1) return "none";
  return statusText(row, "warning");
}

std::string warnedLine(const cJSON* row) {
  if (statusNumber(row, "warning_count") < 1) return "";
  return momentText(statusText(row, "warning_time")) + ", " +
         ageText(statusNumber(row, "warning_seconds")) + " ago, " + whole(row, "warning_count") +
         " so far";
}

std::string plugInLine(const cJSON* row) { return statusText(row, "plug_in"); }

struct Line {
  const char* label;
  std::string (*text)(const cJSON* row);  // an empty text: no line
};

constexpr Line kLines[] = {
    {"plug-in", plugInLine},      {"link", linkLine},       {"received", receivedLine},
    {"  last", lastReceivedLine}, {"sent", sentLine},       {"  last", lastSentLine},
    {"messages", messagesLine},   {"script", scriptLine},   {"timer", timerLine},
    {"inside", slotLine},         {"warning", warningLine}, {"  last", warnedLine},
};

constexpr std::size_t kLabelWidth = 13;

std::string padded(std::string label) {
  label.resize(std::max(label.size() + 1, kLabelWidth), ' ');
  return label;
}

void printDescription(const cJSON* row) {
  const cJSON* description = cJSON_GetObjectItemCaseSensitive(row, "description");
  if (description == nullptr || description->child == nullptr) return;
  std::cout << "description\n";
  cJSON* item = nullptr;
  cJSON_ArrayForEach(item, description) {
    printWrapped(padded("  " + printable(item->string)), padded(""), printable(jsonLine(item)));
  }
}

}  // namespace

void printDetail(const cJSON* row) {
  std::cout << statusCount(row, "id") << ' ' << statusText(row, "name") << '\n';
  for (const Line& line : kLines) {
    const std::string text = line.text(row);
    if (!text.empty()) printWrapped(padded(line.label), padded(""), text);
  }
  printDescription(row);
}

}  // namespace drovane
