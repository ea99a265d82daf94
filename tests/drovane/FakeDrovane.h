// Stands in for a running drovane: takes one client and gives each line of its the next answer.
#pragma once

#include <cstddef>
#include <string>
#include <thread>
#include <vector>

#include "RunningProgram.h"
#include "framework/Descriptor.h"
#include "support/TempFolder.h"

class FakeDrovane {
 public:
  // Behind the last answer the connection is closed.
  explicit FakeDrovane(std::vector<std::string> its_answers);
  // Waits for the client to have come and gone.
  ~FakeDrovane();
  FakeDrovane(const FakeDrovane&) = delete;
  FakeDrovane& operator=(const FakeDrovane&) = delete;

  std::string path() const { return folder / "control"; }
  // Runs "drovane ARGUMENTS" as its client, to the end.
  Finished ask(const Arguments& arguments) const;
  // The request lines so far. Complete after ask.
  const std::vector<std::string>& requests() const { return asked; }

 private:
  void serve();
  // Empty when the client is gone.
  static std::string readLine(int client);

  const TempFolder folder;
  const std::vector<std::string> answers;
  drovane::Descriptor listening;
  std::vector<std::string> asked;  // the thread's until it has answered
  std::thread thread;
};
