// How plain threads hand things over: one lock and one bell a batch. The floors' queue.
#pragma once

#include <condition_variable>
#include <iterator>
#include <mutex>
#include <utility>
#include <vector>

namespace bench {

template <typename Item>
class BatchQueue {
 public:
  using Batch = std::vector<Item>;

  // Leaves `items` empty.
  void put(Batch& items) {
    {
      const std::lock_guard guard(lock);
      if (waiting.empty()) {
        waiting.swap(items);
      } else {
        std::move(items.begin(), items.end(), std::back_inserter(waiting));
      }
    }
    more.notify_one();
    items.clear();
  }

  void close() {
    const std::lock_guard guard(lock);
    closed = true;
    more.notify_one();
  }

  // Everything that waits, into `items`, which is empty. False when nothing waits and nothing more
  // will come.
  bool take(Batch& items) {
    std::unique_lock guard(lock);
    more.wait(guard, [this] { return closed || !waiting.empty(); });
    items.swap(waiting);
    return !items.empty();
  }

 private:
  std::mutex lock;
  std::condition_variable more;
  Batch waiting;
  bool closed = false;
};

}  // namespace bench
