// Events, the recursive lock and threads behave like their Win32 namesakes.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "platform/sync.h"

namespace glidewell {
namespace {

TEST(EventTest, ManualResetStaysSignalledUntilReset) {
  Event e(true, false);
  EXPECT_EQ(e.wait(0), WaitResult::kTimeout);
  e.set();
  EXPECT_EQ(e.wait(0), WaitResult::kSignaled);
  EXPECT_EQ(e.wait(0), WaitResult::kSignaled);  // a wait does not consume it
  e.reset();
  EXPECT_EQ(e.wait(10), WaitResult::kTimeout);
}

TEST(EventTest, AutoResetReleasesExactlyOneWait) {
  Event e(false, true);
  EXPECT_TRUE(e.isSet());  // testing does not consume
  EXPECT_EQ(e.wait(0), WaitResult::kSignaled);
  EXPECT_EQ(e.wait(0), WaitResult::kTimeout);
}

TEST(EventTest, WaitAnyReturnsTheSignalledIndexAndTimesOut) {
  Event a(true, false), b(false, false);
  Event* both[] = {&a, &b};
  EXPECT_EQ(Event::waitAny(both, 2, 5), -1);
  b.set();
  EXPECT_EQ(Event::waitAny(both, 2, kWaitInfinite), 1);
  EXPECT_FALSE(b.isSet());  // auto-reset consumed by the wait that returned it
  a.set();
  EXPECT_EQ(Event::waitAny(both, 2, 0), 0);
  EXPECT_TRUE(a.isSet());
}

TEST(EventTest, TimedWaitTakesRoughlyItsTime) {
  Event e(true, false);
  auto t0 = std::chrono::steady_clock::now();
  EXPECT_EQ(e.wait(50), WaitResult::kTimeout);
  auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - t0).count();
  EXPECT_GE(ms, 45);
  EXPECT_LT(ms, 2000);
}

TEST(ThreadsTest, SetFromAnotherThreadWakesAnInfiniteWait) {
  Event e(false, false);
  std::atomic<bool> woke{false};
  auto t = Thread::start([&] {
    e.wait(kWaitInfinite);
    woke = true;
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_FALSE(woke.load());
  e.set();
  t->join();
  EXPECT_TRUE(woke.load());
  EXPECT_FALSE(t->isAlive());
}

TEST(ThreadsTest, RecursiveLockIsReentrantAndExcludesOthers) {
  RecursiveLock lock;
  int counter = 0;
  auto work = [&] {
    for (int i = 0; i < 10000; ++i) {
      ScopedLock outer(lock);
      ScopedLock inner(lock);  // the owner may take it again
      ++counter;
    }
  };
  auto a = Thread::start(work);
  auto b = Thread::start(work);
  a->join();
  b->join();
  EXPECT_EQ(counter, 20000);
}

TEST(ThreadsTest, ThreadIdIsTheIdSeenInsideTheThread) {
  std::atomic<uint32_t> inside{0};
  auto t = Thread::start([&] { inside = currentThreadId(); });
  t->join();
  EXPECT_EQ(t->id(), inside.load());
  EXPECT_NE(t->id(), currentThreadId());
}

}  // namespace
}  // namespace glidewell
