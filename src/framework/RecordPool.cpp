#include "RecordPool.h"

#include <array>
#include <atomic>
#include <new>
#include <type_traits>
#include <utility>
#include <vector>

namespace drovane {
namespace {

constexpr std::size_t kKinds = MM_MSG + 1;
constexpr std::uint32_t kMagazineSize = 64;
constexpr std::size_t kDepotMagazines = 64;  // per kind, that is 4,096 free records
// What a text of a free record may keep: enough for every line that the links cut in practice.
constexpr std::size_t kKeptText = 4096;

void dropLargeText(std::string& text) {
  if (text.capacity() > kKeptText) std::string().swap(text);
}

void add(std::atomic<std::int64_t>& counter, std::int64_t amount) {
  // Only the owning thread writes; others may read at any time.
  counter.store(counter.load(std::memory_order_relaxed) + amount, std::memory_order_relaxed);
}

}  // namespace

// A pile of free records of one kind.
struct RecordPool::Magazine {
  RovikMessage* top = nullptr;
  std::uint32_t count = 0;

  void push(RovikMessage* msg) {
    msg->book.next_free = top;
    top = msg;
    ++count;
  }
  RovikMessage* pop() {
    RovikMessage* msg = top;
    top = msg->book.next_free;
    --count;
    return msg;
  }
  void freeAll() {
    while (count > 0) free(pop());
  }
};

// What all threads share: full magazines, and the books of threads that are gone.
struct RecordPool::Depot {
  std::array<std::vector<Magazine>, kKinds> full DROVANE_GUARDED_BY(RovikMessage::messageLock);
  std::vector<const Cache*> caches DROVANE_GUARDED_BY(RovikMessage::messageLock);
  std::int64_t in_use_elsewhere DROVANE_GUARDED_BY(RovikMessage::messageLock) = 0;

  // Room for all at once: to give a record back must not need memory.
  Depot() {
    for (auto& magazines : full) magazines.reserve(kDepotMagazines);
  }

  // Never destroyed: a thread may end, and a record come back, after main has returned.
  static Depot& get() {
    static Depot& depot = *new Depot;
    return depot;
  }

  bool fetch(std::size_t kind, Magazine& into) {
    MutexLock lock(RovikMessage::messageLock);
    if (full[kind].empty()) return false;
    into = full[kind].back();
    full[kind].pop_back();
    return true;
  }

  void store(std::size_t kind, Magazine magazine) {
    {
      MutexLock lock(RovikMessage::messageLock);
      if (full[kind].size() < kDepotMagazines) {
        full[kind].push_back(magazine);
        return;
      }
    }
    magazine.freeAll();
  }
};

// One thread's two magazines per kind. With two, a thread that takes and releases around the
// border of a magazine does not go to the depot each time.
struct RecordPool::Cache {
  std::array<Magazine, kKinds> loaded;
  std::array<Magazine, kKinds> previous;
  std::atomic<std::int64_t> in_use{0};

  Cache() {
    Depot& depot = Depot::get();
    MutexLock lock(RovikMessage::messageLock);
    depot.caches.push_back(this);
  }
  Cache(const Cache&) = delete;
  Cache& operator=(const Cache&) = delete;
  ~Cache() {
    for (std::size_t kind = 0; kind < kKinds; ++kind) {
      loaded[kind].freeAll();
      previous[kind].freeAll();
    }
    Depot& depot = Depot::get();
    MutexLock lock(RovikMessage::messageLock);
    depot.in_use_elsewhere += in_use.load(std::memory_order_relaxed);
    std::erase(depot.caches, this);
  }

  RovikMessage* take(std::size_t kind) {
    if (loaded[kind].count == 0) {
      if (previous[kind].count > 0) {
        std::swap(loaded[kind], previous[kind]);
      } else if (!Depot::get().fetch(kind, loaded[kind])) {
        return nullptr;
      }
    }
    return loaded[kind].pop();
  }

  void putBack(RovikMessage* msg) {
    const std::size_t kind = msg->type;
    if (loaded[kind].count == kMagazineSize) {
      if (previous[kind].count > 0) Depot::get().store(kind, previous[kind]);
      previous[kind] = std::exchange(loaded[kind], Magazine{});
    }
    loaded[kind].push(msg);
  }

  static Cache& ofThisThread() {
    static thread_local Cache cache;
    return cache;
  }
};

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
      return new (std::nothrow) RovikMessage(MM_EMPTY);
    } else {
      return new (std::nothrow) Kind;
    }
  });
}

void RecordPool::free(RovikMessage* msg) {
  visit(msg->type, [msg]<typename Kind>() { delete static_cast<Kind*>(msg); });
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

std::int64_t RecordPool::inUse() {
  Depot& depot = Depot::get();
  MutexLock lock(RovikMessage::messageLock);
  std::int64_t sum = depot.in_use_elsewhere;
  for (const Cache* cache : depot.caches) sum += cache->in_use.load(std::memory_order_relaxed);
  return sum;
}

}  // namespace drovane
