// A table for people: a row of headings and rows of texts, numbers flush right.
#pragma once

#include <string>
#include <vector>

namespace bench {

using Row = std::vector<std::string>;

// All rows have as many cells as the first. The first column is flush left.
void printTable(const std::vector<Row>& rows);

// With so many digits behind the point, thousands apart.
std::string withDigits(double number, int digits);

}  // namespace bench
