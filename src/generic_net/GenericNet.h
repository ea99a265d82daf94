// The bridge to one outside device or service: one link, bytes cut into lines, lines turned into
// messages.
//
//   where a line comes in    Inbound.cpp       selectFD -> rcvData
//   where a line goes out    Outbound.cpp      selectMM, sndIO -> sndData
//   where the link changes   Link.cpp          openGeneric, closeGeneric
//   what a transport does    Udp.cpp, Tcp.cpp, Tls.cpp, Serial.cpp; Trial.cpp without a device
//   where a command lives    Commands.cpp      one table of thirty rows
//
// The link is closed (fd < 0) or open (fd >= 0); only openGeneric and closeGeneric change that.
#pragma once

#include <netinet/in.h>
#include <openssl/types.h>
#include <sys/types.h>
#include <termios.h>

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "RegexTable.h"
#include "RovikMessage.h"
#include "lua/LuaRovik.h"

enum ComMode : int { COM_UDP = 0, COM_TCP = 1, COM_TTY = 2, COM_SSL = 3 };

// Data bits, parity and stop bits of a serial line.
enum TtyMode : int { TTY_8N1 = 0, TTY_7E1 = 1, TTY_7O1 = 2, TTY_8O1 = 3, TTY_8E1 = 4 };

// Flow control of a serial line.
enum FclMode : int { FCL_SW = 0, FCL_HW = 1, FCL_NO = 2 };

// Gives a handle back to OpenSSL.
struct TlsRelease {
  void operator()(SSL_CTX* context) const;
  void operator()(SSL* session) const;
  void operator()(X509* certificate) const;
};

class GenericNet : public LuaRovik {
 public:
  // What text becomes which message: a line from the peer that matches `regex` becomes a message
  // of `type` under `key` with the filled-in `output`; a request under `key` whose value matches
  // becomes text for the peer.
  struct RegexRule {
    // `type` is MM_ACTUATOR_REQUEST for exactly that text and MM_DATA for any other.
    RegexRule(std::string its_key, std::string its_regex, std::string its_output,
              const std::string& type_text);
    std::string key;
    std::string regex;
    std::string output;
    MessageTypes type;
  };

  GenericNet();
  ~GenericNet() override;

  std::string interpretCmd(char** arg) override;
  int getDescription(cJSON* desc_json) override;
  int selectMM(RovikMessage* msg) override;
  int selectFD() override;
  int selectTI() override;
  int localPrepLua() override;

  // What a script calls to write to the peer.
  static int lua_sndIO_dispatch(lua_State* L);

  // Appends a rule; tables only grow. 0.
  int setRegexTableIN(char* key, char* regex, char* output, char* type_text);
  int setRegexTableOUT(char* key, char* regex, char* output);

 protected:
  // 0, or a negative value after the reason was reported. Opening an open link and closing a closed
  // one do nothing and succeed.
  int openGeneric();
  int closeGeneric();
  int openUDP();
  int openTCP();
  int openTTY();
  int openSSL();
  // 0. They run after the descriptor was closed.
  int closeUDP();
  int closeTCP();
  int closeTTY();
  int closeSSL();

  // Sends one Wake-on-LAN packet over a socket of its own. 0, or -1 after the reason was reported.
  int sendWOL();

  // Hardware flow control, and the DTR line, of an open serial link. 0, or -1 after the reason was
  // reported.
  int toggleRTS(bool on);
  int toggleDTR(bool on);

  // Processes one unit of peer data, zero bytes allowed, no terminator needed. Always 0.
  int rcvData(char* buf, int buf_size);

  // Writes `length` bytes of `data`, whose capacity leaves room for the end of line behind them,
  // and opens the link for that if need be. 0 when written, dropped or ignored, -1 after a failure.
  int sndData(char* data, int length, int capacity);
  int sndIO(lua_State* L);

  static constexpr int kTextSize = 512;     // characters of a host, device or address
  static constexpr int kEolSize = 10;       // bytes of an end-of-line sequence
  static constexpr int kBufferSize = 4096;  // bytes of the line buffer

  int network_id;  // first number of the default key <network_id>_0_0
  ComMode commode;
  TtyMode ttymode;
  FclMode fclmode;
  bool persistent;
  bool reconnect;
  bool echo;
  bool chopeolin;
  bool addeolout;
  bool reg;
  bool unparsedout;
  bool unparsedin;
  bool raw;
  bool eolclose;
  char eolin[kEolSize];
  int eolin_size;
  char eolout[kEolSize];
  int eolout_size;
  int port;
  char host[kTextSize + 1];
  char tty[kTextSize + 1];
  speed_t baudrate;
  bool iodebug;
  bool accept_self_cert;
  char wol_adr[kTextSize + 1];
  unsigned char wol_mac[6];
  char inbuf[kBufferSize];  // zero from inbufpos on
  int inbufpos;
  sockaddr_in l_addr;
  sockaddr_in p_addr;
  std::unique_ptr<SSL_CTX, TlsRelease> sslctx;  // these two while a TLS link is open
  std::unique_ptr<SSL, TlsRelease> ssl;
  std::unique_ptr<X509, TlsRelease> cert;  // these two while one is being opened
  X509_NAME* certname;                     // inside cert
  std::vector<RegexRule> regexTableIN;
  std::vector<RegexRule> regexTableOUT;

 private:
  struct Commands;  // the rows and their actions (Commands.cpp)

  // What each transport does in its own way.
  struct Transport {
    ComMode mode;
    int (GenericNet::*open)();
    int (GenericNet::*close)();
    // Behind what inbuf holds: the number of bytes, zero or less when the peer has gone, or nothing
    // to hand over yet.
    std::optional<int> (GenericNet::*read)();
    // Once. Negative with errno set on failure.
    ssize_t (GenericNet::*write)(const char* data, std::size_t length);
    const char* write_failure;  // its report, for errno and its text
  };
  const Transport* transport() const;

  static const Transport kTrial;
  int openTrial();
  int closeTrial();

  bool takeDescriptor(int descriptor);
  void closeDescriptor();
  int abandonLink();
  void emptyInbuf();
  ssize_t writeOnce(const Transport& how, const char* data, std::size_t length);
  int sendTest();
  bool broadcastWake(int socket, const unsigned char* packet, std::size_t size);

  bool bindLink();
  bool findPeer();
  bool connectPeer();
  bool startSession();
  bool acceptPeer();
  bool decryptedWaits() const;
  bool setUpPort();
  struct PortReports;
  bool applyToPort(const termios& settings, const PortReports& reports);

  std::optional<int> readUDP();
  std::optional<int> readStream();  // TCP and serial
  std::optional<int> readSSL();
  ssize_t writeUDP(const char* data, std::size_t length);
  ssize_t writeTCP(const char* data, std::size_t length);
  ssize_t writeTTY(const char* data, std::size_t length);
  ssize_t writeSSL(const char* data, std::size_t length);

  std::optional<int> readLink();
  void takeIn(std::optional<int> received);
  void peerGone();
  class BorrowedUnit;
  void handOverLines();
  void handOverAll();
  void tellScript(const std::string& text, const char* bytes, int length);
  void takeUnit(MMData& unit, const char* bytes, int length);
  void sendCatchAll(MMData& unit);
  void applyRules(const std::string& text);
  struct KeyNumbers {
    std::uint32_t network_id = 0;
    std::uint32_t node_id = 0;
    std::uint32_t value_id = 0;
  };
  void sendMatch(std::size_t index, const std::string& output);
  template <typename Kind>
  void sendText(std::size_t index, const std::string& text, const char* line);
  void sendRequest(MMActuatorRequest& request);
  int outputOfRule(const char* key, const char* value, char* output);
  int writeLink(const char* data, std::size_t length);
  void logBytes(const char* fmt, const char* bytes, int length);

  // Counts the links that came and went, so that a loop over the buffer sees that a callback has
  // changed the link under it.
  unsigned int link_epoch = 0;
  bool closing = false;  // ROVIK_RCVCLOSE runs; a close that it causes is not a second one
  RegexTable inbound;    // regexTableIN, ready to match
  std::vector<KeyNumbers> inbound_keys;  // of regexTableIN; all 0 for what is no key
  std::unordered_map<std::string, RegexTable> outbound;  // regexTableOUT by key, ready to match
  std::string spare_text;                                // memory for the next unit's text
};
