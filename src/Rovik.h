// The base class of every plug-in (a rovik): one object, one thread, one descriptor, one timer.
//
// The life of a rovik, as its framework drives it:
//
//   maker() -> constructor      `id` and `name` are already set
//           -> start            the thread runs
//                interpretCmd...  the configuration, one command at a time, before all else
//                selectFD       `fd` is readable
//                selectMM       a message for this rovik has arrived
//                selectTI       `timer` has expired
//                interpretCmd   a command came in; between two events
//           -> stop             the thread ends
//           -> delete
//
// One thread at a time is ever inside a rovik: its own, from the start on; whoever has made it,
// before that. A rovik therefore needs no lock for its own members.
#pragma once

#include <cjson/cJSON.h>
#include <sys/select.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "RovikMessage.h"
#include "Thread.h"
#include "TimeValue.h"
#include "Timer.h"

namespace drovane {
class RovikHost;
}

// Kinds of rovik.
enum RovikTypes : int {
  MT_NETWORK_GENERIC = 1,
  MT_LUA = 8,
};

class Rovik : public Thread {
 public:
  // How one key is written inside and outside the system.
  struct Translation {
    Translation(std::string its_key, std::string in, std::string out);
    std::string key;
    std::string map_in;
    std::string map_out;
  };

  // How the link of a rovik that is tried without its device carries what the device says.
  struct TrialLink {
    bool datagrams;             // each read brings one unit
    std::string_view unit_end;  // else: what ends a unit; empty when each read does
    bool ends_at_close;         // only the end of the link ends a unit
  };

  // Takes over the id and the name that the loader has set aside for the constructing thread.
  Rovik();

  // The event loop. Not for plug-ins to override.
  int main() override;
  ~Rovik() override;
  int stop() override;

  // One configuration command. `arg` is a null-terminated vector of at least ten entries, null
  // where no word was given; arg[0] is the keyword. The words are the framework's and may be
  // written to. Returns the reply: a text that begins with "ERROR" on failure, "" when nothing
  // handled the word.
  virtual std::string interpretCmd(char** arg);

  // Adds the plug-in's own items to a description object of the framework's. Returns 0.
  virtual int getDescription(cJSON* desc_json);

  // The event slots; each returns 0 when it has handled the event, errors included.
  // `msg` is the framework's and may be shared: read it, copy it, do not change or destroy it.
  virtual int selectMM(RovikMessage* msg);
  virtual int selectFD();
  virtual int selectTI();

 protected:
  // Queues a copy of `msg`, which stays the caller's, and fills in what is zero on it: seqnr, src,
  // src_s and a data value's time. From inside a slot or a command it leaves when that returns (or
  // soon after, while the link has more to read), when 512 wait, or when the rovik sends a request
  // and waits. Any thread may call. 0, or -1 when nobody has that address.
  int messageSnd(RovikMessage* msg);

  // Sends `msg`, a request, and waits at most 5 s for the answer: a message of a reply kind
  // (MM_DATA, MM_CMD_RESPONSE) that is addressed to this rovik and carries the request's seqnr.
  // Returns it, the caller's to destroy, or null: nobody has that address (at once), no answer
  // came, or the rovik is being stopped. The rovik does nothing else meanwhile. Only the thread
  // that is inside the rovik may call.
  RovikMessage* messageSndBlock(RovikMessage* msg);

  // Names the socket that calls of this rovik may wait for without a limit: a handshake, a read, a
  // write. When the rovik is to end and does not come back from such a wait, the framework shuts
  // the socket down, so that the wait ends as if the peer had gone; from then on the answer is
  // false, and there should be no further wait. -1: none, to be said before the socket is closed.
  // Only the thread that is inside the rovik may call.
  bool blocksOn(int socket);

  // Records `text` as the current warning, with its time, for the status display. Any thread.
  void setWarning(std::string text);

  // What goes over the link, for the status display and for whoever traces the link. Only the
  // thread that is inside the rovik may call.
  //
  // Bytes that came from the peer, and bytes that were written to it in one go, as they are.
  void linkReceived(std::string_view bytes);
  void linkSent(std::string_view bytes);
  // `count` units (lines, datagrams) were made of what came; `last` is the last one, escaped.
  void unitsReceived(std::uint64_t count, std::string_view last);
  // What came was thrown away, because no end of a unit was in it.
  void unitDropped();

  // For the status display: the bytes that this rovik's script holds; 0 while there is none. Only
  // the thread that is inside the rovik may write.
  std::atomic<std::size_t>& scriptMemory();

  // --- A rovik that is tried without its device ---

  // True while this rovik is tried: it opens trial links instead of its own, and reaches nothing
  // outside the system.
  bool onTrial() const;
  // A link to whoever tries this rovik, for read(2) and write(2); the rovik's to close. Negative
  // with errno set on failure. Only while onTrial; only the thread that is inside the rovik.
  int trialLink(const TrialLink& kind);

  int fd;            // what the loop waits on; -1 when none. The loop reads it anew on each pass
  TimeValue period;  // armed when the thread starts, unless the timer already is, and again on
                     // each expiry before selectTI
  Timer timer;
  fd_set readfds;  // what the loop's last wait found readable; fd must be below FD_SETSIZE
  int id;          // 1 to 16000
  int type;        // a RovikTypes value
  std::string name;

 private:
  friend class drovane::RovikHost;
  std::unique_ptr<drovane::RovikHost> host;
};
