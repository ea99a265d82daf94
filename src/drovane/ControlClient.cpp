#include "ControlClient.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace drovane {
namespace {

std::optional<std::string> environment(const char* name) {
  const char* value = std::getenv(name);
  if (value == nullptr || *value == '\0') return std::nullopt;
  return value;
}

[[noreturn]] void failConnect(const std::string& path, const std::string& reason) {
  throw NotRunning("no running drovane at " + path + ": " + reason);
}

Descriptor connectTo(const std::string& path) {
  sockaddr_un target{};
  target.sun_family = AF_UNIX;
  if (path.size() >= sizeof target.sun_path) failConnect(path, "the path is too long");
  std::memcpy(target.sun_path, path.data(), path.size());
  Descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!socket) failConnect(path, std::strerror(errno));
  if (::connect(socket.get(), reinterpret_cast<const sockaddr*>(&target), sizeof target) != 0)
    failConnect(path, std::strerror(errno));
  return socket;
}

}  // namespace

std::string ControlClient::choosePath(const std::string& option) {
  if (!option.empty()) return option;
  if (const auto path = environment("DROVANE_CONTROL")) return *path;
  return environment("XDG_RUNTIME_DIR").value_or("/run") + "/drovane.sock";
}

ControlClient::ControlClient(std::string its_path)
    : path(std::move(its_path)), socket(connectTo(path)) {}

void ControlClient::failGone() const {
  throw NotRunning("the drovane at " + path + " has gone away");
}

// A connection that breaks while the request goes out may still hold the reason.
void ControlClient::sendLine(const std::string& line) {
  const std::string whole = line + '\n';
  for (std::size_t sent = 0; sent < whole.size();) {
    const ssize_t count =
        ::send(socket.get(), whole.data() + sent, whole.size() - sent, MSG_NOSIGNAL);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return;
    sent += static_cast<std::size_t>(count);
  }
}

std::string ControlClient::readLine() {
  std::array<char, 65536> block;
  std::size_t searched = 0;
  while (true) {
    const std::size_t end = input.find('\n', searched);
    if (end != std::string::npos) {
      std::string line = input.substr(0, end);
      input.erase(0, end + 1);
      return line;
    }
    searched = input.size();
    const ssize_t count = ::recv(socket.get(), block.data(), block.size(), 0);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) failGone();
    input.append(block.data(), static_cast<std::size_t>(count));
  }
}

Json ControlClient::request(const Json& request) {
  sendLine(jsonLine(request.get()));
  Json reply(cJSON_Parse(readLine().c_str()));
  const cJSON* ok = cJSON_GetObjectItemCaseSensitive(reply.get(), "ok");
  if (!cJSON_IsBool(ok)) throw Refused("the answer at " + path + " is not a drovane's");
  if (cJSON_IsTrue(ok) != 0) return reply;
  std::string error = "refused without a reason";
  readText(reply.get(), "error", error);
  throw Refused(error);
}

Json newRequest(const char* op) {
  Json request(cJSON_CreateObject());
  cJSON_AddStringToObject(request.get(), "op", op);
  return request;
}

}  // namespace drovane
