// An installation root that holds scripts, and goes with the benchmark.
#pragma once

#include <string>
#include <vector>

#include "Drovane.h"
#include "support/Roviks.h"
#include "support/TempFolder.h"

namespace bench {

class ScriptFolder {
 public:
  ScriptFolder() { Drovane::global.setInstRoot(folder.path()); }

  // The path of the script.
  std::string add(const std::string& name, const std::string& script) const {
    return folder.write("lua/" + name, script);
  }

 private:
  const TempFolder folder;
};

// The commands that open the script `name` of the folder.
inline std::vector<Words> scriptCommands(const std::string& name) {
  return {{"luafile", name}, {"luaopen"}};
}

}  // namespace bench
