#include "GenericNet.h"

#include <new>
#include <utility>

#include "Drovane.h"

GenericNet::RegexRule::RegexRule(std::string its_key, std::string its_regex, std::string its_output,
                                 const std::string& type_text)
    : key(std::move(its_key)),
      regex(std::move(its_regex)),
      output(std::move(its_output)),
      type(type_text == "MM_ACTUATOR_REQUEST" ? MM_ACTUATOR_REQUEST : MM_DATA) {}

GenericNet::GenericNet()
    : network_id(id),
      commode(COM_TCP),
      ttymode(TTY_8N1),
      fclmode(FCL_NO),
      persistent(false),
      reconnect(false),
      echo(false),
      chopeolin(false),
      addeolout(false),
      reg(false),
      unparsedout(true),
      unparsedin(true),
      raw(false),
      eolclose(false),
      eolin{'\n'},
      eolin_size(1),
      eolout{'\n'},
      eolout_size(1),
      port(-1),
      host{},
      tty{},
      baudrate(B9600),
      iodebug(false),
      accept_self_cert(false),
      wol_adr{},
      wol_mac{},
      inbuf{},
      inbufpos(0),
      l_addr{},
      p_addr{},
      certname(nullptr) {
  type = MT_NETWORK_GENERIC;
  period = TimeValue(30, 0);
  fd = -1;
  Drovane::global.log(LOG_LEVEL_INFO, id, name, "GenericNet rovik started\n");
}

// An open link stays open: closing it is the business of the "close" command, which the framework
// gives before it deletes a rovik.
GenericNet::~GenericNet() {
  Drovane::global.log(LOG_LEVEL_INFO, id, name, "GenericNet rovik stopped\n");
}

int GenericNet::getDescription(cJSON* desc_json) {
  cJSON_AddNumberToObject(desc_json, "network_id", network_id);
  return 0;
}

int GenericNet::setRegexTableIN(char* key, char* regex, char* output, char* type_text) {
  MMData keyed;
  keyed.setKey(key);
  regexTableIN.emplace_back(key, regex, output, type_text);
  // Without memory for the rest the rule is none: the three tables are looked up by the same
  // number.
  try {
    inbound_keys.resize(regexTableIN.size());
    inbound_keys.back() = {keyed.network_id, keyed.node_id, keyed.value_id};
    inbound.add(regex, output);
  } catch (const std::bad_alloc&) {
    regexTableIN.pop_back();
    throw;
  }
  return 0;
}

int GenericNet::setRegexTableOUT(char* key, char* regex, char* output) {
  regexTableOUT.emplace_back(key, regex, output, "MM_ACTUATOR_REQUEST");
  outbound[key].add(regex, output);
  return 0;
}
