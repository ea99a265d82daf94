// The modem-control features of a serial link.
#include "GenericNet.h"

int GenericNet::toggleRTS(bool) {
  report("RTS: not in tty mode\n");
  return -1;
}

int GenericNet::toggleDTR(bool) {
  report("DTR: not in tty mode\n");
  return -1;
}
