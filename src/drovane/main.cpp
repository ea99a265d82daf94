#include <exception>
#include <iostream>

#include "CommandLine.h"
#include "ControlClient.h"
#include "Terminal.h"

namespace {

// In one piece, for the log may go to the same place at the same time.
int fail(const std::exception& error, int status) {
  std::cerr << "drovane: " + drovane::printable(error.what()) + '\n';
  return status;
}

int perform(const drovane::ParsedCommandLine& parsed) {
  try {
    return parsed.subcommand(parsed.options);
  } catch (const drovane::NotRunning& error) {
    return fail(error, drovane::kNotRunning);
  } catch (const drovane::Refused& error) {
    return fail(error, drovane::kRefused);
  } catch (const std::exception& error) {
    return fail(error, drovane::kUsage);
  }
}

}  // namespace

int main(int argc, char** argv) {
  const auto parsed = drovane::parseCommandLine({argv + 1, argv + argc});
  return parsed.subcommand != nullptr ? perform(parsed) : parsed.status;
}
