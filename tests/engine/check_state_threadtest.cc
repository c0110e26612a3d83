// checkState: the one place where a worker notices pause and stop requests.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "engine/dfrg_context.h"
#include "engine/dfrg_exception.h"
#include "support/fake_env.h"

namespace glidewell {
namespace {

class CheckStateTest : public ::testing::Test {
 protected:
  void SetUp() override {
    env.useManualClock(100000);
    resetCheckStateClock();
  }
  FakeEnv env;
  ScopedEnv scoped{&env};
  CDfrgContext ctx{nullptr, 0, nullptr};
};

TEST_F(CheckStateTest, StopIsSeenOnlyAfterTheHalfSecondAllowance) {
  checkState(ctx);  // first check happens at once and finds nothing
  ctx.stopAll();
  env.advanceClock(499);
  EXPECT_NO_THROW(checkState(ctx));  // within 500 ms of the last check: not looked at
  env.advanceClock(1);
  try {
    checkState(ctx);
    FAIL() << "stop not seen";
  } catch (const CDfrgException& e) {
    EXPECT_EQ(e.code, ErrorStopRequested);
    EXPECT_EQ(e.message, "");
  }
}

TEST_F(CheckStateTest, ThreadsPausedContextBlocksUntilResumed) {
  ctx.pause(true);
  std::atomic<bool> passed{false};
  std::thread worker([&] {
    checkState(ctx);
    passed = true;
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_FALSE(passed.load());
  ctx.pause(false);
  worker.join();
  EXPECT_TRUE(passed.load());
}

TEST_F(CheckStateTest, ThreadsStopDuringPauseWakesTheWorkerWithTheStop) {
  ctx.pause(true);
  std::atomic<int> code{0};
  std::thread worker([&] {
    try {
      checkState(ctx);
    } catch (const CDfrgException& e) {
      code = e.code;
    }
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  ctx.stopAll();   // what DfrgThread::end does: stop, then resume
  ctx.pause(false);
  worker.join();
  EXPECT_EQ(code.load(), ErrorStopRequested);
}

}  // namespace
}  // namespace glidewell
