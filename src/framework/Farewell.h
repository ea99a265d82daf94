// The last commands of one rovik: "close" when its link is open, then "luaclose".
#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "RovikHost.h"

namespace drovane {

// Replies do not matter: a rovik without a link or a script has nothing to close. One thread uses
// a farewell.
class Farewell {
 public:
  explicit Farewell(RovikHost& its_host) : host(its_host) {}

  // Hands the commands to the rovik's thread and returns at once.
  void post();
  // True when the thread has run them, or has ended without.
  bool over() const;
  // Runs what the thread has not run, or has to be run once more. The thread must have ended, or
  // never run.
  void runRest();

 private:
  struct Item {
    std::string word;
    std::shared_ptr<std::atomic<bool>> over = std::make_shared<std::atomic<bool>>(false);
    std::shared_ptr<std::atomic<bool>> ran = std::make_shared<std::atomic<bool>>(false);
  };

  void post(const Item& item);

  RovikHost& host;
  std::vector<Item> items;  // what was posted, "luaclose" last
};

}  // namespace drovane
