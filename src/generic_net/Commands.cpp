// The configuration commands: one table of thirty rows, tested from the top. A row is taken when
// its keyword is the first word, the words that it needs are there and the link is in the state
// that it needs; what no row takes goes to the script layer.
#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <span>
#include <string_view>
#include <variant>

#include "Drovane.h"
#include "GenericNet.h"
#include "RovikUtil.h"

namespace {

enum class Link { Any, Closed, Open };

// A bool setting: true for exactly "on", false for every other word.
struct Flag {
  bool GenericNet::*field;
  const char* when_on;
  const char* when_off;
};

template <typename Value>
struct Choice {
  std::string_view word;
  Value value;
  const char* text;
};

const char kOk[] = "OK";
const char kError[] = "ERROR";

// The decimal number that `text` begins with, 0 when there is none, cut to the range of int.
int decimalPrefix(const char* text) {
  const long value = std::strtol(text, nullptr, 10);
  if (value > INT_MAX) return INT_MAX;
  return value < INT_MIN ? INT_MIN : static_cast<int>(value);
}

template <std::size_t N>
void copyInto(char (&field)[N], const char* text) {
  std::snprintf(field, N, "%s", text);
}

bool isOn(const char* word) { return std::string_view(word) == "on"; }

}  // namespace

// Lives inside the class so that rows and actions reach its members.
struct GenericNet::Commands {
  using Action = std::string (*)(GenericNet& net, char** arg);

  struct Row {
    const char* keyword;
    int words;  // needed behind the keyword
    Link link;
    std::variant<Flag, Action> effect;

    bool is(std::string_view word) const { return word == keyword; }

    bool takes(char** arg, bool open) const {
      if (!is(arg[0])) return false;
      for (int i = 1; i <= words; ++i)
        if (arg[i] == nullptr) return false;
      // While a configuration is being checked no link ever opens; what needs one is not wrong.
      if (Drovane::global.checking()) return true;
      return link == Link::Any || open == (link == Link::Open);
    }
  };

  static std::span<const Row> table();
  static std::string run(const Row& row, GenericNet& net, char** arg);

  static void info(const GenericNet& net, const char* text) {
    Drovane::global.log(LOG_LEVEL_INFO, net.id, net.name, "%s", text);
  }

  static std::string setFlag(GenericNet& net, const Flag& flag, const char* word) {
    net.*flag.field = isOn(word);
    info(net, net.*flag.field ? flag.when_on : flag.when_off);
    return kOk;
  }

  // False when `word` is none of the choices.
  template <typename Value, std::size_t N>
  static bool choose(GenericNet& net, Value& field, const Choice<Value> (&choices)[N],
                     std::string_view word) {
    for (const auto& choice : choices) {
      if (choice.word != word) continue;
      field = choice.value;
      info(net, choice.text);
      return true;
    }
    return false;
  }

  static std::string mode(GenericNet& net, char** arg) {
    static constexpr Choice<ComMode> kModes[] = {
        {"udp", COM_UDP, "mode set to UDP\n"},
        {"tcp", COM_TCP, "mode set to TCP\n"},
        {"tty", COM_TTY, "mode set to TTY\n"},
        {"ssl", COM_SSL, "mode set to SSL"},
    };
    if (choose(net, net.commode, kModes, arg[1])) return kOk;
    net.report("unknown mode\n");
    return "ERROR (UNKNOWN MODE)";
  }

  static std::string ttymode(GenericNet& net, char** arg) {
    static constexpr Choice<TtyMode> kFramings[] = {
        {"8N1", TTY_8N1, "tty mode set to 8N1\n"}, {"7E1", TTY_7E1, "mode set to 7E1\n"},
        {"7O1", TTY_7O1, "tty mode set to 7O1\n"}, {"8E1", TTY_8E1, "mode set to 8E1\n"},
        {"8O1", TTY_8O1, "tty mode set to 8O1\n"},
    };
    if (choose(net, net.ttymode, kFramings, arg[1])) return kOk;
    net.report("unknown tty mode\n");
    return "ERROR (UNKNOWN TTY MODE)";
  }

  static std::string flowControl(GenericNet& net, char** arg) {
    static constexpr Choice<FclMode> kFlowControls[] = {
        {"SW", FCL_SW, "flow control software\n"},
        {"HW", FCL_HW, "flow control hardware\n"},
        {"NO", FCL_NO, "flow control off\n"},
    };
    if (choose(net, net.fclmode, kFlowControls, arg[1])) return kOk;
    net.report("unknown flow control mode\n");
    return "ERROR (UNKNOWN FLOW CONTROL MODE)";
  }

  static std::string tty(GenericNet& net, char** arg) {
    copyInto(net.tty, arg[1]);
    Drovane::global.log(LOG_LEVEL_INFO, net.id, net.name, "serial port set to: %s\n", net.tty);
    return kOk;
  }

  static std::string baudrate(GenericNet& net, char** arg) {
    struct Baud {
      std::string_view word;
      speed_t code;
    };
    static constexpr Baud kBauds[] = {
        {"B50", B50},         {"B75", B75},         {"B110", B110},     {"B134", B134},
        {"B150", B150},       {"B200", B200},       {"B300", B300},     {"B600", B600},
        {"B1200", B1200},     {"B1800", B1800},     {"B2400", B2400},   {"B4800", B4800},
        {"B9600", B9600},     {"B19200", B19200},   {"B38400", B38400}, {"B57600", B57600},
        {"B115200", B115200}, {"B230400", B230400},
    };
    const Baud* known = std::find_if(std::begin(kBauds), std::end(kBauds),
                                     [&](const Baud& baud) { return baud.word == arg[1]; });
    if (known == std::end(kBauds)) net.report("unsupported baudrate requested, using B9600\n");
    net.baudrate = known == std::end(kBauds) ? speed_t{B9600} : known->code;
    Drovane::global.log(LOG_LEVEL_INFO, net.id, net.name, "baudrate set to %d %s\n",
                        static_cast<int>(net.baudrate), arg[1]);
    return kOk;
  }

  static std::string eolin(GenericNet& net, char** arg) {
    net.eolin_size = RovikUtil::unescape(net.eolin, kEolSize, arg[1]);
    Drovane::global.log(LOG_LEVEL_INFO, net.id, net.name, "eolin set to %s, length %d\n", arg[1],
                        net.eolin_size);
    return kOk;
  }

  static std::string eolout(GenericNet& net, char** arg) {
    net.eolout_size = RovikUtil::unescape(net.eolout, kEolSize, arg[1]);
    Drovane::global.log(LOG_LEVEL_INFO, net.id, net.name, "eolout set to %s, length %d\n", arg[1],
                        net.eolout_size);
    return kOk;
  }

  static std::string port(GenericNet& net, char** arg) {
    net.port = decimalPrefix(arg[1]);
    Drovane::global.log(LOG_LEVEL_INFO, net.id, net.name, "port set to: %d\n", net.port);
    return kOk;
  }

  static std::string host(GenericNet& net, char** arg) {
    copyInto(net.host, arg[1]);
    Drovane::global.log(LOG_LEVEL_INFO, net.id, net.name, "host set to: %s\n", net.host);
    return kOk;
  }

  static std::string wol(GenericNet& net, char** arg) {
    const std::string_view what = arg[1];
    if (what == "adr" && arg[2] != nullptr) {
      copyInto(net.wol_adr, arg[2]);
      Drovane::global.log(LOG_LEVEL_INFO, net.id, net.name, "WOL BC address set to: %s\n",
                          net.wol_adr);
      return kOk;
    }
    if (what == "mac" && arg[2] != nullptr) return wolMac(net, arg[2]);
    if (what == "snd") return net.sendWOL() >= 0 ? kOk : kError;
    return kError;
  }

  // The line shows the bytes as they were before, as a text; callers rely on the order.
  static std::string wolMac(GenericNet& net, const char* text) {
    unsigned char* mac = net.wol_mac;
    Drovane::global.log(LOG_LEVEL_INFO, net.id, net.name, "WOL MAC address set to: %.*s\n",
                        static_cast<int>(sizeof net.wol_mac), reinterpret_cast<const char*>(mac));
    // What does not fit the format leaves the bytes from there on alone.
    std::sscanf(text, "%hhx:%hhx:%hhx:%hhx:%hhx:%hhx", &mac[0], &mac[1], &mac[2], &mac[3], &mac[4],
                &mac[5]);
    return kOk;
  }

  static std::string networkId(GenericNet& net, char** arg) {
    net.network_id = decimalPrefix(arg[1]);
    Drovane::global.log(LOG_LEVEL_INFO, net.id, net.name, "network_id set to: %d\n",
                        net.network_id);
    return kOk;
  }

  static std::string dtr(GenericNet& net, char** arg) {
    const bool on = isOn(arg[1]);
    if (net.toggleDTR(on) < 0) {
      net.report(on ? "could not set DTR\n" : "could not clear DTR\n");
      return kError;
    }
    info(net, on ? "DTR set\n" : "DTR cleared\n");
    return kOk;
  }

  static std::string rts(GenericNet& net, char** arg) {
    const bool on = isOn(arg[1]);
    if (net.toggleRTS(on) < 0) {
      net.report(on ? "could not set RTS\n" : "could not clear RTS\n");
      return kError;
    }
    info(net, on ? "RTS set\n" : "RTS cleared\n");
    return kOk;
  }

  static std::string open(GenericNet& net, char**) { return net.openGeneric() < 0 ? kError : kOk; }

  static std::string close(GenericNet& net, char**) {
    return net.closeGeneric() < 0 ? kError : kOk;
  }

  static std::string regin(GenericNet& net, char** arg) {
    char data[] = "MM_DATA";
    net.setRegexTableIN(arg[1], arg[2], arg[3], arg[4] != nullptr ? arg[4] : data);
    if (arg[4] != nullptr) {
      Drovane::global.log(LOG_LEVEL_INFO, net.id, net.name, "setRegexTableIN entry: %s %s %s %s\n",
                          arg[1], arg[2], arg[3], arg[4]);
    } else {
      Drovane::global.log(LOG_LEVEL_INFO, net.id, net.name,
                          "setRegexTableIN entry: %s %s %s MM_DATA\n", arg[1], arg[2], arg[3]);
    }
    return kOk;
  }

  static std::string regout(GenericNet& net, char** arg) {
    net.setRegexTableOUT(arg[1], arg[2], arg[3]);
    Drovane::global.log(LOG_LEVEL_INFO, net.id, net.name,
                        "setRegexTableOUT entry: %s %s %s MM_ACTUATOR_REQUEST\n", arg[1], arg[2],
                        arg[3]);
    return kOk;
  }

  // The link is open already, so opening it once more succeeds; a failure would mean that there is
  // nothing to test.
  static std::string test(GenericNet& net, char**) {
    if (net.openGeneric() < 0) return kOk;
    return net.sendTest() < 0 ? kError : kOk;
  }

  // What is wrong with a rule; empty when nothing is.
  static std::string wrongRule(const std::string& key, const std::string& regex) {
    if (MMData().setKey(key.c_str()) < 0)
      return "key '" + key + "' is not three decimal numbers joined by _, such as 5_1_0";
    const std::string error = RovikUtil::regexError(regex);
    if (error.empty()) return "";
    return "regular expression '" + regex + "' is not valid: " + error;
  }

  // What a row answers while a configuration is only being checked.
  static std::string check(const Row& row, GenericNet& net, char** arg);
};

// Row 3 shares its keyword with row 2, which always answers first: flow control keeps its default,
// and "ttymode SW" is refused as an unknown framing. Configurations rely on the refusal.
std::span<const GenericNet::Commands::Row> GenericNet::Commands::table() {
  using enum Link;
  static const Row kRows[] = {
      {"mode", 1, Closed, mode},
      {"ttymode", 1, Closed, ttymode},
      {"ttymode", 1, Closed, flowControl},
      {"tty", 1, Closed, tty},
      {"baudrate", 1, Closed, baudrate},
      {"raw", 1, Any,
       Flag{&GenericNet::raw, "RAW data mode on (lua file needed!)\n", "RAW data mode off\n"}},
      {"dtr", 1, Open, dtr},
      {"rts", 1, Open, rts},
      {"persist", 1, Any,
       Flag{&GenericNet::persistent, "connection is maintained\n",
            "connections is not maintained\n"}},
      {"reconnect", 1, Any,
       Flag{&GenericNet::reconnect, "automatic reconnect to peer\n",
            "peer is not automatically reconnected\n"}},
      {"echo", 1, Any,
       Flag{&GenericNet::echo, "echo confirmation for request\n",
            "do not echo confirmation for request\n"}},
      {"chopeol", 1, Any,
       Flag{&GenericNet::chopeolin, "removing eol from received data\n",
            "not removing eol from received data\n"}},
      {"eolclose", 1, Any,
       Flag{&GenericNet::eolclose, "using socket close as end of line\n",
            "using eol character as end of line\n"}},
      {"eolin", 1, Any, eolin},
      {"eolout", 1, Any, eolout},
      {"addeol", 1, Any,
       Flag{&GenericNet::addeolout, "adding eol for sent data\n",
            "not adding eol for sent data\n"}},
      {"iodebug", 1, Any,
       Flag{&GenericNet::iodebug, "io debug info will be printed\n",
            "io debug info will not be printed\n"}},
      {"port", 1, Closed, port},
      {"host", 1, Closed, host},
      {"wol", 1, Any, wol},
      {"network_id", 1, Any, networkId},
      {"open", 0, Closed, open},
      {"close", 0, Open, close},
      {"accept_self_cert", 1, Any,
       Flag{&GenericNet::accept_self_cert,
            "accepting self signed certs for ssl without verification\n",
            "not accepting self signed certs for ssl without verification\n"}},
      {"reg", 1, Any,
       Flag{&GenericNet::reg, "applying regular expressions\n", "regular expressions disabled\n"}},
      {"unparsedout", 1, Any,
       Flag{&GenericNet::unparsedout, "creating default unparsed out message <network_id>_0_0\n",
            "disable default unparsed out message <network_id>_0_0\n"}},
      {"unparsedin", 1, Any,
       Flag{&GenericNet::unparsedin, "reacting to default unparsed in message <network_id>_0_0\n",
            "not reacting to default unparsed in message <network_id>_0_0\n"}},
      {"regin", 3, Any, regin},
      {"regout", 3, Any, regout},
      {"test", 0, Open, test},
  };
  return kRows;
}

std::string GenericNet::Commands::check(const Row& row, GenericNet& net, char** arg) {
  const bool acts = row.link == Link::Open || row.is("open") ||
                    (row.is("wol") && std::string_view(arg[1]) == "snd");
  if (acts) return kOk;
  if (row.is("regin") || row.is("regout")) {
    const std::string wrong = wrongRule(arg[1], arg[2]);
    if (!wrong.empty()) return "ERROR (" + wrong + ")";
  }
  return run(row, net, arg);
}

std::string GenericNet::Commands::run(const Row& row, GenericNet& net, char** arg) {
  if (const Flag* flag = std::get_if<Flag>(&row.effect)) return setFlag(net, *flag, arg[1]);
  return std::get<Action>(row.effect)(net, arg);
}

std::string GenericNet::interpretCmd(char** arg) {
  if (arg[0] == nullptr) return LuaRovik::interpretCmd(arg);
  const bool checking = Drovane::global.checking();
  for (const auto& row : Commands::table()) {
    if (!row.takes(arg, fd >= 0)) continue;
    return checking ? Commands::check(row, *this, arg) : Commands::run(row, *this, arg);
  }
  return LuaRovik::interpretCmd(arg);
}
