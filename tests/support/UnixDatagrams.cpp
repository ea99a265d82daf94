#include "support/UnixDatagrams.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <stdexcept>
#include <system_error>

#include "support/Eventually.h"

namespace {

constexpr std::size_t kLargest = 1024 * 1024;

std::string contentOf(const drovane::Descriptor& file) {
  struct stat facts {};
  if (::fstat(file.get(), &facts) != 0)
    throw std::system_error(errno, std::generic_category(), "fstat");
  std::string content(static_cast<std::size_t>(facts.st_size), '\0');
  if (::pread(file.get(), content.data(), content.size(), 0) != facts.st_size)
    throw std::runtime_error("the file that was sent cannot be read");
  return content;
}

// The open file that came with a datagram, if one did.
drovane::Descriptor fileIn(msghdr& datagram) {
  const cmsghdr* extra = CMSG_FIRSTHDR(&datagram);
  if (extra == nullptr || extra->cmsg_type != SCM_RIGHTS) return {};
  int file = -1;
  std::memcpy(&file, CMSG_DATA(extra), sizeof file);
  return drovane::Descriptor(file);
}

}  // namespace

UnixDatagrams::UnixDatagrams(const std::string& path)
    : socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) throw std::runtime_error("too long: " + path);
  path.copy(address.sun_path, path.size());
  if (path.starts_with('@')) address.sun_path[0] = '\0';
  const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size());
  if (::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), length) != 0)
    throw std::system_error(errno, std::generic_category(), "bind " + path);
}

bool UnixDatagrams::receive() {
  std::string text(kLargest, '\0');
  iovec part{text.data(), text.size()};
  alignas(cmsghdr) char extra[CMSG_SPACE(sizeof(int))];
  msghdr datagram{};
  datagram.msg_iov = &part;
  datagram.msg_iovlen = 1;
  datagram.msg_control = extra;
  datagram.msg_controllen = sizeof extra;
  const ssize_t size = ::recvmsg(socket.get(), &datagram, MSG_CMSG_CLOEXEC);
  if (size < 0 && errno == EAGAIN) return false;
  if (size < 0) throw std::system_error(errno, std::generic_category(), "recvmsg");
  const drovane::Descriptor file = fileIn(datagram);
  text.resize(static_cast<std::size_t>(size));
  received.push_back(file ? contentOf(file) : text);
  return true;
}

const std::vector<std::string>& UnixDatagrams::all() {
  while (receive()) continue;
  return received;
}

std::size_t UnixDatagrams::count(const std::string& text) {
  const auto& texts = all();
  return static_cast<std::size_t>(
      std::count_if(texts.begin(), texts.end(),
                    [&](const std::string& each) { return each.find(text) != std::string::npos; }));
}

bool UnixDatagrams::waitFor(const std::string& text) {
  return eventually([&] { return count(text) > 0; });
}
