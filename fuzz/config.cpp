// Configuration files: what is read can be written out and read again, and what is refused is
// refused in one line that says where and why.
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <optional>
#include <set>
#include <string>

#include "framework/ConfigFile.h"
#include "framework/Descriptor.h"
#include "framework/Words.h"
#include "support/Property.h"

using drovane::ConfigError;
using drovane::ConfigFile;
using drovane::ConfigRovik;
using fuzzing::require;
using fuzzing::requireSame;

namespace {

// A file without a place in any folder, under a path by which it can be opened.
class NamelessFile {
 public:
  NamelessFile() : file(::memfd_create("configuration", MFD_CLOEXEC)) {
    require(static_cast<bool>(file), "there is a file to read");
  }

  std::string path() const { return "/proc/self/fd/" + std::to_string(file.get()); }

  void write(std::string_view text) const {
    const auto size = static_cast<ssize_t>(text.size());
    require(::ftruncate(file.get(), 0) == 0 &&
                ::pwrite(file.get(), text.data(), text.size(), 0) == size,
            "the file can be written");
  }

 private:
  drovane::Descriptor file;
};

// Written so that it is read as this one word, whatever it holds.
std::string quoted(const std::string& word) {
  std::string text;
  for (const char byte : word) text += byte == '\'' ? "\"'\"" : "'" + std::string(1, byte) + "'";
  return text.empty() ? "''" : text;
}

std::string lineOf(const std::vector<std::string>& words) {
  std::string line;
  for (const std::string& word : words) line += (line.empty() ? "" : " ") + quoted(word);
  return line + "\n";
}

std::string written(const ConfigFile& config) {
  std::string text;
  if (config.root) text += lineOf({"root", *config.root});
  if (config.log_level) text += lineOf({"log", "level", std::to_string(*config.log_level)});
  for (const ConfigRovik& rovik : config.roviks) {
    text += lineOf({"rovik", std::to_string(rovik.id), rovik.name, rovik.plug_in});
    for (const auto& command : rovik.commands) text += lineOf(command.words);
  }
  return text;
}

void checkGood(const ConfigFile& config) {
  std::set<int> ids;
  std::set<std::string> names;
  require(!config.roviks.empty(), "a configuration has a rovik");
  for (const ConfigRovik& rovik : config.roviks) {
    require(rovik.id >= 1 && rovik.id <= 16000 && ids.insert(rovik.id).second,
            "ids are in range and unique");
    require(drovane::isBareName(rovik.name) && names.insert(rovik.name).second,
            "names are bare and unique");
    require(drovane::isBareName(rovik.plug_in), "a plug-in has a bare name");
    int last = rovik.line;
    for (const auto& command : rovik.commands) {
      require(!command.words.empty() && command.line > last, "commands are in order");
      last = command.line;
    }
  }
  require(!config.rootFolder().empty(), "there is always a root");
}

// FILE:LINE: text, in one line.
void checkRefusal(const std::string& path, const std::string& text, std::string_view input) {
  require(text.starts_with(path + ":"), "a refusal names the file");
  const std::size_t begin = path.size() + 1;
  const std::size_t end = text.find(": ", begin);
  require(end != std::string::npos && end > begin, "a refusal names the line");
  const long line = std::stol(text.substr(begin, end - begin));
  const auto lines = std::count(input.begin(), input.end(), '\n') + 1;
  require(line >= 1 && line <= lines, "the line is one of the file");
  require(text.find("; expected ", end) != std::string::npos, "a refusal says what was expected");
  const auto control = [](char byte) { return (byte >= 0 && byte < 0x20) || byte == 0x7F; };
  require(std::none_of(text.begin(), text.end(), control), "a refusal is one clean line");
}

void checkLines(std::string_view input) {
  const auto split = drovane::splitWords(input.substr(0, input.find('\n')));
  if (!split.error.empty()) return;
  const std::string line = lineOf(split.words);
  const auto again = drovane::splitWords(std::string_view(line).substr(0, line.size() - 1));
  require(again.error.empty() && again.words == split.words, "words survive being quoted");
  drovane::CommandVector vector(split.words);
  for (std::size_t i = 0; i < split.words.size(); ++i)
    requireSame(split.words[i].c_str(), vector.get()[i], "a command has its words");
  require(vector.get()[split.words.size()] == nullptr, "a command ends with a null");
}

std::optional<ConfigFile> readOrRefuse(const NamelessFile& file, std::string_view text) {
  file.write(text);
  try {
    return ConfigFile::read(file.path());
  } catch (const ConfigError& error) {
    checkRefusal(file.path(), error.what(), text);
    return std::nullopt;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const NamelessFile file;
  const std::string_view input = fuzzing::asText(data, size);
  checkLines(input);
  const auto config = readOrRefuse(file, input);
  if (!config) return 0;
  checkGood(*config);
  const std::string text = written(*config);
  const auto again = readOrRefuse(file, text);
  require(again.has_value(), "what was read can be read again");
  requireSame(text, written(*again), "what was read survives being written");
  return 0;
}
