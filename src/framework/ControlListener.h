// The control socket's place in the file system, and who may come in.
#pragma once

#include <sys/types.h>

#include <stdexcept>
#include <string>

#include "Descriptor.h"

namespace drovane {

class ControlSocketError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// A listening Unix stream socket of mode 0600. The file that a dead process has left is replaced;
// the file is removed at the end, if it is still the one that was made here.
class ControlListener {
 public:
  // Throws ControlSocketError: the path is too long, is no socket, or is in use.
  explicit ControlListener(std::string its_path);
  ~ControlListener();
  ControlListener(const ControlListener&) = delete;
  ControlListener& operator=(const ControlListener&) = delete;

  const std::string path;

  int descriptor() const { return listening.get(); }

  // The next connection, not blocking and above the links. It holds none when nobody waits, or
  // when it could not be had: errno then says why.
  Descriptor accept() const;

  // Only the user that runs this process, and root, may talk to it.
  static bool allowed(int connection);

 private:
  void removeStale() const;
  void bindAndListen();

  Descriptor listening;
  dev_t device = 0;
  ino_t inode = 0;
};

}  // namespace drovane
