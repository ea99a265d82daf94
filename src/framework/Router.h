// Who has which address, and the way of a message from its sender into the mailboxes.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string_view>
#include <vector>

#include "Mailbox.h"
#include "Mutex.h"
#include "RovikMessage.h"

namespace drovane {

// Roviks have ids up to this one; what lies above belongs to the framework.
inline constexpr int kHighestRovikId = 16000;
// The command line's address.
inline constexpr int kCommandLineId = 16382;
inline constexpr const char* kCommandLineName = "cli";

// All addresses at one moment. Never changed once made: a sender keeps the one it has as long as
// it is the current one, and looks addresses up without a lock.
class AddressTable {
 public:
  explicit AddressTable(std::vector<std::shared_ptr<Mailbox>> entries);

  Mailbox* byId(std::uint32_t id) const { return id < by_id.size() ? by_id[id] : nullptr; }
  Mailbox* byName(std::string_view name) const;
  // Roviks only: what a broadcast reaches.
  const std::vector<std::shared_ptr<Mailbox>>& roviks() const { return reachable; }
  // How many of them are not `mailbox`.
  std::uint32_t others(const Mailbox& mailbox) const {
    const bool among =
        mailbox.id <= kHighestRovikId && byId(static_cast<std::uint32_t>(mailbox.id)) == &mailbox;
    return static_cast<std::uint32_t>(reachable.size()) - (among ? 1 : 0);
  }
  const std::vector<std::shared_ptr<Mailbox>>& all() const { return mailboxes; }

 private:
  std::vector<std::shared_ptr<Mailbox>> mailboxes;
  std::vector<std::shared_ptr<Mailbox>> reachable;
  std::vector<Mailbox*> by_id;    // indexed by id
  std::vector<Mailbox*> by_name;  // sorted by name
};

class Router {
 public:
  static Router& global();

  // False, and nothing changes, when the id or the name is taken.
  bool add(const std::shared_ptr<Mailbox>& mailbox);
  // Does not throw, so that it can be called where something ends.
  void remove(const Mailbox& mailbox) noexcept;

  std::shared_ptr<const AddressTable> table();
  // Changes with every change of the table.
  std::uint64_t version() const { return table_version.load(std::memory_order_acquire); }

  // Every routed message is also put into `mailbox`, null for nowhere. What it cannot take is
  // counted as its drop.
  void setTap(std::shared_ptr<Mailbox> mailbox);
  bool tapped() const { return tap_set.load(std::memory_order_relaxed); }
  void copyToTap(RovikMessage* msg);

  // The first of `count` sequence numbers in a row that nobody else gets before the 32 bits are
  // through. 0 is not a number to use: a sender passes over it.
  std::uint32_t reserveSeqnrs(std::uint32_t count) {
    return seqnr.fetch_add(count, std::memory_order_relaxed);
  }
  // One number, never 0.
  std::uint32_t nextSeqnr();

  void countUndeliverable() { undeliverable_count.fetch_add(1, std::memory_order_relaxed); }
  std::uint64_t undeliverable() const {
    return undeliverable_count.load(std::memory_order_relaxed);
  }

 private:
  void publish(std::vector<std::shared_ptr<Mailbox>> mailboxes) DROVANE_REQUIRES(lock);

  Mutex lock;
  std::shared_ptr<const AddressTable> current DROVANE_GUARDED_BY(lock) =
      std::make_shared<AddressTable>(std::vector<std::shared_ptr<Mailbox>>{});
  std::shared_ptr<Mailbox> tap DROVANE_GUARDED_BY(lock);
  std::atomic<std::uint64_t> table_version{1};
  std::atomic<bool> tap_set{false};
  std::atomic<std::uint32_t> seqnr{1};
  std::atomic<std::uint64_t> undeliverable_count{0};
};

}  // namespace drovane
