// The house under load: the real program, the example house with its simulated devices, the ledger,
// and a link for each peer; all in a folder of its own.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Control.h"
#include "Neighbourhood.h"
#include "Plan.h"
#include "support/Process.h"
#include "support/TempFolder.h"

namespace soak {

class House {
 public:
  // Starts it all and waits until every rovik runs. Throws when it does not come to that.
  House(const std::vector<Link>& links, Neighbourhood& neighbours, const std::string& folder);

  pid_t pid() const { return drovane->pid(); }
  Control& control() { return *connection; }
  // Takes what the program prints, which would else fill its pipe.
  void drain();

  // Asks it to end, then its devices. What was wrong about that.
  std::vector<std::string> end();

 private:
  using Device = std::unique_ptr<Process>;

  Device device(const char* name, const std::vector<std::string>& options) const;
  std::string furnished() const;
  void copyScripts() const;
  std::vector<std::string> leftBehind() const;

  const std::string folder;
  Device boiler;
  Device meter;
  Device panel;
  Device drovane;
  std::unique_ptr<Control> connection;
};

}  // namespace soak
