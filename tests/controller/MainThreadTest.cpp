// The courier between workers and the main thread: waiting calls, ordered
// sends, the bound on a flood, and a shutdown that strands no worker.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "core/MainThread.h"

using namespace ambrel;
using namespace std::chrono_literals;

TEST(Courier, ACallFromAWorkerRunsOnTheMainThreadAndReturnsAfterIt) {
  EventLoop loop;
  Courier courier(loop);
  const auto mainId = std::this_thread::get_id();
  std::thread::id ranOn;
  std::atomic<bool> returned{false};
  bool ranBeforeReturn = false;
  std::thread worker([&] {
    const bool ran = courier.call([&] { ranOn = std::this_thread::get_id(); });
    ranBeforeReturn = ran && ranOn == mainId;
    returned = true;
  });
  // Nothing runs until the main thread runs its loop.
  std::this_thread::sleep_for(20ms);
  EXPECT_FALSE(returned.load());
  ASSERT_TRUE(loop.runUntil([&] { return returned.load(); }, 5s));
  worker.join();
  EXPECT_TRUE(ranBeforeReturn);
  // On the main thread itself a call runs at once.
  int n = 0;
  EXPECT_TRUE(courier.call([&] { ++n; }));
  EXPECT_EQ(n, 1);
}

TEST(Courier, SendsArriveInOrderAndAFloodWaitsForRoom) {
  EventLoop loop;
  Courier courier(loop);
  constexpr int kSends = 3000;
  std::vector<int> seen;
  std::atomic<bool> done{false};
  std::thread worker([&] {
    for (int i = 0; i < kSends; ++i) courier.send([&seen, i] { seen.push_back(i); });
    done = true;
  });
  // While the main thread is busy elsewhere, the worker is held at the bound.
  std::this_thread::sleep_for(100ms);
  EXPECT_FALSE(done.load());
  EXPECT_EQ(loop.pending(), Courier::kMaxQueuedSends);
  ASSERT_TRUE(loop.runUntil([&] { return done.load() && loop.pending() == 0; }, 10s));
  worker.join();
  ASSERT_EQ(seen.size(), size_t{kSends});
  for (int i = 0; i < kSends; ++i) ASSERT_EQ(seen[i], i);
}

TEST(Courier, ClosingLetsWaitingWorkersGoAndRunsNothingQueued) {
  EventLoop loop;
  Courier courier(loop);
  std::atomic<int> ran{0};
  std::atomic<int> callResults{0};
  std::vector<std::thread> workers;
  for (int i = 0; i < 4; ++i)
    workers.emplace_back([&] {
      if (courier.call([&] { ++ran; })) ++callResults;
    });
  while (loop.pending() < 4) std::this_thread::sleep_for(1ms);
  courier.send([&] { ++ran; });
  courier.close();
  for (auto& w : workers) w.join();  // would hang if close left them waiting
  EXPECT_EQ(loop.runPending(), 5u);  // the queued closures still run, and do nothing
  EXPECT_EQ(ran.load(), 0);
  EXPECT_EQ(callResults.load(), 0);
  EXPECT_FALSE(courier.call([&] { ++ran; }));
  EXPECT_EQ(ran.load(), 0);
}

TEST(Courier, AFunctionThatClosesTheCourierStillFinishesBeforeItsCallerGoesOn) {
  EventLoop loop;
  Courier courier(loop);
  std::atomic<bool> finished{false};
  bool sawFinished = false;
  std::thread worker([&] {
    courier.call([&] {
      courier.close();
      std::this_thread::sleep_for(30ms);
      finished = true;
    });
    sawFinished = finished.load();
  });
  while (loop.pending() < 1) std::this_thread::sleep_for(1ms);
  loop.runPending();
  worker.join();
  EXPECT_TRUE(sawFinished);
}

TEST(Workers, WaitAllReturnsOnlyWhenEveryBodyHasEnded) {
  Workers workers;
  std::atomic<int> ended{0};
  for (int i = 0; i < 5; ++i)
    workers.start([&, i] {
      std::this_thread::sleep_for(std::chrono::milliseconds(10 * i));
      ++ended;
    });
  workers.waitAll();
  EXPECT_EQ(ended.load(), 5);
  EXPECT_EQ(workers.running(), 0u);
}
