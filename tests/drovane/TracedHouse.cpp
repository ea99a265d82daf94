#include "TracedHouse.h"

#include <re2/re2.h>

std::string withoutTimes(const std::string& text) {
  std::string plain = text;
  RE2::GlobalReplace(&plain, R"((?m)^\d\d:\d\d:\d\d\.\d\d\d )", "TIME ");
  RE2::GlobalReplace(&plain, R"((?m)^\d+\.\d{6} )", "S ");
  RE2::GlobalReplace(&plain, R"(\d+-\d\d-\d\dT\d\d:\d\d:\d\d\.\d\d\d[+-]\d\d:\d\d)", "START");
  return plain;
}

std::unique_ptr<Process> TracedHouse::trace(const Arguments& options, const std::string& rovik) {
  Arguments line = {DROVANE_PROGRAM, "trace", rovik, "--control", program.control};
  line.insert(line.end(), options.begin(), options.end());
  auto tracer = std::make_unique<Process>(line);
  EXPECT_TRUE(tracer->waitForErrors(", its link is ")) << tracer->errors();
  return tracer;
}
