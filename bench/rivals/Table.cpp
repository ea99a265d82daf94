#include "rivals/Table.h"

#include <algorithm>
#include <iomanip>
#include <iostream>
#include <locale>
#include <sstream>

namespace bench {
namespace {

class Thousands : public std::numpunct<char> {
 protected:
  char do_thousands_sep() const override { return ','; }
  std::string do_grouping() const override { return "\3"; }
};

std::size_t widthOf(const std::vector<Row>& rows, std::size_t column) {
  std::size_t width = 0;
  for (const Row& row : rows) width = std::max(width, row[column].size());
  return width;
}

}  // namespace

void printTable(const std::vector<Row>& rows) {
  for (const Row& row : rows) {
    for (std::size_t column = 0; column < row.size(); ++column)
      std::cout << (column == 0 ? std::left : std::right)
                << std::setw(static_cast<int>(widthOf(rows, column))) << row[column]
                << (column + 1 < row.size() ? "  " : "\n");
  }
}

std::string withDigits(double number, int digits) {
  std::ostringstream out;
  out.imbue(std::locale(std::locale::classic(), new Thousands));
  out << std::fixed << std::setprecision(digits) << number;
  return out.str();
}

}  // namespace bench
