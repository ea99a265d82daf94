#include "ConfigFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <map>
#include <utility>

#include "Descriptor.h"
#include "Log.h"
#include "MessageFields.h"
#include "Router.h"
#include "Words.h"

namespace drovane {
namespace {

using Words = std::vector<std::string>;

constexpr std::size_t kLongestName = 64;
constexpr std::size_t kShownValue = 60;

bool digit(char byte) { return byte >= '0' && byte <= '9'; }

bool bareCharacter(char byte) {
  return digit(byte) || (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z') ||
         byte == '_' || byte == '.' || byte == '-';
}

// Reads one file line by line into a ConfigFile.
class Reader {
 public:
  explicit Reader(const std::string& path) { file.path = path; }

  ConfigFile read() {
    const std::string text = contents();
    std::string_view rest = text;
    while (!rest.empty()) {
      ++line;
      const std::size_t end = std::min(rest.find('\n'), rest.size());
      readLine(rest.substr(0, end));
      rest.remove_prefix(std::min(end + 1, rest.size()));
    }
    if (file.roviks.empty()) fail("there is no rovik; expected 'rovik ID NAME PLUG-IN'");
    return std::move(file);
  }

 private:
  struct Directive {
    std::string_view keyword;  // one word, or two with a blank between
    std::string_view form;
    std::size_t arguments;
    void (Reader::*take)(const Words& arguments);
  };
  static const std::array<Directive, 3> kDirectives;

  [[noreturn]] void fail(const std::string& problem) const {
    throw ConfigError(file.path, std::max(line, 1), problem);
  }

  [[noreturn]] void failWith(const char* what, int error) const {
    fail(std::string(what) + ": " + std::strerror(error) +
         "; expected a configuration file that can be read");
  }

  std::string contents() const {
    // Without O_NONBLOCK the open of a named pipe would wait for somebody to write.
    const Descriptor input(::open(file.path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!input) failWith("the file cannot be opened", errno);
    struct stat facts {};
    if (::fstat(input.get(), &facts) != 0) failWith("the file cannot be looked at", errno);
    if (S_ISDIR(facts.st_mode)) fail("this is a folder; expected a configuration file");
    if (!S_ISREG(facts.st_mode)) fail("this is no regular file; expected a configuration file");
    return readAll(input.get());
  }

  std::string readAll(int input) const {
    std::string text;
    std::array<char, 65536> block;
    while (true) {
      const ssize_t count = ::read(input, block.data(), block.size());
      if (count < 0 && errno == EINTR) continue;
      if (count < 0) failWith("the file cannot be read", errno);
      if (count == 0) return text;
      text.append(block.data(), static_cast<std::size_t>(count));
      if (text.size() > ConfigFile::kLargestFile)
        fail("the file is too long; expected at most 16 MiB");
    }
  }

  void readLine(std::string_view text) {
    if (!text.empty() && text.back() == '\r') text.remove_suffix(1);
    if (text.size() > ConfigFile::kLongestLine) {
      fail("the line has " + std::to_string(text.size()) + " bytes; expected at most " +
           std::to_string(ConfigFile::kLongestLine));
    }
    if (text.find('\0') != std::string_view::npos)
      fail("the line holds a zero byte; expected text");
    WordsOrError split = splitWords(text);
    Log::makeOneLine(split.error);
    if (!split.error.empty()) fail(split.error);
    if (!split.words.empty()) readWords(std::move(split.words));
  }

  void readWords(Words words) {
    for (const Directive& directive : kDirectives) {
      if (takeKeyword(directive.keyword, words)) {
        takeDirective(directive, words);
        return;
      }
    }
    if (file.roviks.empty()) {
      fail("unknown directive " + quotedValue(words.front()) +
           "; expected 'root DIR', 'log level 2|3|4' or 'rovik ID NAME PLUG-IN'");
    }
    file.roviks.back().commands.push_back({line, std::move(words)});
  }

  // Removes the keyword from the front of `words` when it stands there.
  static bool takeKeyword(std::string_view keyword, Words& words) {
    const std::size_t blank = keyword.find(' ');
    const bool two = blank != std::string_view::npos;
    if (words[0] != keyword.substr(0, blank)) return false;
    if (two && (words.size() < 2 || words[1] != keyword.substr(blank + 1))) return false;
    words.erase(words.begin(), words.begin() + (two ? 2 : 1));
    return true;
  }

  void takeDirective(const Directive& directive, const Words& arguments) {
    const std::string expected = "; expected '" + std::string(directive.form) + "'";
    if (directive.take != &Reader::takeRovik && !file.roviks.empty()) {
      fail("'" + std::string(directive.keyword) +
           "' stands after the first rovik; expected it before line " +
           std::to_string(file.roviks.front().line));
    }
    if (arguments.size() < directive.arguments)
      fail("a word is missing after '" + std::string(directive.keyword) + "'" + expected);
    if (arguments.size() > directive.arguments)
      fail("there is a word too many, " + quotedValue(arguments[directive.arguments]) + expected);
    (this->*directive.take)(arguments);
  }

  void takeRoot(const Words& arguments) {
    refuseSecond(root_line, "root");
    if (arguments[0].empty()) fail("the root is empty; expected a folder, '.' for the file's own");
    file.root = arguments[0];
  }

  void takeLogLevel(const Words& arguments) {
    refuseSecond(level_line, "log level");
    const std::string& level = arguments[0];
    if (level != "2" && level != "3" && level != "4")
      fail("unknown log level " + quotedValue(level) +
           "; expected 2 (errors), 3 (events too) or 4 (everything)");
    file.log_level = level[0] - '0';
  }

  void refuseSecond(int& first, const char* directive) const {
    if (first != 0)
      fail("'" + std::string(directive) + "' was already given in line " + std::to_string(first) +
           "; expected it once");
    first = line;
  }

  void takeRovik(const Words& arguments) {
    ConfigRovik rovik;
    rovik.line = line;
    rovik.id = readId(arguments[0]);
    rovik.name = readName(arguments[1]);
    rovik.plug_in = arguments[2];
    if (!isBareName(rovik.plug_in)) {
      fail("plug-in " + quotedValue(rovik.plug_in) +
           " cannot be a plug-in's name; expected letters, digits, '_', '.' and '-', "
           "without a folder and without .so");
    }
    file.roviks.push_back(std::move(rovik));
  }

  int readId(const std::string& text) {
    const auto number = parseInt(text);
    if (!number || *number < 1 || *number > kHighestRovikId)
      fail("id " + quotedValue(text) + " is out of range; expected a number from 1 to " +
           std::to_string(kHighestRovikId));
    const auto [entry, fresh] = lines_by_id.emplace(*number, line);
    if (!fresh)
      fail("id " + std::to_string(*number) + " is already taken in line " +
           std::to_string(entry->second) + "; expected another id");
    return *number;
  }

  std::string readName(const std::string& name) {
    const bool number = std::all_of(name.begin(), name.end(), digit);
    if (!isBareName(name) || number) {
      fail("name " + quotedValue(name) +
           " cannot be a rovik's name; expected 1 to 64 letters, digits, '_', '.' or '-', "
           "not digits alone");
    }
    if (name == kCommandLineName)
      fail("name 'cli' is the command line's own; expected another name");
    const auto [entry, fresh] = lines_by_name.emplace(name, line);
    if (!fresh)
      fail("name '" + name + "' is already taken in line " + std::to_string(entry->second) +
           "; expected another name");
    return name;
  }

  ConfigFile file;
  int line = 0;
  int root_line = 0;
  int level_line = 0;
  std::map<int, int> lines_by_id;
  std::map<std::string, int> lines_by_name;
};

constexpr std::array<Reader::Directive, 3> Reader::kDirectives = {{
    {"root", "root DIR", 1, &Reader::takeRoot},
    {"log level", "log level 2|3|4", 1, &Reader::takeLogLevel},
    {"rovik", "rovik ID NAME PLUG-IN", 3, &Reader::takeRovik},
}};

}  // namespace

ConfigFile ConfigFile::read(const std::string& path) { return Reader(path).read(); }

std::string ConfigFile::rootFolder() const {
  namespace fs = std::filesystem;
  const fs::path own = fs::path(path).parent_path();
  const fs::path folder = (own.empty() ? fs::path(".") : own) / root.value_or(".");
  std::error_code error;
  const fs::path whole = fs::weakly_canonical(folder, error);
  if (error) return folder.string();
  return whole.has_filename() ? whole.string() : whole.parent_path().string();
}

std::string quotedValue(std::string_view value) {
  std::string text(value.substr(0, kShownValue));
  Log::makeOneLine(text);
  return "'" + text + (value.size() > kShownValue ? "'..." : "'");
}

bool isBareName(std::string_view name) {
  return !name.empty() && name.size() <= kLongestName &&
         std::all_of(name.begin(), name.end(), bareCharacter);
}

}  // namespace drovane
