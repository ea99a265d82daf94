// A folder that goes with the benchmark.
#pragma once

#include <stdlib.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <system_error>

namespace bench {

class TempFolder {
 public:
  TempFolder() : folder((std::filesystem::temp_directory_path() / "bench-XXXXXX").string()) {
    if (mkdtemp(folder.data()) == nullptr)
      throw std::system_error(errno, std::generic_category(), "mkdtemp");
  }
  ~TempFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(folder, ignored);
  }
  TempFolder(const TempFolder&) = delete;
  TempFolder& operator=(const TempFolder&) = delete;

  const std::string& path() const { return folder; }

  // A file in it, with the folders on the way there. Its path.
  std::string write(const std::string& name, const std::string& text) const {
    const std::filesystem::path file = std::filesystem::path(folder) / name;
    std::filesystem::create_directories(file.parent_path());
    std::ofstream out(file);
    out << text;
    if (!out.flush()) throw std::runtime_error("cannot write " + file.string());
    return file.string();
  }

 private:
  std::string folder;
};

}  // namespace bench
