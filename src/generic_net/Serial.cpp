// The link over a serial line: how the port is set up, and its modem-control features.
#include <fcntl.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "GenericNet.h"

namespace {

struct Framing {
  TtyMode mode;
  tcflag_t flags;  // of c_cflag
};

tcflag_t flagsOf(TtyMode mode) {
  static constexpr Framing kFramings[] = {
      {TTY_8N1, CS8},          {TTY_7E1, CS7 | PARENB},          {TTY_7O1, CS7 | PARENB | PARODD},
      {TTY_8E1, CS8 | PARENB}, {TTY_8O1, CS8 | PARENB | PARODD},
  };
  const auto* const found = std::find_if(std::begin(kFramings), std::end(kFramings),
                                         [mode](const Framing& row) { return row.mode == mode; });
  return found != std::end(kFramings) ? found->flags : 0;
}

}  // namespace

// What is reported when settings cannot be applied, for the device, errno and its text.
struct GenericNet::PortReports {
  const char* flush;
  const char* configure;
};

int GenericNet::openTTY() {
  trace("opening Serial socket\n");
  if (!takeDescriptor(::open(tty, O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC))) {
    report("open serial port: %s (errno: %d %s)\n", tty, errno, std::strerror(errno));
    return -1;
  }
  return setUpPort() ? 0 : abandonLink();
}

// The descriptor is closed already.
int GenericNet::closeTTY() { return 0; }

// Raw bytes, the configured speed and framing. False after the reason was reported.
bool GenericNet::setUpPort() {
  termios settings{};
  if (tcgetattr(fd, &settings) < 0) {
    report("failed to get serial port attributes: %s (errno: %d %s)\n", tty, errno,
           std::strerror(errno));
    return false;
  }
  // That was to see whether this is a terminal: nothing of what it was set to is kept.
  settings = termios{};
  settings.c_cflag = CLOCAL | CREAD | flagsOf(ttymode);
  if (fclmode == FCL_HW) report("hardware flow control not supported\n");
  settings.c_iflag = IGNBRK;
  if (fclmode == FCL_SW) settings.c_iflag |= IXON | IXOFF | IXANY;
  settings.c_cc[VMIN] = 1;
  settings.c_cc[VTIME] = 0;
  const int code = static_cast<int>(baudrate);
  trace("set baudrate to: %d\n", code);
  if (cfsetispeed(&settings, baudrate) < 0 || cfsetospeed(&settings, baudrate) < 0) {
    report("failed to set baudrate: %d (errno: %d %s)\n", code, errno, std::strerror(errno));
    return false;
  }
  static constexpr PortReports kReports = {
      "failed to flush serial port: %s (errno: %d %s)\n",
      "failed to set serial configuration: %s (errno: %d %s)\n",
  };
  return applyToPort(settings, kReports);
}

// What waits in either direction is dropped. False after the reason was reported.
bool GenericNet::applyToPort(const termios& settings, const PortReports& reports) {
  if (tcflush(fd, TCIOFLUSH) == -1) {
    report(reports.flush, tty, errno, std::strerror(errno));
    return false;
  }
  if (tcsetattr(fd, TCSANOW, &settings) < 0) {
    report(reports.configure, tty, errno, std::strerror(errno));
    return false;
  }
  return true;
}

// Hardware flow control (RTS/CTS), until the port is opened anew.
int GenericNet::toggleRTS(bool on) {
  if (commode != COM_TTY) {
    report("RTS: not in tty mode\n");
    return -1;
  }
  if (fd < 0) {
    report("RTS: port not open, serial port must be open before setting RTS\n");
    return -1;
  }
  if (onTrial()) return 0;  // a trial link has no such lines
  termios settings{};
  if (tcgetattr(fd, &settings) < 0) {
    report("RTS: failed to get serial port attributes: %s (errno: %d %s)\n", tty, errno,
           std::strerror(errno));
    return -1;
  }
  if (on) {
    settings.c_cflag |= CRTSCTS;
  } else {
    settings.c_cflag &= ~static_cast<tcflag_t>(CRTSCTS);
  }
  static constexpr PortReports kReports = {
      "RTS: failed to flush serial port: %s (errno: %d %s)\n",
      "RTS: failed to set serial configuration: %s (errno: %d %s)\n",
  };
  return applyToPort(settings, kReports) ? 0 : -1;
}

int GenericNet::toggleDTR(bool on) {
  if (commode != COM_TTY) {
    report("DTR: not in tty mode\n");
    return -1;
  }
  if (fd < 0) {
    report("DTR: port not open, serial port must be open before setting DTR\n");
    return -1;
  }
  if (onTrial()) return 0;  // likewise
  int controlbits = 0;
  if (ioctl(fd, TIOCMGET, &controlbits) < 0) {
    report("DTR: ioctl TIOCMGET (errno: %d %s)\n", errno, std::strerror(errno));
    return -1;
  }
  controlbits = on ? controlbits | TIOCM_DTR : controlbits & ~TIOCM_DTR;
  if (ioctl(fd, TIOCMSET, &controlbits) < 0) {
    report("DTR: ioctl TIOCMSET (errno: %d %s)\n", errno, std::strerror(errno));
    return -1;
  }
  return 0;
}

ssize_t GenericNet::writeTTY(const char* data, std::size_t length) {
  return ::write(fd, data, length);
}
