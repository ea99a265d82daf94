// Pieces of the status display: values out of the reply of a running drovane, as a person reads
// them.
#pragma once

#include <cjson/cJSON.h>

#include <string>

namespace drovane {

// Printable; empty when the field is missing.
std::string statusText(const cJSON* object, const char* field);
// 0 when the field is missing.
double statusNumber(const cJSON* object, const char* field);
bool statusFlag(const cJSON* object, const char* field);
bool hasField(const cJSON* object, const char* field);

// Whole up to six digits, then rounded down to thousands, millions and so on.
std::string statusCount(const cJSON* object, const char* field);

// "starts", "stopped", "waits", "open" or "closed".
std::string linkText(const cJSON* row);

// A time that has passed, shortly: "0.4 s", "17 s", "12 min", "3 h", "5 d".
std::string ageText(double seconds);
// A time that has passed, to the second: "00:12:31", "3 d 04:11:00".
std::string durationText(double seconds);
// "in 1.2 s"; "now" when it is due.
std::string dueText(double seconds);

// "2026-11-21 07:46:48", out of ISO 8601.
std::string momentText(const std::string& time);

// Prints `line` behind `first`, in as many lines of eighty columns as it takes; behind the first
// one stands `indent` in place of `first`.
void printWrapped(const std::string& first, const std::string& indent, const std::string& line);

// Everything about one rovik, one thing a line.
void printDetail(const cJSON* row);

}  // namespace drovane
