#include "support/Inbox.h"

#include <stdexcept>

#include "RovikMessage.h"
#include "framework/RecordPool.h"
#include "framework/Router.h"
#include "support/Eventually.h"

namespace {

template <typename Kind>
Arrived arrivedAs(RovikMessage& msg) {
  auto& kind = static_cast<Kind&>(msg);
  return {kind.type, kind.getKey(), kind.value_type, kind.value_s};
}

Arrived arrived(RovikMessage& msg) {
  if (msg.type == MM_DATA) return arrivedAs<MMData>(msg);
  if (msg.type == MM_ACTUATOR_REQUEST) return arrivedAs<MMActuatorRequest>(msg);
  return {msg.type, "", 0, ""};
}

}  // namespace

std::ostream& operator<<(std::ostream& out, const Arrived& message) {
  return out << "type " << message.type << ' ' << message.key << " value type "
             << message.value_type << " {" << message.value << '}';
}

Arrived dataText(const std::string& key, const std::string& value) {
  return {MM_DATA, key, VAL_STRING, value};
}

Arrived requestText(const std::string& key, const std::string& value) {
  return {MM_ACTUATOR_REQUEST, key, VAL_STRING, value};
}

Inbox::Inbox(int id, const std::string& name)
    : mailbox(std::make_shared<drovane::Mailbox>(id, name, std::make_shared<drovane::Waker>())) {
  if (!drovane::Router::global().add(mailbox)) throw std::runtime_error("address is taken");
}

Inbox::~Inbox() {
  drovane::Router::global().remove(*mailbox);
  mailbox->close();
}

std::vector<Arrived> Inbox::take() {
  std::vector<RovikMessage*> batch;
  mailbox->take(batch);
  std::vector<Arrived> all;
  for (RovikMessage* msg : batch) {
    all.push_back(arrived(*msg));
    drovane::RecordPool::release(msg);
  }
  mailbox->left(0);
  return all;
}

std::vector<std::string> Inbox::takeValues() {
  std::vector<std::string> values;
  for (auto& message : take()) values.push_back(std::move(message.value));
  return values;
}

std::vector<Arrived> Inbox::waitFor(std::size_t count) {
  std::vector<Arrived> all;
  eventually([&] {
    for (auto& message : take()) all.push_back(std::move(message));
    return all.size() >= count;
  });
  return all;
}
