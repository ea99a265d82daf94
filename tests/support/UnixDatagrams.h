// A Unix datagram socket of a test's own, such as a service manager or the journal has.
#pragma once

#include <string>
#include <vector>

#include "framework/Descriptor.h"

class UnixDatagrams {
 public:
  // Listens at the path; one that begins with '@' is a name in the abstract space.
  explicit UnixDatagrams(const std::string& path);

  // Everything that has come so far, in order. What came as an open file instead of a text is its
  // content.
  const std::vector<std::string>& all();
  // Whether one with this text comes in time. Looks at the earlier ones too.
  bool waitFor(const std::string& text);
  // Nobody listens any more.
  void close() { socket.reset(); }
  // How many hold the text so far.
  std::size_t count(const std::string& text);

 private:
  bool receive();

  drovane::Descriptor socket;
  std::vector<std::string> received;
};
