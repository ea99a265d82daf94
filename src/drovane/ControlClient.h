// The other end of the control socket.
#pragma once

#include <optional>
#include <stdexcept>
#include <string>

#include "framework/Descriptor.h"
#include "framework/MessageJson.h"

namespace drovane {

// There is no running drovane at the path, or it has gone away.
class NotRunning : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The running drovane has answered with an error.
class Refused : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class ControlClient {
 public:
  // The option, else DROVANE_CONTROL, else drovane.sock in XDG_RUNTIME_DIR or /run.
  static std::string choosePath(const std::string& option);

  // Connects. Throws NotRunning.
  explicit ControlClient(std::string its_path);

  // Sends the request and waits for its reply. Throws NotRunning and Refused.
  Json request(const Json& request);

  // The next line; waits for it. Throws NotRunning when the other end is gone.
  std::string readLine();

 private:
  void sendLine(const std::string& line);
  [[noreturn]] void failGone() const;

  const std::string path;
  Descriptor socket;
  std::string input;
};

// {"op":op}, for further fields.
Json newRequest(const char* op);

}  // namespace drovane
