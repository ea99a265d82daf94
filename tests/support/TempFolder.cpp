#include "TempFolder.h"

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>

namespace fs = std::filesystem;

TempFolder::TempFolder() : folder((fs::temp_directory_path() / "drovane-test-XXXXXX").string()) {
  if (::mkdtemp(folder.data()) == nullptr)
    throw std::system_error(errno, std::generic_category(), "mkdtemp");
}

TempFolder::~TempFolder() {
  std::error_code error;
  fs::remove_all(folder, error);
}

std::string TempFolder::operator/(std::string_view name) const {
  return folder + '/' + std::string(name);
}

std::string TempFolder::write(std::string_view name, std::string_view content) const {
  std::ofstream file(*this / name, std::ios::binary);
  file.exceptions(std::ios::badbit | std::ios::failbit);
  file << content;
  file.close();
  return *this / name;
}

std::string TempFolder::read(std::string_view name) const {
  std::ifstream file(*this / name, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}
