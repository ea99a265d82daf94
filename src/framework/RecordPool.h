// The stock of free message records.
//
// A record is made by the thread that sends and released by the thread that receives, so each
// thread keeps small magazines of free records and trades full ones against empty ones at a
// common depot (under RovikMessage::messageLock): in the steady state nobody allocates, and the
// lock is taken once for many records. Records keep the memory of their texts.
#pragma once

#include <cstddef>
#include <cstdint>

#include "RovikMessage.h"

namespace drovane {

class RecordPool {
 public:
  // A record of the kind as a new one has to be, with one holder; null for an unknown kind or when
  // memory is short.
  static RovikMessage* fresh(std::uint32_t type);

  // A record of the same kind with the same content and one holder; null when memory is short.
  static RovikMessage* copy(const RovikMessage& original);

  // Adds holders: each will call release once.
  static void share(RovikMessage* msg, std::uint32_t more);

  // Gives one hold up; the last one returns the record to the stock.
  static void release(RovikMessage* msg);

  // Fetches a record that is about to be used into this processor's cache.
  static void prefetch(const RovikMessage* msg);

  // Makes what this thread keeps records in.
  static void prepareThread();

  // How many records are in use now. Exact while nobody takes or releases.
  static std::int64_t inUse();

 private:
  class Magazine;
  class Depot;
  struct Cache;

  template <typename Visitor>
  static auto visit(std::uint32_t type, Visitor visitor);
  static RovikMessage* allocate(std::uint32_t type);
  static RovikMessage* take(std::uint32_t type);
  static void putBack(RovikMessage* msg);
  static void free(RovikMessage* msg);
  static void trim(RovikMessage& msg);
};

}  // namespace drovane
