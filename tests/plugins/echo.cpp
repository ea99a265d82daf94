// A well-behaved rovik. Its commands let a test see and cause all that a rovik can do.
#include <unistd.h>

#include <string>

#include "Drovane.h"
#include "Rovik.h"

namespace {

class Echo : public Rovik {
 public:
  ~Echo() override {
    if (fd >= 0) ::close(fd);
    Drovane::global.log(LOG_LEVEL_INFO, id, name, "echo destroyed\n");
  }

  std::string interpretCmd(char** arg) override {
    if (arg[0] == nullptr) return "";
    const std::string word = arg[0];
    if (word == "say") return joined(arg + 1);
    if (word == "fail") return "ERROR (FAILED)";
    if (word == "warn") return warn(joined(arg + 1));
    if (word == "log") return logged(joined(arg + 1));
    if (word == "longlog") return logged(std::string(std::stoul(joined(arg + 1)), 'x'));
    if (word == "last") return last;
    if (word == "tell") return tell(joined(arg + 1));
    if (word == "open" && fd < 0) return open();
    if (word == "close" && fd >= 0) return shut();
    return "";
  }

  int getDescription(cJSON* description) override {
    cJSON_AddNumberToObject(description, "network_id", id);
    return 0;
  }

  // Answers a data request with 21.5 and keeps every value.
  int selectMM(RovikMessage* msg) override {
    if (msg->type == MM_DATA_REQUEST) answer(static_cast<MMDataRequest&>(*msg));
    if (msg->type == MM_DATA) keep(static_cast<MMData&>(*msg), "data");
    if (msg->type == MM_ACTUATOR_REQUEST) keep(static_cast<MMActuatorRequest&>(*msg), "actuator");
    return 0;
  }

 private:
  static std::string joined(char** words) {
    std::string text;
    for (; *words != nullptr; ++words) text += (text.empty() ? "" : "|") + std::string(*words);
    return text;
  }

  std::string warn(const std::string& text) {
    setWarning(text);
    return "OK";
  }

  std::string logged(const std::string& text) {
    Drovane::global.log(LOG_LEVEL_INFO, id, name, "%s\n", text.c_str());
    return "OK";
  }

  std::string tell(const std::string& text) {
    auto* data = static_cast<MMData*>(RovikMessage::create(MM_DATA));
    data->setKey("5_1_0");
    data->value_type = VAL_STRING;
    data->value_s = text;
    messageSnd(data);
    RovikMessage::destroy(data);
    return "OK";
  }

  std::string open() {
    int ends[2];
    if (::pipe(ends) != 0) return "ERROR";
    fd = ends[0];
    other_end = ends[1];
    return "OK";
  }

  std::string shut() {
    ::close(fd);
    ::close(other_end);
    fd = -1;
    Drovane::global.log(LOG_LEVEL_INFO, id, name, "echo closed its link\n");
    return "OK";
  }

  void answer(MMDataRequest& request) {
    auto* data = static_cast<MMData*>(RovikMessage::create(MM_DATA));
    data->setKey(request.getKey().c_str());
    data->seqnr = request.seqnr;
    data->dst = request.src;
    data->value_type = VAL_FLOAT;
    data->value_f = 21.5F;
    messageSnd(data);
    RovikMessage::destroy(data);
  }

  template <typename Record>
  void keep(Record& msg, const char* kind) {
    last = std::string(kind) + ' ' + msg.getKey() + ' ' + msg.getValueType() + ' ' +
           msg.getValue() + " from " + std::to_string(msg.src) + ' ' + msg.src_s;
  }

  std::string last = "nothing";
  int other_end = -1;
};

}  // namespace

extern "C" Rovik* maker() { return new Echo; }
