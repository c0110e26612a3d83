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

TEST_F(CheckStateTest, ThreadsPauseBlocksUntilResumedAndAStopDuringPauseWakesTheWorkerWithTheStop) {
  for (bool stop : {false, true}) {
    CDfrgContext paused{nullptr, 0, nullptr};
    paused.pause(true);
    std::atomic<bool> passed{false};
    std::atomic<int> code{0};
    std::thread worker([&] {
      try {
        checkState(paused);
        passed = true;
      } catch (const CDfrgException& e) {
        code = e.code;
      }
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_FALSE(passed.load());
    if (stop) paused.stopAll();  // what DfrgThread::end does: stop, then resume
    paused.pause(false);
    worker.join();
    EXPECT_EQ(passed.load(), !stop);
    EXPECT_EQ(code.load(), stop ? ErrorStopRequested : 0);
    resetCheckStateClock();
  }
}

}  // namespace
}  // namespace glidewell
