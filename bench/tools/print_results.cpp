// Prints the file that the benchmarks' --json has written as one table.
#include <iostream>

#include "support/Report.h"

int main(int argc, char** argv) {
  if (argc != 2) {
    std::cerr << "Usage: print_results FILE\n";
    return 2;
  }
  const drovane::Json document = bench::readResults(argv[1]);
  if (document == nullptr) {
    std::cerr << argv[1] << ": no results\n";
    return 2;
  }
  bench::printFigures(cJSON_GetObjectItemCaseSensitive(document.get(), "figures"));
  return 0;
}
