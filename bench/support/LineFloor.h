// The floor of every road of lines: two plain threads, one heap record a line, a batched queue that
// is handed over once per read.
//
//   sender process ==TCP==> thread ==batched queue==> thread
#pragma once

#include <unistd.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <thread>
#include <utility>

#include "support/BatchQueue.h"
#include "support/LineRun.h"
#include "support/Lines.h"
#include "support/Sockets.h"

namespace bench {

template <std::size_t Size>
struct Line {
  std::uint32_t length;
  std::array<char, Size> text;
};

template <std::size_t Size>
using LineQueue = BatchQueue<std::unique_ptr<Line<Size>>>;

template <std::size_t Size>
void readLines(int socket, LineQueue<Size>& queue) {
  std::array<char, 4096> buffer;
  std::size_t held = 0;
  typename LineQueue<Size>::Batch batch;
  while (true) {
    const ssize_t received = read(socket, buffer.data() + held, buffer.size() - held);
    if (received <= 0) break;
    held += static_cast<std::size_t>(received);
    const char* begin = buffer.data();
    const char* const end = begin + held;
    while (const void* eol = std::memchr(begin, '\n', static_cast<std::size_t>(end - begin))) {
      auto line = std::make_unique_for_overwrite<Line<Size>>();
      line->length = static_cast<std::uint32_t>(static_cast<const char*>(eol) - begin);
      std::memcpy(line->text.data(), begin, line->length);
      begin += line->length + 1;
      batch.push_back(std::move(line));
    }
    held = static_cast<std::size_t>(end - begin);
    std::memmove(buffer.data(), begin, held);
    if (!batch.empty()) queue.put(batch);
  }
  queue.close();
}

template <std::size_t Size>
Run floorRun(LineSource& source, const Job& job, LineCheck& check) {
  LineQueue<Size> queue;
  const drovane::Descriptor socket = connectTo(source.port());
  std::thread receiver([&] {
    typename LineQueue<Size>::Batch batch;
    while (queue.take(batch)) {
      for (auto& line : batch) {
        check.take({line->text.data(), line->length});
        line.reset();
      }
      batch.clear();
    }
  });
  std::thread reader([&] { readLines<Size>(socket.get(), queue); });
  Run run = measure(source, job, check.ending);
  reader.join();
  receiver.join();
  run.fault = check.fault();
  return run;
}

}  // namespace bench
