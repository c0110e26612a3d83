// The pass loop run by the engine's worker over simulated drives: which
// volumes it treats, what it logs, the settings it leaves behind, and stop
// and pause while files are being moved.
#include "sim_engine_fixture.h"

#include <atomic>
#include <chrono>
#include <thread>

#include "config/registry_store.h"
#include "engine/dfrg_exception.h"
#include "engine/engine.h"
#include "platform/registry_backend.h"
#include "sim/sim_aging.h"
#include "support/fake_env.h"
#include "support/temp_dir.h"

namespace glidewell {
namespace {

constexpr const char* kSettings = "SOFTWARE\\quorvane\\Quorvane Glidewell\\settings";

std::atomic<int> lastReported{0};
void rememberError(int32_t code, const char*) { lastReported = code; }

class PassLoopTest : public SimEngineTest {
 protected:
  void SetUp() override {
    SimEngineTest::SetUp();
    RegistryBackend::setCurrent(RegistryBackend::newMemory());
    lastReported = 0;
  }
  void TearDown() override {
    owner.reset();
    for (auto& d : disks) EXPECT_EQ(d->verify(), "");
    RegistryBackend::setCurrent(nullptr);
    SimEngineTest::TearDown();
  }

  std::shared_ptr<SimDisk> addDrive(wchar_t letter, std::shared_ptr<SimDisk> disk) {
    disks.push_back(disk);
    auto p = probe;
    env.addDrive(letter, L"Sim", [disk, letter, p] {
      return wrapVolume(std::make_unique<SimVolumeSystem>(disk, letter), p);
    });
    return disk;
  }
  // Every move takes a while, as on a real disk, so a pass lasts long enough
  // to be paused, stopped or raced by users.
  void slowMoves(int microseconds) {
    probe->beforeMove = [microseconds](const MOVE_FILE_DATA&) {
      std::this_thread::sleep_for(std::chrono::microseconds(microseconds));
    };
  }
  // Files laid end to end from cluster 0 with the free space after them:
  // nothing for any mover to do.
  std::shared_ptr<SimDisk> tidyDisk() {
    SimGeometry g;
    g.totalClusters = 4000;
    auto disk = std::make_shared<SimDisk>(g);
    for (int i = 0; i < 10; ++i) {
      SimRun r;
      r.lcn = static_cast<uint64_t>(i) * 100;
      r.length = 100;
      EXPECT_EQ(disk->placeFile(L"f" + std::to_wstring(i), 0, 100 * 4096, {r}), 0u);
    }
    return disk;
  }
  std::shared_ptr<SimDisk> agedDisk(uint64_t seed, uint64_t clusters = 1u << 16, uint64_t files = 3000) {
    SimAgingOptions o;
    o.seed = seed;
    o.totalClusters = clusters;
    o.maxFiles = files;
    o.fillRatio = 0.55;
    std::string error;
    std::shared_ptr<SimDisk> disk = ageDisk(o, &error);
    EXPECT_NE(disk, nullptr) << error;
    return disk;
  }
  void setSetting(const char* name, DWORD value) {
    CRegistryStore store(HKEY_CURRENT_USER);
    std::unique_ptr<CRegistryKey> key;
    ASSERT_TRUE(store.openKey(kSettings, key, KEY_ALL_ACCESS, nullptr, true));
    ASSERT_TRUE(key->setDword(std::string(name), value));
  }
  DWORD setting(const char* name) {
    CRegistryStore store(HKEY_CURRENT_USER);
    std::unique_ptr<CRegistryKey> key;
    EXPECT_TRUE(store.openKey(kSettings, key, KEY_READ, nullptr, false));
    DWORD v = 12345;
    if (key) key->getDword(std::string(name), v, 12345);
    return v;
  }
  void runToEnd() {
    owner = std::make_unique<engine>(&done, "", HKEY_CURRENT_USER, dir.path());
    owner->setErrorCallback(&rememberError);
    owner->start(false, kDefragModePasses);
    ASSERT_EQ(done.wait(60000), WaitResult::kSignaled);
    owner->stop();
  }
  std::vector<testing_log::SeenEvent> finishedPasses() { return logged("Finished pass"); }
  // What a walk visits: everything but reparse points and what lies behind them.
  static long long walkable(const SimDisk& disk) {
    long long n = 0;
    std::vector<std::wstring> hidden;
    for (const SimFileInfo& f : disk.listAll()) {
      bool behind = false;
      for (auto& h : hidden) behind = behind || f.path.rfind(h + L"\\", 0) == 0;
      if (behind) continue;
      if ((f.attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0) {
        hidden.push_back(f.path);
        continue;
      }
      ++n;
    }
    return n;
  }

  TempDir dir;
  FakeEnv env;
  ScopedEnv scoped{&env};
  Event done{false, false};
  std::unique_ptr<engine> owner;
  std::vector<std::shared_ptr<SimDisk>> disks;
};

TEST_F(PassLoopTest, NothingToChangeOnTheFirstVolumeEndsTheRunWithoutMoveLeft) {
  addDrive(L'C', tidyDisk());
  auto d = addDrive(L'D', agedDisk(7));
  uint64_t untouched = d->generation();
  runToEnd();
  EXPECT_EQ(d->generation(), untouched);  // the second volume was never walked
  EXPECT_TRUE(finishedPasses().empty());
  EXPECT_EQ(lastReported.load(), 0);      // a normal end reports nothing
  EXPECT_EQ(setting("DoMoveBetterPlace"), 1u);
  EXPECT_EQ(setting("DoMoveLeft"), 0u);
}

TEST_F(PassLoopTest, WithMoveLeftWantedTheRunGoesOnAndMoveLeftIsStoredAgain) {
  setSetting("DoMoveLeft", 1);
  addDrive(L'C', tidyDisk());
  runToEnd();
  auto passes = finishedPasses();
  ASSERT_EQ(passes.size(), 1u);
  EXPECT_EQ(property(passes[0], "Volume"), "C:");
  EXPECT_EQ(property(passes[0], "Pass"), "-1");
  EXPECT_EQ(property(passes[0], "PanicPass"), "-1");
  EXPECT_EQ(property(passes[0], "Processed"), "10");
  EXPECT_EQ(setting("DoMoveLeft"), 1u);
}

TEST_F(PassLoopTest, AVolumeThatChangedLeavesBetterPlaceOnAndMoveLeftOff) {
  setSetting("DoMoveLeft", 1);
  setSetting("DoMoveBetterPlace", 0);
  auto c = addDrive(L'C', agedDisk(11));
  auto d = addDrive(L'D', agedDisk(12));
  SimStats beforeC = c->stats(), beforeD = d->stats();
  long long visits = walkable(*c) + walkable(*d);
  runToEnd();
  auto passes = finishedPasses();
  ASSERT_EQ(passes.size(), 2u);
  EXPECT_EQ(property(passes[1], "Volume"), "D:");
  // The counters run on over the volumes of one run.
  EXPECT_EQ(std::stoll(property(passes[1], "Processed")), visits);
  EXPECT_LT(c->stats().fragmentedFiles, beforeC.fragmentedFiles);
  EXPECT_LT(d->stats().fragmentedFiles, beforeD.fragmentedFiles);
  EXPECT_EQ(setting("DoMoveBetterPlace"), 1u);
  EXPECT_EQ(setting("DoMoveLeft"), 0u);
}

TEST_F(PassLoopTest, ThreadsStopDuringAPassEndsTheWorkerWithinASecond) {
  slowMoves(2000);
  auto disk = addDrive(L'C', agedDisk(21));
  uint64_t start = disk->generation();
  owner = std::make_unique<engine>(&done, "", HKEY_CURRENT_USER, dir.path());
  owner->setErrorCallback(&rememberError);
  owner->start(false, kDefragModePasses);
  for (int i = 0; i < 2000 && disk->generation() == start; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  ASSERT_NE(disk->generation(), start) << "no file was moved";
  auto t0 = std::chrono::steady_clock::now();
  owner->stop();
  auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - t0).count();
  EXPECT_LT(ms, 1000);
  ASSERT_EQ(done.wait(5000), WaitResult::kSignaled);
  EXPECT_EQ(lastReported.load(), ErrorStopRequested);
}

TEST_F(PassLoopTest, ThreadsPauseHoldsEveryMoveUntilResumed) {
  slowMoves(2000);
  auto disk = addDrive(L'C', agedDisk(22));
  uint64_t start = disk->generation();
  owner = std::make_unique<engine>(&done, "", HKEY_CURRENT_USER, dir.path());
  owner->start(false, kDefragModePasses);
  for (int i = 0; i < 2000 && disk->generation() == start; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  owner->pause(true);
  std::this_thread::sleep_for(std::chrono::milliseconds(1200));  // the next check is at most 500 ms away
  uint64_t held = disk->generation();
  std::this_thread::sleep_for(std::chrono::milliseconds(800));
  EXPECT_EQ(disk->generation(), held);
  owner->pause(false);
  for (int i = 0; i < 400 && disk->generation() == held && done.wait(0) != WaitResult::kSignaled; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  EXPECT_NE(disk->generation(), held);
  owner->stop();
}

TEST_F(PassLoopTest, ThreadsUsersChangingFilesDuringThePassLoseNothing) {
  slowMoves(300);
  auto disk = addDrive(L'C', agedDisk(31));
  auto files = disk->listAll();
  std::atomic<bool> stopUsers{false};
  std::thread users([&] {
    size_t i = 0;
    while (!stopUsers.load()) {
      const SimFileInfo& f = files[(i * 7919) % files.size()];
      if ((f.attributes & FILE_ATTRIBUTE_DIRECTORY) == 0) {
        if (i % 3 == 0) disk->appendFile(f.path, 3 * 4096);
        if (i % 3 == 1) disk->deleteFile(f.path);
        if (i % 3 == 2) disk->createFile(L"new" + std::to_wstring(i), 5 * 4096);
      }
      ++i;
      std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
  });
  runToEnd();
  stopUsers = true;
  users.join();
  EXPECT_EQ(disk->verify(), "");
  EXPECT_EQ(lastReported.load(), 0);
}

}  // namespace
}  // namespace glidewell
