// A folder of a test's own, gone with everything in it when the test ends.
#pragma once

#include <string>
#include <string_view>

class TempFolder {
 public:
  TempFolder();
  ~TempFolder();
  TempFolder(const TempFolder&) = delete;
  TempFolder& operator=(const TempFolder&) = delete;

  const std::string& path() const { return folder; }
  std::string operator/(std::string_view name) const;

  // Writes a file and returns its path.
  std::string write(std::string_view name, std::string_view content) const;
  std::string read(std::string_view name) const;

 private:
  std::string folder;
};
