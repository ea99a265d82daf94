// Text on its way to a person.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace drovane {

// Makes every byte harmless that a terminal might obey: control bytes, also those of eight bits
// and those in UTF-8, and bytes that are no UTF-8 come out as \n, \r, \t or \xNN.
std::string printable(std::string_view text);

// What a program gets as it is, a person at a terminal gets printable; line ends stay.
std::string forOutput(std::string_view text);

// Writes a line to standard output at once. Throws std::runtime_error when that fails: whoever goes
// on for ever would not notice.
void printLine(const std::string& line);

// Whether standard output is a terminal that may show colours (NO_COLOR is respected).
bool coloursWanted();

// Cuts to `width` columns; a "~" at the end shows that something is missing.
std::string fitted(std::string_view text, std::size_t width);

// Breaks a line into lines of at most `width` columns, at blanks where there are any.
std::vector<std::string> wrapped(std::string_view text, std::size_t width);

}  // namespace drovane
