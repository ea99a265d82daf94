#include "RunningProgram.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <sstream>

Arguments Program::runLine(const Arguments& options) const {
  Arguments line = {DROVANE_PROGRAM, "run", file(), "--plugins", DROVANE_TEST_PLUGINS};
  line.insert(line.end(), options.begin(), options.end());
  return line;
}

Process& Program::start(const std::string& config, const Arguments& options) {
  folder.write("house.conf", config);
  process = std::make_unique<Process>(runLine(options), environment());
  return *process;
}

Process& Program::startReady(const std::string& config, const Arguments& options) {
  start(config, options);
  EXPECT_TRUE(process->waitForErrors(file() + ": ")) << process->errors();
  return *process;
}

void Program::expectEndsInTime() {
  const auto before = std::chrono::steady_clock::now();
  process->signal(SIGTERM);
  EXPECT_EQ(process->wait(), 0);
  EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(6));
  EXPECT_EQ(process->errors().find("did not end in time"), std::string::npos) << process->errors();
}

Finished Program::ask(const Arguments& arguments) const {
  Arguments line = {DROVANE_PROGRAM};
  line.insert(line.end(), arguments.begin(), arguments.end());
  return runToEnd(line, environment());
}

Finished Program::check(const std::string& config) const {
  folder.write("house.conf", config);
  return ask({"check", file(), "--plugins", DROVANE_TEST_PLUGINS});
}

Finished Program::runToItsEnd(const std::string& config, const Arguments& options) const {
  folder.write("house.conf", config);
  return runToEnd(runLine(options), environment());
}

// A watcher shows what comes after it has connected, so something is sent until it shows that.
std::unique_ptr<Process> Program::watch(const Arguments& options, const Arguments& sign) {
  Arguments line = {DROVANE_PROGRAM, "watch"};
  line.insert(line.end(), options.begin(), options.end());
  auto watcher = std::make_unique<Process>(line, environment());
  for (int tries = 0; tries < 500 && watcher->output().find("9_9_9") == std::string::npos; ++tries)
    ask(sign);
  EXPECT_NE(watcher->output().find("9_9_9"), std::string::npos) << watcher->errors();
  return watcher;
}

drovane::Json Program::statusOf(int id) const {
  std::istringstream lines(ask({"status", "--json"}).output);
  for (std::string line; std::getline(lines, line);) {
    drovane::Json row(cJSON_Parse(line.c_str()));
    const cJSON* number = cJSON_GetObjectItemCaseSensitive(row.get(), "id");
    if (cJSON_IsNumber(number) && number->valueint == id) return row;
  }
  return nullptr;
}

std::string houseWith(const std::string& more) {
  return "rovik 5 boiler echo\nrovik 6 other echo\n" + more;
}
