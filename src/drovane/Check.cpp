#include <iostream>

#include "Drovane.h"
#include "Subcommands.h"
#include "Terminal.h"
#include "framework/ConfigFile.h"
#include "framework/House.h"
#include "framework/PluginLoader.h"

namespace drovane {

int check(const Options& options) {
  Drovane::global.setChecking(true);
  Drovane::global.setLogLevel(LOG_LEVEL_ERROR);
  const auto report = [](const std::string& finding) { std::cerr << printable(finding) + '\n'; };
  try {
    ConfigFile config = ConfigFile::read(options.file);
    Drovane::global.setInstRoot(options.root.empty() ? config.rootFolder() : options.root);
    House house(std::move(config), report);
    PluginLoader loader(PluginLoader::standardFolders(options.plugins));
    const bool made = house.make(loader);
    if (!house.configure() || !made) return kUsage;
    std::cout << options.file << ": ok, " << house.countText() << '\n';
    return kDone;
  } catch (const ConfigError& error) {
    report(error.what());
    return kUsage;
  }
}

}  // namespace drovane
