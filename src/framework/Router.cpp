#include "Router.h"

#include <algorithm>
#include <new>
#include <utility>

#include "RecordPool.h"

namespace drovane {

AddressTable::AddressTable(std::vector<std::shared_ptr<Mailbox>> entries)
    : mailboxes(std::move(entries)) {
  for (const auto& mailbox : mailboxes) {
    const auto id = static_cast<std::size_t>(mailbox->id);
    if (id >= by_id.size()) by_id.resize(id + 1, nullptr);
    by_id[id] = mailbox.get();
    by_name.push_back(mailbox.get());
    if (mailbox->id <= kHighestRovikId) reachable.push_back(mailbox);
  }
  std::sort(by_name.begin(), by_name.end(),
            [](const Mailbox* a, const Mailbox* b) { return a->name < b->name; });
}

Mailbox* AddressTable::byName(std::string_view name) const {
  const auto found = std::lower_bound(
      by_name.begin(), by_name.end(), name,
      [](const Mailbox* mailbox, std::string_view wanted) { return mailbox->name < wanted; });
  return found != by_name.end() && (*found)->name == name ? *found : nullptr;
}

Router& Router::global() {
  static Router router;
  return router;
}

// A closed one is there because remove had no memory.
bool Router::add(const std::shared_ptr<Mailbox>& mailbox) {
  MutexLock guard(lock);
  const Mailbox* const holders[] = {current->byId(static_cast<std::uint32_t>(mailbox->id)),
                                    current->byName(mailbox->name)};
  auto mailboxes = current->all();
  for (const Mailbox* holder : holders) {
    if (holder == nullptr) continue;
    if (!holder->isClosed()) return false;
    std::erase_if(mailboxes, [&](const auto& entry) { return entry.get() == holder; });
  }
  mailboxes.push_back(mailbox);
  publish(std::move(mailboxes));
  return true;
}

void Router::remove(const Mailbox& mailbox) noexcept {
  MutexLock guard(lock);
  try {
    auto mailboxes = current->all();
    std::erase_if(mailboxes, [&](const auto& entry) { return entry.get() == &mailbox; });
    publish(std::move(mailboxes));
  } catch (const std::bad_alloc&) {
    // It stays in the table, closed.
  }
}

void Router::publish(std::vector<std::shared_ptr<Mailbox>> mailboxes) {
  current = std::make_shared<AddressTable>(std::move(mailboxes));
  table_version.fetch_add(1, std::memory_order_release);
}

std::shared_ptr<const AddressTable> Router::table() {
  MutexLock guard(lock);
  return current;
}

void Router::setTap(std::shared_ptr<Mailbox> mailbox) {
  MutexLock guard(lock);
  tap = std::move(mailbox);
  tap_set.store(tap != nullptr, std::memory_order_relaxed);
}

void Router::copyToTap(RovikMessage* msg) {
  MutexLock guard(lock);
  if (tap == nullptr) return;
  RecordPool::share(msg, 1);
  tap->put({&msg, 1});
}

std::uint32_t Router::nextSeqnr() {
  const std::uint32_t number = reserveSeqnrs(1);
  return number != 0 ? number : reserveSeqnrs(1);
}

}  // namespace drovane
