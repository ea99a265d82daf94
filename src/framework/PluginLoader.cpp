#include "PluginLoader.h"

#include <dlfcn.h>

#include <algorithm>
#include <exception>
#include <filesystem>
#include <utility>

#include "ConfigFile.h"
#include "Identity.h"

namespace drovane {
namespace {

namespace fs = std::filesystem;

std::string inFile(const std::string& plug_in, const std::string& file) {
  return "plug-in '" + plug_in + "' (" + file + ")";
}

}  // namespace

std::vector<std::string> PluginLoader::standardFolders(const std::string& extra) {
  std::vector<std::string> folders;
  std::error_code error;
  const fs::path program = fs::read_symlink("/proc/self/exe", error).parent_path();
  if (!error) {
    folders.push_back(program.string());
    folders.push_back((program / DROVANE_PLUGINS_FROM_PROGRAM).lexically_normal().string());
  }
  folders.emplace_back(DROVANE_PLUGIN_DIR);
  if (!extra.empty()) folders.push_back(extra);
  return folders;
}

std::string PluginLoader::find(const std::string& plug_in) const {
  std::string looked_in;
  for (const std::string& folder : folders) {
    const fs::path file = fs::path(folder) / (plug_in + ".so");
    std::error_code error;
    // dlopen(3) takes a name without a slash for something to look for elsewhere.
    if (fs::exists(file, error)) return fs::absolute(file).string();
    looked_in += (looked_in.empty() ? "" : ", ") + folder;
  }
  throw PluginError("plug-in '" + plug_in + "' was not found; expected " + plug_in + ".so in " +
                    looked_in);
}

PluginLoader::Library PluginLoader::open(const std::string& plug_in, const std::string& file) {
  void* const handle = dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);
  if (handle == nullptr) {
    const char* reason = dlerror();
    throw PluginError(inFile(plug_in, file) + " is not a library that can be loaded: " +
                      (reason != nullptr ? reason : "no reason given"));
  }
  void* const symbol = dlsym(handle, "maker");
  if (symbol == nullptr)
    throw PluginError(inFile(plug_in, file) + " exports no function 'maker'; expected a plug-in");
  return {file, reinterpret_cast<Maker>(symbol)};
}

const PluginLoader::Library& PluginLoader::library(const std::string& plug_in) {
  const auto known = libraries.find(plug_in);
  if (known != libraries.end()) return known->second;
  if (!isBareName(plug_in)) {
    throw PluginError("plug-in " + quotedValue(plug_in) +
                      " cannot be a plug-in's name; expected letters, digits, '_', '.' and '-'");
  }
  return libraries.emplace(plug_in, open(plug_in, find(plug_in))).first->second;
}

PluginLoader::Made PluginLoader::make(const std::string& plug_in, int id, const std::string& name) {
  const Library& made_by = library(plug_in);
  const IdentityForConstruction identity(id, name);
  std::unique_ptr<Rovik> rovik;
  try {
    rovik.reset(made_by.maker());
  } catch (const std::exception& error) {
    throw PluginError(inFile(plug_in, made_by.file) + ": its maker threw: " + error.what());
  } catch (...) {
    throw PluginError(inFile(plug_in, made_by.file) + ": its maker threw something unknown");
  }
  if (rovik == nullptr)
    throw PluginError(inFile(plug_in, made_by.file) + ": its maker returned null");
  return {std::move(rovik), made_by.file};
}

}  // namespace drovane
