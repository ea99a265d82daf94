#include "RecordPool.h"

#include <array>
#include <atomic>
#include <memory>
#include <new>
#include <type_traits>
#include <utility>
#include <vector>

namespace drovane {
namespace {

constexpr std::size_t kKinds = MM_MSG + 1;

// Records go from processor to processor, one cache line after the other. From the beginning of one
// on, a record of MM_DATA takes three; else it would take four, and share two with its neighbours.
constexpr std::size_t kCacheLine = 64;
constexpr std::align_val_t kAlignment{kCacheLine};

constexpr std::size_t kMagazineSize = 64;
constexpr std::size_t kDepotMagazines = 64;  // per kind, that is 4,096 free records
// What a text of a free record may keep: enough for the lines that links cut in practice, and
// little enough that hundreds of threads with full magazines stay small.
constexpr std::size_t kKeptText = 1024;

void dropLargeText(std::string& text) {
  if (text.capacity() > kKeptText) std::string().swap(text);
}

void add(std::atomic<std::int64_t>& counter, std::int64_t amount) {
  // Only the owning thread writes; others may read at any time.
  counter.store(counter.load(std::memory_order_relaxed) + amount, std::memory_order_relaxed);
}

}  // namespace

// A record that is taken was last used by another processor, as a rule.
void RecordPool::prefetch(const RovikMessage* msg) {
  const char* const begin = reinterpret_cast<const char*>(msg);
  for (std::size_t at = 0; at < sizeof(MMData); at += kCacheLine) __builtin_prefetch(begin + at, 1);
}

// Free records of one kind. They are listed here and not chained to each other: a record that is
// given back stays untouched, and those that are taken next can be fetched ahead.
class RecordPool::Magazine {
 public:
  Magazine() = default;
  Magazine(const Magazine&) = delete;
  Magazine& operator=(const Magazine&) = delete;
  ~Magazine() {
    while (!empty()) free(pop());
  }

  bool empty() const { return count == 0; }
  bool full() const { return count == records.size(); }
  void push(RovikMessage* msg) { records[count++] = msg; }
  RovikMessage* pop() {
    RovikMessage* const msg = records[--count];
    if (count >= kAhead) prefetch(records[count - kAhead]);
    return msg;
  }

 private:
  static constexpr std::size_t kAhead = 4;

  std::size_t count = 0;
  std::array<RovikMessage*, kMagazineSize> records;
};

// What all threads share: magazines, and the books of threads that are gone.
class RecordPool::Depot {
 public:
  // Never destroyed: a thread may end, and a record come back, after main has returned.
  static Depot& get() {
    static Depot& depot = *new Depot;
    return depot;
  }

  // Trades a magazine that is empty, or none, against a full one. False when there is none.
  bool fetch(std::size_t kind, std::unique_ptr<Magazine>& magazine) {
    MutexLock lock(RovikMessage::messageLock);
    if (full[kind].empty()) return false;
    if (magazine != nullptr && empty.size() < kDepotMagazines) empty.push_back(std::move(magazine));
    magazine = std::move(full[kind].back());
    full[kind].pop_back();
    return true;
  }

  // Takes a full magazine and leaves one that is empty, or none.
  void store(std::size_t kind, std::unique_ptr<Magazine>& magazine) {
    std::unique_ptr<Magazine> too_many;
    MutexLock lock(RovikMessage::messageLock);
    if (full[kind].size() < kDepotMagazines)
      full[kind].push_back(std::move(magazine));
    else
      too_many = std::move(magazine);
    if (empty.empty()) return;
    magazine = std::move(empty.back());
    empty.pop_back();
  }

  void enter(const Cache* cache) {
    MutexLock lock(RovikMessage::messageLock);
    caches.push_back(cache);
  }
  void leave(const Cache* cache);
  std::int64_t inUse();

 private:
  // Room for all at once: to give a record back must not need memory.
  Depot() {
    for (auto& magazines : full) magazines.reserve(kDepotMagazines);
    empty.reserve(kDepotMagazines);
  }

  std::array<std::vector<std::unique_ptr<Magazine>>, kKinds> full
      DROVANE_GUARDED_BY(RovikMessage::messageLock);
  std::vector<std::unique_ptr<Magazine>> empty DROVANE_GUARDED_BY(RovikMessage::messageLock);
  std::vector<const Cache*> caches DROVANE_GUARDED_BY(RovikMessage::messageLock);
  std::int64_t in_use_elsewhere DROVANE_GUARDED_BY(RovikMessage::messageLock) = 0;
};

// One thread's two magazines per kind. With two, a thread that takes and releases around the
// border of a magazine does not go to the depot each time.
struct RecordPool::Cache {
  struct Shelf {
    std::unique_ptr<Magazine> loaded;  // either may be missing
    std::unique_ptr<Magazine> previous;
  };
  std::array<Shelf, kKinds> shelves;
  std::atomic<std::int64_t> in_use{0};

  Cache() { Depot::get().enter(this); }
  Cache(const Cache&) = delete;
  Cache& operator=(const Cache&) = delete;
  ~Cache() { Depot::get().leave(this); }

  // Null when there is no free record.
  RovikMessage* take(std::size_t kind) {
    auto& [loaded, previous] = shelves[kind];
    if (!has(loaded)) {
      loaded.swap(previous);
      if (!has(loaded) && !Depot::get().fetch(kind, loaded)) return nullptr;
    }
    return loaded->pop();
  }

  // Without memory for a magazine the record is freed.
  void putBack(RovikMessage* msg) {
    auto& [loaded, previous] = shelves[msg->type];
    if (loaded != nullptr && loaded->full()) {
      loaded.swap(previous);
      if (loaded != nullptr && loaded->full()) Depot::get().store(msg->type, loaded);
    }
    if (loaded == nullptr) loaded.reset(new (std::nothrow) Magazine);
    if (loaded == nullptr) return free(msg);
    loaded->push(msg);
  }

  static bool has(const std::unique_ptr<Magazine>& magazine) {
    return magazine != nullptr && !magazine->empty();
  }

  static Cache& ofThisThread() {
    static thread_local Cache cache;
    return cache;
  }
};

void RecordPool::Depot::leave(const Cache* cache) {
  MutexLock lock(RovikMessage::messageLock);
  in_use_elsewhere += cache->in_use.load(std::memory_order_relaxed);
  std::erase(caches, cache);
}

std::int64_t RecordPool::Depot::inUse() {
  MutexLock lock(RovikMessage::messageLock);
  std::int64_t sum = in_use_elsewhere;
  for (const Cache* cache : caches) sum += cache->in_use.load(std::memory_order_relaxed);
  return sum;
}

// The kinds are told apart here; everything else works on headers.
template <typename Visitor>
auto RecordPool::visit(std::uint32_t type, Visitor visitor) {
  switch (type) {
    case MM_DATA:
      return visitor.template operator()<MMData>();
    case MM_DATA_REQUEST:
      return visitor.template operator()<MMDataRequest>();
    case MM_ACTUATOR_REQUEST:
      return visitor.template operator()<MMActuatorRequest>();
    case MM_CMD_REQUEST:
      return visitor.template operator()<MMCmdRequest>();
    case MM_CMD_RESPONSE:
      return visitor.template operator()<MMCmdResponse>();
    case MM_MSG:
      return visitor.template operator()<MMMsg>();
    default:
      return visitor.template operator()<RovikMessage>();
  }
}

RovikMessage* RecordPool::allocate(std::uint32_t type) {
  return visit(type, []<typename Kind>() -> RovikMessage* {
    if constexpr (std::is_same_v<Kind, RovikMessage>) {
      return new (kAlignment, std::nothrow) RovikMessage(MM_EMPTY);
    } else {
      return new (kAlignment, std::nothrow) Kind;
    }
  });
}

void RecordPool::free(RovikMessage* msg) {
  visit(msg->type, [msg]<typename Kind>() { static_cast<Kind*>(msg)->~Kind(); });
  ::operator delete(msg, kAlignment);
}

void RecordPool::trim(RovikMessage& msg) {
  dropLargeText(msg.src_s);
  dropLargeText(msg.dst_s);
  visit(msg.type, [&msg]<typename Kind>() {
    Kind& record = static_cast<Kind&>(msg);
    if constexpr (requires { record.value_s; }) dropLargeText(record.value_s);
    if constexpr (requires { record.cmd; }) dropLargeText(record.cmd);
    if constexpr (requires { record.rsp; }) dropLargeText(record.rsp);
    if constexpr (requires { record.msg; }) dropLargeText(record.msg);
  });
}

#ifdef DROVANE_NO_RECYCLING

// Every record a heap block of its own, so that a memory checker sees each misuse.
RovikMessage* RecordPool::take(std::uint32_t type) {
  RovikMessage* msg = allocate(type);
  if (msg != nullptr) add(Cache::ofThisThread().in_use, 1);
  return msg;
}

void RecordPool::putBack(RovikMessage* msg) {
  add(Cache::ofThisThread().in_use, -1);
  free(msg);
}

#else

RovikMessage* RecordPool::take(std::uint32_t type) {
  Cache& cache = Cache::ofThisThread();
  RovikMessage* msg = cache.take(type);
  if (msg == nullptr) msg = allocate(type);
  if (msg == nullptr) return nullptr;
  msg->book.holders = 1;
  add(cache.in_use, 1);
  return msg;
}

void RecordPool::putBack(RovikMessage* msg) {
  trim(*msg);
  Cache& cache = Cache::ofThisThread();
  cache.putBack(msg);
  add(cache.in_use, -1);
}

#endif

void RecordPool::prepareThread() { Cache::ofThisThread(); }

RovikMessage* RecordPool::fresh(std::uint32_t type) {
  if (type >= kKinds) return nullptr;
  RovikMessage* msg = take(type);
  if (msg == nullptr) return nullptr;
  visit(type, [msg]<typename Kind>() {
    if constexpr (std::is_same_v<Kind, RovikMessage>) {
      static const RovikMessage blank(MM_EMPTY);
      *msg = blank;
    } else {
      static const Kind blank;
      *static_cast<Kind*>(msg) = blank;
    }
  });
  return msg;
}

RovikMessage* RecordPool::copy(const RovikMessage& original) {
  RovikMessage* msg = take(original.type);
  if (msg == nullptr) return nullptr;
  try {
    visit(original.type, [msg, &original]<typename Kind>() {
      *static_cast<Kind*>(msg) = static_cast<const Kind&>(original);
    });
  } catch (const std::bad_alloc&) {
    release(msg);
    return nullptr;
  }
  return msg;
}

void RecordPool::share(RovikMessage* msg, std::uint32_t more) {
  std::atomic_ref(msg->book.holders).fetch_add(more, std::memory_order_relaxed);
}

void RecordPool::release(RovikMessage* msg) {
  // The only holder needs no atomic step: nobody else can add one.
  std::atomic_ref holders(msg->book.holders);
  if (holders.load(std::memory_order_acquire) != 1 &&
      holders.fetch_sub(1, std::memory_order_acq_rel) != 1)
    return;
  putBack(msg);
}

std::int64_t RecordPool::inUse() { return Depot::get().inUse(); }

}  // namespace drovane
