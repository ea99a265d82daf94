// Scope guards for what the contract hands out: message records, and buffers of RovikUtil.
#pragma once

#include <cstdlib>
#include <memory>

#include "RovikMessage.h"

struct DestroyMessage {
  void operator()(RovikMessage* msg) const { RovikMessage::destroy(msg); }
};

// A record that is destroyed at the end of the scope; null when none could be made.
template <typename Kind = RovikMessage>
using OwnedMessage = std::unique_ptr<Kind, DestroyMessage>;

// A new record; `type` must be the one of Kind.
template <typename Kind>
OwnedMessage<Kind> createOwned(MessageTypes type) {
  return OwnedMessage<Kind>(static_cast<Kind*>(RovikMessage::create(type)));
}

struct FreeText {
  void operator()(char* text) const { std::free(text); }
};

// A buffer that came through a `char**` of RovikUtil.
using OwnedText = std::unique_ptr<char, FreeText>;
