#include "CallFaults.h"

#include <ifaddrs.h>
#include <openssl/ssl.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdarg>
#include <mutex>
#include <stdexcept>
#include <utility>

namespace {

std::mutex lock;  // peers call too, on threads of their own
FailingCall* failing = nullptr;
ModemLines* modem = nullptr;
std::optional<termios> settings;

}  // namespace

FailingCall::FailingCall(std::string_view its_name, int its_error, int its_spared)
    : name(its_name), error(its_error), spared(its_spared) {
  const std::lock_guard guard(lock);
  if (std::exchange(failing, this) != nullptr) throw std::logic_error("a call is failing already");
}

FailingCall::~FailingCall() {
  const std::lock_guard guard(lock);
  failing = nullptr;
}

bool FailingCall::happened() const {
  const std::lock_guard guard(lock);
  return struck;
}

bool FailingCall::strikes(std::string_view called) {
  const std::lock_guard guard(lock);
  if (failing == nullptr || failing->struck || failing->name != called) return false;
  if (failing->spared-- > 0) return false;
  failing->struck = true;
  errno = failing->error;
  return true;
}

ModemLines::ModemLines(int its_lines) : lines(its_lines) {
  if (std::exchange(modem, this) != nullptr)
    throw std::logic_error("there are modem lines already");
}

ModemLines::~ModemLines() { modem = nullptr; }

std::optional<termios> takeSettings() { return std::exchange(settings, std::nullopt); }

// The linker's names for the two sides of a wrapped call.
#define REAL(call) __real_##call
#define WRAP(call) __wrap_##call

extern "C" {

int REAL(bind)(int, const sockaddr*, socklen_t);
int WRAP(bind)(int socket, const sockaddr* address, socklen_t length) {
  return FailingCall::strikes("bind") ? -1 : REAL(bind)(socket, address, length);
}

int REAL(setsockopt)(int, int, int, const void*, socklen_t);
int WRAP(setsockopt)(int socket, int level, int option, const void* value, socklen_t length) {
  if (FailingCall::strikes("setsockopt")) return -1;
  return REAL(setsockopt)(socket, level, option, value, length);
}

int REAL(fcntl)(int, int, ...);
int WRAP(fcntl)(int descriptor, int command, ...) {
  if (FailingCall::strikes("fcntl")) return -1;
  va_list arguments;
  va_start(arguments, command);
  const long argument = va_arg(arguments, long);
  va_end(arguments);
  return REAL(fcntl)(descriptor, command, argument);
}

int REAL(getifaddrs)(ifaddrs**);
int WRAP(getifaddrs)(ifaddrs** list) {
  return FailingCall::strikes("getifaddrs") ? -1 : REAL(getifaddrs)(list);
}

int REAL(tcgetattr)(int, termios*);
int WRAP(tcgetattr)(int descriptor, termios* to) {
  return FailingCall::strikes("tcgetattr") ? -1 : REAL(tcgetattr)(descriptor, to);
}

int REAL(tcflush)(int, int);
int WRAP(tcflush)(int descriptor, int queue) {
  if (modem != nullptr) ++modem->flushes;
  return FailingCall::strikes("tcflush") ? -1 : REAL(tcflush)(descriptor, queue);
}

int REAL(tcsetattr)(int, int, const termios*);
int WRAP(tcsetattr)(int descriptor, int when, const termios* from) {
  if (FailingCall::strikes("tcsetattr")) return -1;
  settings = *from;
  return REAL(tcsetattr)(descriptor, when, from);
}

int REAL(ioctl)(int, unsigned long, ...);
int WRAP(ioctl)(int descriptor, unsigned long request, ...) {
  va_list arguments;
  va_start(arguments, request);
  void* const argument = va_arg(arguments, void*);
  va_end(arguments);
  if (request == TIOCMGET && FailingCall::strikes("TIOCMGET")) return -1;
  if (request == TIOCMSET && FailingCall::strikes("TIOCMSET")) return -1;
  if (modem != nullptr && request == TIOCMGET) {
    *static_cast<int*>(argument) = modem->lines;
    return 0;
  }
  if (modem != nullptr && request == TIOCMSET) {
    modem->lines = *static_cast<const int*>(argument);
    return 0;
  }
  return REAL(ioctl)(descriptor, request, argument);
}

SSL_CTX* REAL(SSL_CTX_new)(const SSL_METHOD*);
SSL_CTX* WRAP(SSL_CTX_new)(const SSL_METHOD* method) {
  return FailingCall::strikes("SSL_CTX_new") ? nullptr : REAL(SSL_CTX_new)(method);
}

long REAL(SSL_CTX_ctrl)(SSL_CTX*, int, long, void*);
long WRAP(SSL_CTX_ctrl)(SSL_CTX* context, int command, long number, void* argument) {
  const bool lowest = command == SSL_CTRL_SET_MIN_PROTO_VERSION;
  const bool highest = command == SSL_CTRL_SET_MAX_PROTO_VERSION;
  if (lowest && FailingCall::strikes("SSL_CTX_set_min_proto_version")) return 0;
  if (highest && FailingCall::strikes("SSL_CTX_set_max_proto_version")) return 0;
  return REAL(SSL_CTX_ctrl)(context, command, number, argument);
}

int REAL(SSL_CTX_load_verify_locations)(SSL_CTX*, const char*, const char*);
int WRAP(SSL_CTX_load_verify_locations)(SSL_CTX* context, const char* file, const char* folder) {
  if (FailingCall::strikes("SSL_CTX_load_verify_locations")) return 0;
  return REAL(SSL_CTX_load_verify_locations)(context, file, folder);
}

SSL* REAL(SSL_new)(SSL_CTX*);
SSL* WRAP(SSL_new)(SSL_CTX* context) {
  return FailingCall::strikes("SSL_new") ? nullptr : REAL(SSL_new)(context);
}

int REAL(SSL_set_fd)(SSL*, int);
int WRAP(SSL_set_fd)(SSL* session, int descriptor) {
  return FailingCall::strikes("SSL_set_fd") ? 0 : REAL(SSL_set_fd)(session, descriptor);
}

X509* REAL(SSL_get1_peer_certificate)(const SSL*);
X509* WRAP(SSL_get1_peer_certificate)(const SSL* session) {
  if (FailingCall::strikes("SSL_get1_peer_certificate")) return nullptr;
  return REAL(SSL_get1_peer_certificate)(session);
}

char* REAL(X509_NAME_oneline)(const X509_NAME*, char*, int);
char* WRAP(X509_NAME_oneline)(const X509_NAME* name, char* buffer, int size) {
  if (FailingCall::strikes("X509_NAME_oneline")) return nullptr;
  return REAL(X509_NAME_oneline)(name, buffer, size);
}

}  // extern "C"
