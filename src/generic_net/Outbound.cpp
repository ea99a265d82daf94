// Where a line goes out: selectMM turns requests into text for the peer, sndData writes it; and the
// work of the timer.
#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <lua.hpp>
#include <optional>
#include <string>

#include "Drovane.h"
#include "GenericNet.h"
#include "RovikUtil.h"

namespace {

constexpr int kKeySize = 512;

}  // namespace

// Every message is shown to the script; requests for this network go on to the peer.
int GenericNet::selectMM(RovikMessage* msg) {
  static constexpr ScriptEvent kRcv = {
      "ROVIK_RCV", "lua ROVIK_RCV did not return expected timer info, using default timer\n"};
  if (lua_state != nullptr) {
    raise(kRcv, [&](lua_State* L) { return pushRovikMessage(L, msg) < 0 ? -1 : 1; });
  }
  if (msg->type != MM_ACTUATOR_REQUEST) return 0;
  auto& request = static_cast<MMActuatorRequest&>(*msg);
  const bool ours = request.network_id == static_cast<std::uint32_t>(network_id);
  if (ours && request.value_type == VAL_STRING) sendRequest(request);
  return 0;
}

// The default address takes text as it is; every other key goes through the outbound rules.
void GenericNet::sendRequest(MMActuatorRequest& request) {
  std::array<char, kBufferSize> output{};
  std::array<char, kKeySize> key{};
  request.getKey(key.data(), kKeySize);
  const bool default_address = request.node_id == 0 && request.value_id == 0;
  if (default_address ? !unparsedin : !reg) return;
  Drovane::global.log(LOG_LEVEL_INFO, id, name, "Actuator Request %s = %s\n", key.data(),
                      request.value_s.c_str());
  int length = 0;
  if (default_address) {
    length = RovikUtil::unescape(output.data(), kBufferSize, request.value_s.c_str());
  } else {
    length = outputOfRule(key.data(), request.value_s.c_str(), output.data());
  }
  if (length > 0 && length < kBufferSize) sndData(output.data(), length, kBufferSize);
}

// The first rule with this key whose expression matches gives the text. Its length, 0 without one.
int GenericNet::outputOfRule(const char* key, const char* value, char* output) {
  const auto rules = outbound.find(key);
  if (rules == outbound.end()) return 0;
  std::optional<std::string> text;
  rules->second.match(value, [&](std::size_t, const std::string& filled) {
    if (!text) text = filled;
  });
  if (!text) return 0;
  trace("REGOUT MATCH\n");
  return RovikUtil::unescape(output, kBufferSize, text->c_str());
}

// Writes once and does not try again. The end of line goes in place behind the data.
int GenericNet::sndData(char* data, int length, int capacity) {
  if (openGeneric() < 0) {
    trace("request message ignored as socket not connected\n");
    return 0;
  }
  if (addeolout && !raw) {
    if (length + eolout_size >= capacity) return 0;
    std::memcpy(data + length, eolout, static_cast<std::size_t>(eolout_size));
    length += eolout_size;
  }
  if (iodebug) logBytes("sndData (length = %d): %s\n", data, length);
  if (writeLink(data, static_cast<std::size_t>(length)) < 0) return -1;
  if (!persistent) closeGeneric();
  if (echo) rcvData(data, length);
  return 0;
}

// A failure is reported and closes the link.
int GenericNet::writeLink(const char* data, std::size_t length) {
  const Transport* const how = transport();
  if (how == nullptr || writeOnce(*how, data, length) >= 0) return 0;
  report(how->write_failure, errno, std::strerror(errno));
  closeGeneric();
  return -1;
}

int GenericNet::lua_sndIO_dispatch(lua_State* L) {
  auto* const net = static_cast<GenericNet*>(objectOf(L));
  return net != nullptr ? net->sndIO(L) : 0;
}

// Argument: the data; escaped text, or the bytes themselves in raw mode. The buffers live on the
// heap: with echo a script that answers every line comes back here until the interpreter ends the
// recursion.
int GenericNet::sndIO(lua_State* L) {
  std::size_t size = 0;
  const char* const data = lua_tolstring(L, 1, &size);
  if (data == nullptr) {
    Drovane::global.log(LOG_LEVEL_INFO, id, name, "could not decode data from lua script\n");
    return 0;
  }
  trace("IO data from lua script\n");
  std::string output(kBufferSize, '\0');
  int length = 0;
  if (raw) {
    length = static_cast<int>(std::min(size, output.size()));
    std::memcpy(output.data(), data, static_cast<std::size_t>(length));
  } else {
    const std::string text(data, strnlen(data, kBufferSize - 1));
    length = RovikUtil::unescape(output.data(), kBufferSize, text.c_str());
  }
  sndData(output.data(), length, kBufferSize);
  return 0;
}

int GenericNet::localPrepLua() {
  if (lua_state == nullptr) return -1;
  lua_pushinteger(lua_state, network_id);
  lua_setglobal(lua_state, "network_id");
  lua_pushcclosure(lua_state, lua_sndIO_dispatch, 0);
  lua_setglobal(lua_state, "sndIO");
  return 0;
}

int GenericNet::selectTI() {
  static constexpr ScriptEvent kPeriodic = {
      "ROVIK_PERIODIC",
      "lua ROVIK_PERIODIC did not return expected timer info, using default timer\n"};
  if (reconnect) openGeneric();
  if (lua_state != nullptr) raise(kPeriodic, [](lua_State*) { return 0; });
  return 0;
}
