// A rovik that answers everything and remembers nothing: for each request there is a reply, and one
// input's requests do not change the next one's replies.
#include <string>

#include "Owned.h"
#include "Rovik.h"

namespace {

class Answering : public Rovik {
 public:
  // Repeats the words, but for those that stand for what else can happen.
  std::string interpretCmd(char** arg) override {
    std::string reply;
    for (; *arg != nullptr; ++arg) reply += (reply.empty() ? "" : "|") + std::string(*arg);
    if (reply == "unhandled") return "";
    if (reply.starts_with("warn")) setWarning(reply);
    if (reply.starts_with("tell")) tell(reply);
    return reply;
  }

  // A data request is answered with a value of the type that it asks for.
  int selectMM(RovikMessage* msg) override {
    if (msg->type != MM_DATA_REQUEST) return 0;
    auto& request = static_cast<MMDataRequest&>(*msg);
    const auto data = createOwned<MMData>(MM_DATA);
    data->setKey(request.getKey().c_str());
    data->seqnr = request.seqnr;
    data->dst = request.src;
    data->value_type = request.value_type;
    data->value_i = 7;
    data->value_f = 21.5F;
    data->value_s = std::string("a\0\xFF", 3);
    messageSnd(data.get());
    return 0;
  }

 private:
  void tell(const std::string& text) {
    const auto msg = createOwned<MMMsg>(MM_MSG);
    msg->msg = text;
    messageSnd(msg.get());
  }
};

}  // namespace

extern "C" Rovik* maker() { return new Answering; }
