// Owners of message records.
#pragma once

#include <memory>
#include <string>
#include <utility>

#include "RovikMessage.h"

struct DestroyMessage {
  void operator()(RovikMessage* msg) const { RovikMessage::destroy(msg); }
};

template <typename Kind>
using Owned = std::unique_ptr<Kind, DestroyMessage>;

// A new record of a kind.
template <typename Kind>
Owned<Kind> newMessage(MessageTypes type) {
  return Owned<Kind>(static_cast<Kind*>(RovikMessage::create(type)));
}

inline Owned<MMData> newText(const std::string& value) {
  auto data = newMessage<MMData>(MM_DATA);
  data->value_type = VAL_STRING;
  data->value_s = value;
  return data;
}

inline Owned<MMMsg> newNote(const std::string& text) {
  auto note = newMessage<MMMsg>(MM_MSG);
  note->msg = text;
  return note;
}

inline Owned<MMCmdRequest> newCommand(const std::string& line) {
  auto request = newMessage<MMCmdRequest>(MM_CMD_REQUEST);
  request->cmd = line;
  return request;
}

// Addresses a record and hands it on.
template <typename Kind>
Owned<Kind> to(std::uint32_t id, Owned<Kind> msg) {
  msg->dst = id;
  return msg;
}

template <typename Kind>
Owned<Kind> to(const std::string& name, Owned<Kind> msg) {
  msg->dst_s = name;
  return msg;
}

// The text that a record carries, whatever its kind; a value that is no text in its text form.
std::string textOf(RovikMessage& msg);
