// Finds plug-ins, opens them, and has them make roviks.
#pragma once

#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "Rovik.h"

namespace drovane {

// Names the plug-in, the file where there is one, and what is wrong with it.
class PluginError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// One thread uses a loader. Libraries stay in memory until the process ends: a rovik's code must
// be there as long as any of its threads might be.
class PluginLoader {
 public:
  // Plug-ins are looked for in these folders, in this order.
  explicit PluginLoader(std::vector<std::string> where) : folders(std::move(where)) {}

  // Beside the program, in the plug-in folder as it lies seen from there (../lib/drovane, or what
  // the install calls lib), in the install's plug-in folder, and in `extra` unless it is empty.
  static std::vector<std::string> standardFolders(const std::string& extra);

  struct Made {
    std::unique_ptr<Rovik> rovik;
    std::string file;
  };

  // Has the plug-in make a rovik with this id and name. Throws PluginError; the next call is as
  // good as if there had been none.
  Made make(const std::string& plug_in, int id, const std::string& name);

 private:
  using Maker = Rovik* (*)();
  struct Library {
    std::string file;
    Maker maker = nullptr;
  };

  const Library& library(const std::string& plug_in);
  std::string find(const std::string& plug_in) const;
  static Library open(const std::string& plug_in, const std::string& file);

  const std::vector<std::string> folders;
  std::map<std::string, Library> libraries;  // opened once, shared by its roviks
};

}  // namespace drovane
