// Where a line comes in: selectFD reads the link and cuts it into units; rcvData turns a unit into
// messages.
#include <sys/select.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <lua.hpp>
#include <new>

#include "Drovane.h"
#include "GenericNet.h"
#include "Owned.h"
#include "RovikUtil.h"

// The message that carries a unit's text to the catch-all, and the text to the script and the
// rules. It is a local one, since a callback may send data that is echoed into rcvData; the memory
// of its text serves unit after unit.
class GenericNet::BorrowedUnit {
 public:
  explicit BorrowedUnit(GenericNet& its_owner) : owner(its_owner) {
    msg.value_s.swap(owner.spare_text);
  }
  ~BorrowedUnit() { msg.value_s.swap(owner.spare_text); }
  BorrowedUnit(const BorrowedUnit&) = delete;
  BorrowedUnit& operator=(const BorrowedUnit&) = delete;

  MMData msg;

 private:
  GenericNet& owner;
};

int GenericNet::selectFD() {
  if (fd < 0 || !FD_ISSET(fd, &readfds)) return 0;
  const unsigned int epoch = link_epoch;
  try {
    do takeIn(readLink());
    while (link_epoch == epoch && decryptedWaits());
  } catch (const std::bad_alloc&) {
    // Some units may have been handed over already; none is handed over twice.
    emptyInbuf();
    throw;
  }
  return 0;
}

// Of an unknown transport nothing can be read, as of a peer that has gone.
std::optional<int> GenericNet::readLink() {
  const Transport* const how = transport();
  return how != nullptr ? (this->*how->read)() : -1;
}

std::optional<int> GenericNet::readStream() {
  const auto room = static_cast<std::size_t>(kBufferSize - inbufpos);
  return static_cast<int>(::read(fd, inbuf + inbufpos, room));
}

// What one read has brought: a number of bytes, zero or less from a peer that has gone, or nothing
// that is meant for this rovik yet.
void GenericNet::takeIn(std::optional<int> received) {
  if (!received) return;
  if (*received < 1) {
    peerGone();
  } else {
    linkReceived({inbuf + inbufpos, static_cast<std::size_t>(*received)});
    inbufpos += *received;
    if (commode == COM_UDP || raw) {
      handOverAll();
    } else if (!eolclose) {
      handOverLines();
    }
  }
  // A full buffer without an end of line is dropped without a word, and collecting starts afresh.
  if (inbufpos < kBufferSize) return;
  unitDropped();
  emptyInbuf();
}

// The end of the stream and every error mean the same: the peer has gone.
void GenericNet::peerGone() {
  if (inbufpos > 0 && eolclose) handOverAll();
  report("connection closed by peer %s:%d\n", host, port);
  closeGeneric();
}

// All that the buffer holds is one unit.
void GenericNet::handOverAll() {
  BorrowedUnit unit(*this);
  takeUnit(unit.msg, inbuf, inbufpos);
  unitsReceived(1, unit.msg.value_s);
  emptyInbuf();
}

// The buffer is moved once for all its lines. A callback that closed the link, or opened a new one,
// has emptied the buffer: what was left belongs to a link that is gone.
void GenericNet::handOverLines() {
  const unsigned int epoch = link_epoch;
  BorrowedUnit unit(*this);
  std::uint64_t count = 0;
  int begin = 0;
  while (char* eol = RovikUtil::memxmem(inbuf + begin, inbufpos - begin, eolin, eolin_size)) {
    const int end = static_cast<int>(eol - inbuf);
    const int next = end + eolin_size;
    takeUnit(unit.msg, inbuf + begin, (chopeolin ? end : next) - begin);
    ++count;
    if (link_epoch != epoch) break;
    begin = next;
  }
  if (count > 0) unitsReceived(count, unit.msg.value_s);
  if (begin == 0 || link_epoch != epoch) return;
  const int rest = inbufpos - begin;
  std::memmove(inbuf, inbuf + begin, static_cast<std::size_t>(rest));
  std::memset(inbuf + rest, 0, static_cast<std::size_t>(begin));
  inbufpos = rest;
}

int GenericNet::rcvData(char* buf, int buf_size) {
  BorrowedUnit unit(*this);
  takeUnit(unit.msg, buf, buf_size);
  return 0;
}

void GenericNet::takeUnit(MMData& unit, const char* bytes, int length) {
  if (iodebug) logBytes("rcvData (length = %d): %s\n", bytes, length);
  std::string& text = unit.value_s;
  RovikUtil::escape(text, bytes, static_cast<std::size_t>(length));
  if (unparsedout) sendCatchAll(unit);
  if (lua_state != nullptr) tellScript(text, bytes, length);
  if (reg) applyRules(text);
}

void GenericNet::sendCatchAll(MMData& unit) {
  unit.network_id = static_cast<std::uint32_t>(network_id);
  unit.value_type = VAL_STRING;
  if (Drovane::global.logs(LOG_LEVEL_DEBUG))
    trace("Rovik Message: MM_DATA %s = {%s}\n", unit.getKey().c_str(), unit.value_s.c_str());
  messageSnd(&unit);
}

// The script gets the text, in raw mode the bytes themselves.
void GenericNet::tellScript(const std::string& text, const char* bytes, int length) {
  static constexpr ScriptEvent kRcvIo = {
      "ROVIK_RCVIO", "lua ROVIK_RCVIO did not return expected timer info, using default timer\n"};
  trace("IO data to lua script\n");
  const std::string_view data =
      raw ? std::string_view(bytes, static_cast<std::size_t>(length)) : std::string_view(text);
  raise(kRcvIo, [&](lua_State* L) {
    lua_pushlstring(L, data.data(), data.size());
    return 1;
  });
}

// Every rule is tried: one unit can become several messages.
void GenericNet::applyRules(const std::string& text) {
  inbound.match(text,
                [this](std::size_t index, const std::string& output) { sendMatch(index, output); });
}

void GenericNet::sendMatch(std::size_t index, const std::string& output) {
  if (regexTableIN[index].type == MM_ACTUATOR_REQUEST) {
    sendText<MMActuatorRequest>(index, output, "Rovik Message: MM_ACTUATOR_REQUEST %s = {%s}\n");
  } else {
    sendText<MMData>(index, output, "Rovik Message: MM_DATA %s = {%s}\n");
  }
}

template <typename Kind>
void GenericNet::sendText(std::size_t index, const std::string& text, const char* line) {
  const KeyNumbers& key = inbound_keys[index];
  Kind msg;
  msg.network_id = key.network_id;
  msg.node_id = key.node_id;
  msg.value_id = key.value_id;
  msg.value_type = VAL_STRING;
  msg.value_s = text;
  if (Drovane::global.logs(LOG_LEVEL_DEBUG)) {
    trace("REGIN MATCH\n");
    trace(line, regexTableIN[index].key.c_str(), text.c_str());
  }
  messageSnd(&msg);
}

void GenericNet::logBytes(const char* fmt, const char* bytes, int length) {
  char* rendered = nullptr;
  RovikUtil::bufToString(&rendered, bytes, length);
  const OwnedText text(rendered);
  if (text == nullptr) return;
  trace(fmt, length, text.get());
}
