#include <gtest/gtest.h>
#include <poll.h>

#include <atomic>
#include <thread>

#include "framework/Waker.h"
#include "support/Eventually.h"

namespace {

using drovane::Waker;

bool rings(const Waker& waker, int milliseconds = 0) {
  pollfd watched{waker.descriptor(), POLLIN, 0};
  return poll(&watched, 1, milliseconds) == 1;
}

TEST(WakerTest, RingsForASleeperOnly) {
  Waker waker;
  waker.wake();
  EXPECT_FALSE(rings(waker));
  waker.aboutToSleep();
  EXPECT_FALSE(rings(waker));
  waker.wake();
  EXPECT_TRUE(rings(waker));
}

TEST(WakerTest, IsSilentAgainOnceAwake) {
  Waker waker;
  waker.aboutToSleep();
  waker.wake();
  waker.wake();
  waker.awake(true);
  EXPECT_FALSE(rings(waker));
  waker.aboutToSleep();
  EXPECT_FALSE(rings(waker));
}

TEST(WakerTest, ABellThatRingsAfterTheSleeperIsUpShortensOneNapOnly) {
  Waker waker;
  waker.aboutToSleep();
  waker.wake();
  waker.awake(false);  // up for another reason, the bell unseen
  waker.aboutToSleep();
  EXPECT_TRUE(rings(waker));
  waker.awake(true);
  waker.aboutToSleep();
  EXPECT_FALSE(rings(waker));
}

TEST(WakerTest, NoPieceOfWorkIsSleptThrough) {
  constexpr int kPieces = 50000;
  Waker waker;
  std::atomic<int> published{0};
  std::thread worker([&] {
    for (int i = 0; i < kPieces; ++i) {
      published.fetch_add(1);
      waker.wake();
    }
  });
  int seen = 0;
  bool slept_through = false;
  while (seen < kPieces && !slept_through) {
    waker.aboutToSleep();
    bool rang = false;
    if (published.load() == seen) {
      rang = rings(waker, 10000);
      slept_through = !rang && published.load() != seen;
    }
    waker.awake(rang);
    seen = published.load();
  }
  worker.join();
  EXPECT_FALSE(slept_through);
  EXPECT_EQ(seen, kPieces);
}

}  // namespace
