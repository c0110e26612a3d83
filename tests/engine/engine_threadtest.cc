// The engine object and its worker: start handshake, pause, stop, restart,
// errors reported through the callback, and the done event.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <string>
#include <thread>

#include "engine/dfrg_exception.h"
#include "engine/engine.h"
#include "platform/registry_backend.h"
#include "support/endless_volume.h"
#include "support/fake_env.h"
#include "support/temp_dir.h"

namespace glidewell {
namespace {

// The callback is a plain function pointer, so what it saw lives here.
std::mutex reportedLock;
std::vector<std::pair<int, std::string>> reported;

void recordError(int32_t code, const char* message) {
  std::lock_guard<std::mutex> g(reportedLock);
  reported.emplace_back(code, message);
}

std::vector<std::pair<int, std::string>> reports() {
  std::lock_guard<std::mutex> g(reportedLock);
  return reported;
}

bool waitUntil(const std::function<bool()>& condition, int ms = 5000) {
  auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
  while (std::chrono::steady_clock::now() < deadline) {
    if (condition()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return condition();
}

class EngineTest : public ::testing::Test {
 protected:
  void SetUp() override {
    {
      std::lock_guard<std::mutex> g(reportedLock);
      reported.clear();
    }
    RegistryBackend::setCurrent(RegistryBackend::newMemory());
    probe = std::make_shared<EndlessVolumeProbe>();
  }
  void TearDown() override {
    owner.reset();
    RegistryBackend::setCurrent(nullptr);
  }

  void withEndlessDrive(wchar_t letter = L'C') {
    auto p = probe;
    env.addDrive(letter, L"Data", [letter, p] { return makeEndlessVolume(letter, p); });
  }
  void makeEngine() {
    owner = std::make_unique<engine>(&done, "", HKEY_CURRENT_USER, dir.path());
    owner->setErrorCallback(&recordError);
  }

  TempDir dir;
  FakeEnv env;
  ScopedEnv scoped{&env};
  Event done{false, false};
  std::shared_ptr<EndlessVolumeProbe> probe;
  std::unique_ptr<engine> owner;
};

TEST_F(EngineTest, ThreadsNoEnabledVolumeEndsTheRunWithMinus21) {
  makeEngine();
  owner->stop();  // with no worker yet: nothing happens
  owner->pause(false);
  EXPECT_EQ(done.wait(0), WaitResult::kTimeout);
  EXPECT_TRUE(reports().empty());
  owner->start(false, kDefragModePasses);
  ASSERT_EQ(done.wait(5000), WaitResult::kSignaled);
  EXPECT_EQ(done.wait(0), WaitResult::kTimeout);  // auto-reset: seen once
  auto r = reports();
  ASSERT_EQ(r.size(), 1u);
  EXPECT_EQ(r[0].first, ErrorNoVolumesSelected);
  EXPECT_EQ(r[0].second, "You didn't enabled a Volume to Defrag");
  owner->stop();  // a finished worker is deleted without waiting
  owner->pause(true);
}

TEST_F(EngineTest, ThreadsUnknownModeEndsWithStopCode) {
  withEndlessDrive();
  makeEngine();
  owner->start(false, 7);
  ASSERT_EQ(done.wait(5000), WaitResult::kSignaled);
  auto r = reports();
  ASSERT_EQ(r.size(), 1u);
  EXPECT_EQ(r[0].first, ErrorStopRequested);
  EXPECT_EQ(r[0].second, "Unknown Defrag Mode requested");
}

TEST_F(EngineTest, ThreadsPauseHoldsTheWorkerAndStopDuringPauseEndsIt) {
  withEndlessDrive();
  makeEngine();
  owner->start(false, kDefragModePasses);
  ASSERT_TRUE(waitUntil([&] { return probe->bitmapReplies.load() > 0; }));
  owner->pause(true);
  // The pause takes effect at the next check, at most half a second later.
  std::this_thread::sleep_for(std::chrono::milliseconds(1200));
  long held = probe->bitmapReplies.load();
  std::this_thread::sleep_for(std::chrono::milliseconds(700));
  EXPECT_EQ(probe->bitmapReplies.load(), held);
  EXPECT_EQ(done.wait(0), WaitResult::kTimeout);

  owner->stop();  // resumes, then stops: the worker must not stay blocked
  ASSERT_EQ(done.wait(5000), WaitResult::kSignaled);
  auto r = reports();
  ASSERT_EQ(r.size(), 1u);
  EXPECT_EQ(r[0].first, ErrorStopRequested);
  EXPECT_EQ(r[0].second, "");
}

TEST_F(EngineTest, ThreadsStartPausedBuildsContextsButDoesNoWork) {
  withEndlessDrive();
  makeEngine();
  owner->start(true, kDefragModePasses);
  EXPECT_EQ(env.openedVolumes(), 1);  // contexts exist when start returns
  std::this_thread::sleep_for(std::chrono::milliseconds(700));
  EXPECT_EQ(probe->bitmapReplies.load(), 0);
  owner->pause(false);
  EXPECT_TRUE(waitUntil([&] { return probe->bitmapReplies.load() > 0; }));
  owner->stop();
}

TEST_F(EngineTest, ThreadsStartWhileRunningStopsTheOldWorkerFirst) {
  withEndlessDrive();
  makeEngine();
  owner->start(false, kDefragModePasses);
  ASSERT_TRUE(waitUntil([&] { return probe->bitmapReplies.load() > 0; }));
  owner->start(false, kDefragModePasses);
  // The old run ended with a stop and signalled once.
  EXPECT_EQ(done.wait(5000), WaitResult::kSignaled);
  EXPECT_EQ(env.openedVolumes(), 2);
  owner->stop();
  EXPECT_EQ(done.wait(5000), WaitResult::kSignaled);
  auto r = reports();
  ASSERT_EQ(r.size(), 2u);
  EXPECT_EQ(r[0].first, ErrorStopRequested);
  EXPECT_EQ(r[1].first, ErrorStopRequested);
}

TEST_F(EngineTest, ThreadsMissingDriveIsSkippedAndTheOtherRuns) {
  withEndlessDrive(L'D');
  env.addDrive(L'C', L"Gone", []() -> std::unique_ptr<CVolumeSystem> {
    throw CDfrgException(ErrorVolumeUnavailable, "Couldn't open Volume ! \\\\.\\C:");
  });
  makeEngine();
  owner->start(false, kDefragModePasses);
  EXPECT_TRUE(waitUntil([&] { return probe->bitmapReplies.load() > 0; }));
  owner->stop();
  auto r = reports();
  ASSERT_EQ(r.size(), 1u);
  EXPECT_EQ(r[0].first, ErrorStopRequested);
}

TEST_F(EngineTest, ThreadsUnexpectedErrorIsReportedAndTheRunRetried) {
  std::atomic<int> failures{1};
  probe->onListing = [&] {
    if (failures.fetch_sub(1) > 0) throw CDfrgException(ErrorInternal, "listing failed");
  };
  withEndlessDrive();
  makeEngine();
  owner->start(false, kDefragModePasses);
  // The first run fails and is reported while the worker keeps going; the
  // rebuilt run reaches the endless bitmap.
  EXPECT_TRUE(waitUntil([&] { return probe->bitmapReplies.load() > 0; }));
  EXPECT_EQ(done.wait(0), WaitResult::kTimeout);
  auto r = reports();
  ASSERT_GE(r.size(), 1u);
  EXPECT_EQ(r[0].first, ErrorInternal);
  EXPECT_EQ(r[0].second, "listing failed");
  owner->stop();
}

TEST_F(EngineTest, ThreadsStopRacingTheWorkersOwnEndNeverDeadlocks) {
  // No volume: every worker ends by itself at once, while the host stops it.
  makeEngine();
  for (int i = 0; i < 50; ++i) {
    owner->start(false, kDefragModePasses);
    if (i % 2 == 0) std::this_thread::yield();
    owner->stop();
  }
  owner.reset();
  SUCCEED();
}

TEST_F(EngineTest, ThreadsDestroyingAnEngineEndsItsWorker) {
  withEndlessDrive();
  makeEngine();
  owner->start(false, kDefragModePasses);
  ASSERT_TRUE(waitUntil([&] { return probe->bitmapReplies.load() > 0; }));
  owner.reset();
  EXPECT_EQ(done.wait(0), WaitResult::kSignaled);
}

}  // namespace
}  // namespace glidewell
