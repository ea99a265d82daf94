#include "CommandLine.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <cstddef>
#include <iostream>
#include <utility>

#include "MessageText.h"
#include "Subcommands.h"
#include "Terminal.h"
#include "framework/ConfigFile.h"

namespace drovane {
namespace {

struct Subcommand {
  const char* name;
  const char* purpose;
  const char* footer;
  void (*declare)(CLI::App& app, Options& options);
  int (*body)(const Options& options);
  bool all_words_after_first;  // whatever stands behind the first word is a word, not an option
  std::vector<std::string> Options::*rest = nullptr;  // gets every word from this place on
  std::size_t rest_place = 0;
};

void declareFile(CLI::App& app, Options& options) {
  app.add_option("FILE", options.file, "The configuration file")->required();
  app.add_option("--root", options.root,
                 "Installation root, which holds lua/ (default: what FILE says, or its folder)")
      ->type_name("DIR");
  app.add_option("--plugins", options.plugins, "One more folder to look for plug-ins in")
      ->type_name("DIR");
}

void declareControl(CLI::App& app, Options& options) {
  app.add_option("--control", options.control,
                 "Control socket (default: DROVANE_CONTROL, or drovane.sock in XDG_RUNTIME_DIR "
                 "or /run)")
      ->type_name("PATH");
}

void declareKey(CLI::App& app, Options& options) {
  app.add_option("KEY", options.key, "Network, node and value number, such as 5_1_0")->required();
  app.add_option("TYPE", options.type, "int, float or string")->required();
}

void declareRun(CLI::App& app, Options& options) {
  declareFile(app, options);
  declareControl(app, options);
  app.add_option("--log-level", options.log_level, "2 errors, 3 events too, 4 everything")
      ->type_name("2|3|4")
      ->check(CLI::IsMember({2, 3, 4}));
  CLI::Option* file =
      app.add_option("--log-file", options.log_file, "Write the log here instead of standard error")
          ->type_name("FILE");
  app.add_flag("--log-journal", options.log_journal, "Write the log to the systemd journal")
      ->excludes(file);
  app.add_flag("--strict", options.strict,
               "Do not start when a command of FILE is answered with an error");
  app.add_option("--restart-hung", options.restart_hung,
                 "Give no more signs of life to the service manager when a rovik has hung for so "
                 "long")
      ->type_name("SECONDS")
      ->check(CLI::Range(1, 86400));
}

void declareTry(CLI::App& app, Options& options) {
  declareFile(app, options);
  app.add_option("ROVIK", options.rovik, "Name or id")->required();
  app.add_option("LINE", options.lines, "What the device says (default: the lines of the input)");
  app.add_option("--for", options.seconds, "Go on for so long after the last line")
      ->type_name("SECONDS")
      ->check(CLI::Range(0.0, 86400.0));
  app.add_option(
         "--log-level", options.log_level,
         "Log to standard error: 2 errors (default), 3 events and what a script prints, too")
      ->type_name("2|3|4")
      ->check(CLI::IsMember({2, 3, 4}));
  app.add_flag("--json", options.json, "One JSON object a line");
}

void declareCmd(CLI::App& app, Options& options) {
  declareControl(app, options);
  app.add_option("ROVIK", options.rovik, "Name or id")->required();
  app.add_option("WORD", options.words, "The command, word by word; options come before ROVIK")
      ->required();
}

void declareSend(CLI::App& app, Options& options) {
  declareControl(app, options);
  declareKey(app, options);
  app.add_option("VALUE", options.value, "The value; it has to fit TYPE")->required();
  app.add_option("--to", options.to, "Who gets it (default: BC, every rovik)")
      ->type_name("NAME|ID|BC");
  app.add_flag("--actuator", options.actuator, "Ask for the value to be set on a device");
}

void declareGet(CLI::App& app, Options& options) {
  declareControl(app, options);
  declareKey(app, options);
  app.add_option("--to", options.to, "Who is asked")->type_name("NAME|ID")->required();
}

void declareShow(CLI::App& app, Options& options) {
  declareControl(app, options);
  app.add_flag("--json", options.json, "One JSON object a line");
}

void declareStatus(CLI::App& app, Options& options) {
  declareShow(app, options);
  app.add_option("ROVIK", options.rovik, "Everything about this one, by name or id");
}

// One value each time it is given, as often as one likes. More behind it, or a list in brackets,
// CLI11 is not to look for: a pattern has brackets too.
void addFilter(CLI::App& app, const char* name, std::vector<std::string>& values,
               const char* type_name, const char* purpose) {
  app.add_option(name, values, purpose)
      ->type_name(type_name)
      ->expected(1)
      ->take_all()
      ->allow_extra_args(false);
}

void declareWatch(CLI::App& app, Options& options) {
  declareShow(app, options);
  addFilter(app, "--rovik", options.roviks, "NAME|ID", "Only what this one sends or is sent");
  addFilter(app, "--kind", options.kinds, "KIND",
            "Only data, data-request, actuator, command, response, text or empty");
  app.get_option("--kind")->check(CLI::IsMember(kindWords()));
  addFilter(app, "--key", options.keys, "PATTERN", "Only keys like this, such as '5_*'");
}

void declareLogLevel(CLI::App& app, Options& options) {
  declareControl(app, options);
  app.add_option("LEVEL", options.level, "2 errors, 3 events too, 4 everything")
      ->check(CLI::IsMember({"2", "3", "4"}));
}

void declareTrace(CLI::App& app, Options& options) {
  declareControl(app, options);
  app.add_option("ROVIK", options.rovik, "Name or id")->required();
  app.add_flag("--hex", options.hex, "Bytes in hexadecimal digits, 16 a line");
  app.add_option("--record", options.record, "Write it to a new file too, for 'drovane replay'")
      ->type_name("FILE");
  app.add_flag("--force", options.force, "Replace the file of --record when it is there already")
      ->needs("--record");
}

void declareReplay(CLI::App& app, Options& options) {
  app.add_option("FILE", options.file, "What 'drovane trace --record' has written")->required();
  app.add_option("--port", options.port, "TCP port of 127.0.0.1 (default: any, which is printed)")
      ->type_name("N")
      ->check(CLI::Range(0, 65535));
  app.add_option("--link", options.link, "Play on a serial line that is found at PATH, not on TCP")
      ->type_name("PATH")
      ->excludes("--port");
  app.add_option("--speed", options.speed, "2 is twice as fast, 0 without any pause (default: 1)")
      ->type_name("FACTOR")
      ->check(CLI::Range(0.0, 1e6));
}

constexpr const char* kVersionLine = "drovane " DROVANE_VERSION;

constexpr std::array<Subcommand, 12> kSubcommands = {{
    {"run", "Start the roviks of a configuration, until SIGINT or SIGTERM",
     "Example: drovane run house.conf --log-level 3", declareRun, run, false},
    {"check", "Read a configuration, load its plug-ins, try its commands; open nothing",
     "Example: drovane check house.conf", declareFile, check, false},
    {"try", "Let a rovik's device say lines; show the messages that the rovik makes of them",
     "The rovik runs as FILE configures it, rules, script and all, but without its device and\n"
     "without the other roviks. Lines may hold escapes such as \\x02; what ends a line is added.\n"
     "Exit status 1 when nothing came of a line, or the rovik has warned.\n"
     "Example: drovane try house.conf boiler 'T=21.3' HEAT=ON",
     declareTry, tryLines, false, &Options::lines, 2},
    {"cmd", "Give one configuration command to a running rovik; print the reply",
     "Example: drovane cmd boiler port 7002", declareCmd, cmd, true, &Options::words, 1},
    {"send", "Send a value as a message",
     "Example: drovane send 5_0_0 string HEAT=ON --to boiler "
     "--actuator",
     declareSend, send, false},
    {"get", "Ask a rovik for a value and print it",
     "Example: drovane get 5_1_0 float --to recorder", declareGet, get, false},
    {"status", "Show the roviks: links, what came and went, scripts, last warnings",
     "Example: drovane status boiler", declareStatus, status, false},
    {"watch", "Show every message as it is routed, until interrupted",
     "--rovik, --kind and --key may be given more than once: any of the values will do.\n"
     "Example: drovane watch --rovik boiler --key '5_*'",
     declareWatch, watch, false},
    {"trace", "Show the bytes of a link in both directions, until interrupted",
     "Lines: TIME < bytes from the device, TIME > bytes to it, TIME + and - the link comes and "
     "goes\n"
     "Example: drovane trace boiler --record boiler.rec",
     declareTrace, trace, false},
    {"replay", "Play the device of a recording; tell where the house does something else",
     "Exit status: 0 all came as recorded, 1 not, 2 the recording cannot be read\n"
     "Example: drovane replay boiler.rec --port 7001",
     declareReplay, replay, false},
    {"log-level", "Show the log level of the running drovane, or set it",
     "Example: drovane log-level 4", declareLogLevel, logLevel, false},
    {"reload", "Have the running drovane read its configuration anew; print what has changed",
     "Example: drovane reload", declareControl, reload, false},
}};

const Subcommand* findSubcommand(const std::string& name) {
  const auto found = std::find_if(kSubcommands.begin(), kSubcommands.end(),
                                  [&](const Subcommand& entry) { return name == entry.name; });
  return found != kSubcommands.end() ? &*found : nullptr;
}

// A negative number is a value, not an option.
bool looksLikeOption(const std::string& argument) {
  return argument.size() > 1 && argument[0] == '-' && argument[1] != '.' &&
         (argument[1] < '0' || argument[1] > '9');
}

bool takesValue(CLI::App& app, const std::string& argument) {
  const CLI::Option* option = app.get_option_no_throw(argument);
  return option != nullptr && option->get_items_expected_max() > 0;
}

struct Sorted {
  std::vector<std::string> options;
  std::vector<std::string> words;
};

// CLI11 looks for options and subcommands among all words. Put in front, with "--" between, the
// options are found and every other word stays what it is.
Sorted optionsFirst(CLI::App& app, const Subcommand& subcommand,
                    const std::vector<std::string>& arguments) {
  Sorted sorted;
  auto& [options, words] = sorted;
  bool words_only = false;
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    const std::string& argument = arguments[i];
    if (!words_only && argument == "--") {
      words_only = true;
    } else if (words_only || !looksLikeOption(argument)) {
      words.push_back(argument);
      words_only = words_only || subcommand.all_words_after_first;
    } else {
      options.push_back(argument);
      if (!takesValue(app, argument)) continue;
      // Alone, for CLI11 to refuse it: the "--" would be taken for its value.
      if (i + 1 == arguments.size()) return {{argument}, {}};
      options.push_back(arguments[++i]);
    }
  }
  options.emplace_back("--");
  return sorted;
}

// CLI11's own text would name the "--" of optionsFirst too.
int reportExtras(const CLI::App& app) {
  std::string extras;
  for (const std::string& word : app.remaining(true))
    if (word != "--") extras += ' ' + word;
  std::cerr << "unexpected:" << printable(extras) << "\nRun with --help for more information.\n";
  return kUsage;
}

bool isUnknownSubcommand(const std::vector<std::string>& arguments) {
  return !arguments.empty() && !arguments.front().starts_with('-') &&
         findSubcommand(arguments.front()) == nullptr;
}

int reportUnknownSubcommand(const std::string& word) {
  std::string names;
  for (const Subcommand& entry : kSubcommands)
    names += (names.empty() ? "" : ", ") + std::string(entry.name);
  std::cerr << "unknown subcommand " << quotedValue(word) << "; expected one of " << names
            << "\nRun with --help for more information.\n";
  return kUsage;
}

}  // namespace

ParsedCommandLine parseCommandLine(std::vector<std::string> arguments) {
  ParsedCommandLine parsed;
  if (isUnknownSubcommand(arguments)) {
    parsed.status = reportUnknownSubcommand(arguments.front());
    return parsed;
  }
  CLI::App app("drovane runs a house: its roviks talk to devices and to each other.", "drovane");
  app.set_version_flag("--version", kVersionLine);
  app.require_subcommand(1);
  for (const Subcommand& entry : kSubcommands) {
    CLI::App* sub = app.add_subcommand(entry.name, entry.purpose);
    entry.declare(*sub, parsed.options);
    sub->footer(entry.footer);
  }

  const Subcommand* chosen = arguments.empty() ? nullptr : findSubcommand(arguments.front());
  Sorted sorted;
  if (chosen != nullptr) {
    sorted = optionsFirst(*app.get_subcommand(chosen->name), *chosen,
                          {arguments.begin() + 1, arguments.end()});
    arguments = {chosen->name};
    for (const auto* part : {&sorted.options, &sorted.words})
      arguments.insert(arguments.end(), part->begin(), part->end());
  }
  try {
    std::reverse(arguments.begin(), arguments.end());  // the order in which CLI11 takes them
    app.parse(arguments);
    if (chosen == nullptr) throw CLI::RequiredError::Subcommand(1);
    parsed.subcommand = chosen->body;
    // CLI11 takes a word like [0-9] for a list.
    if (chosen->rest != nullptr && sorted.words.size() > chosen->rest_place) {
      const auto begin = sorted.words.begin() + static_cast<std::ptrdiff_t>(chosen->rest_place);
      (parsed.options.*chosen->rest).assign(begin, sorted.words.end());
    }
  } catch (const CLI::ExtrasError&) {
    parsed.status = reportExtras(app);
  } catch (const CLI::ParseError& error) {
    parsed.status = app.exit(error) == 0 ? kDone : kUsage;
  }
  return parsed;
}

}  // namespace drovane
