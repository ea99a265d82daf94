// IPv4 socket addresses as the socket calls want them.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

// Any address of this machine, any port.
inline sockaddr_in anyAddress() {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_ANY);
  return address;
}

inline const sockaddr* generic(const sockaddr_in& address) {
  return reinterpret_cast<const sockaddr*>(&address);
}

inline sockaddr* generic(sockaddr_in& address) { return reinterpret_cast<sockaddr*>(&address); }
