#include "FakeDrovane.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

FakeDrovane::FakeDrovane(std::vector<std::string> its_answers)
    : answers(std::move(its_answers)), listening(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path().copy(address.sun_path, sizeof address.sun_path - 1);
  if (::bind(listening.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      ::listen(listening.get(), 1) != 0)
    throw std::system_error(errno, std::generic_category(), "bind or listen");
  thread = std::thread([this] { serve(); });
}

FakeDrovane::~FakeDrovane() {
  ::shutdown(listening.get(), SHUT_RDWR);
  thread.join();
}

Finished FakeDrovane::ask(const Arguments& arguments) const {
  Arguments line = {DROVANE_PROGRAM};
  line.insert(line.end(), arguments.begin(), arguments.end());
  return runToEnd(line, {{"DROVANE_CONTROL", path()}});
}

void FakeDrovane::serve() {
  const drovane::Descriptor client(::accept(listening.get(), nullptr, nullptr));
  for (const std::string& answer : answers) {
    const std::string line = readLine(client.get());
    if (line.empty()) return;
    asked.push_back(line);
    const std::string whole = answer + '\n';
    ::send(client.get(), whole.data(), whole.size(), MSG_NOSIGNAL);
  }
}

std::string FakeDrovane::readLine(int client) {
  std::string line;
  for (char byte = 0; byte != '\n'; line += byte)
    if (::recv(client, &byte, 1, 0) != 1) return "";
  line.pop_back();
  return line;
}
