// The smart driver run by the engine's worker over simulated drives: a
// fragmented volume gets clean and switches to react mode, react mode treats
// the files users change (but not the engine's own log files), a stopped scan
// pass resumes where it stopped, and a volume lost in the middle of a pass is
// left alone for five minutes.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <functional>
#include <iterator>
#include <thread>

#include "config/registry_store.h"
#include "engine/dfrg_exception.h"
#include "engine/engine.h"
#include "logging/log_manager.h"
#include "logging/log_test_util.h"
#include "platform/registry_backend.h"
#include "sim/sim_aging.h"
#include "sim/sim_disk.h"
#include "sim/sim_drives.h"
#include "sim/sim_volume_system.h"
#include "support/fake_env.h"
#include "support/temp_dir.h"
#include "support/volume_wrapper.h"

namespace glidewell {
namespace {

constexpr const char* kKeyPath = "SOFTWARE\\quorvane\\Quorvane Glidewell";

// The engine pretends to be installed in C:\glidewell\bin, so its own log is
// C:\glidewell\log\log.txt.
class InstalledEnv : public FakeEnv {
 public:
  std::wstring currentDirectory() override { return L"C:\\glidewell\\bin\\"; }
};

class SmartDriverTest : public ::testing::Test {
 protected:
  void SetUp() override {
    LogManager::release();
    LogManager* m = LogManager::instance();
    m->setGenericFactory(LogObjectFactory{testing_log::createTestLogObject, destroyLogObject});
    recorder = dynamic_cast<testing_log::RecordingAppender*>(m->createAppender("Recording"));
    RegistryBackend::setCurrent(RegistryBackend::newMemory());
  }
  void TearDown() override {
    stop();
    for (auto& d : disks) EXPECT_EQ(d.second->verify(), "");
    for (auto& d : disks) SimDrives::instance().unplug(d.first);
    RegistryBackend::setCurrent(nullptr);
    LogManager::release();
  }

  std::shared_ptr<SimDisk> addDrive(wchar_t letter, std::shared_ptr<SimDisk> disk) {
    disks.push_back({letter, disk});
    // The change watcher finds the disk through the drive list.
    SimDrives::instance().plug(letter, disk);
    auto p = probe;
    env.addDrive(letter, L"Sim", [disk, letter, p] {
      return wrapVolume(std::make_unique<SimVolumeSystem>(disk, letter), p);
    });
    return disk;
  }
  std::shared_ptr<SimDisk> agedDisk(uint64_t seed, uint64_t clusters, uint64_t files) {
    SimAgingOptions o;
    o.seed = seed;
    o.totalClusters = clusters;
    o.maxFiles = files;
    o.fillRatio = 0.5;
    std::string error;
    std::shared_ptr<SimDisk> disk = ageDisk(o, &error);
    EXPECT_NE(disk, nullptr) << error;
    return disk;
  }
  // A few files in two pieces each, with plenty of room to join them.
  std::shared_ptr<SimDisk> fragmentedDisk() {
    SimGeometry g;
    g.totalClusters = 8192;
    auto disk = std::make_shared<SimDisk>(g);
    for (uint64_t i = 0; i < 8; ++i) {
      SimRun a, b;
      a.lcn = i * 40;
      a.length = 10;
      b.vcn = 10;
      b.lcn = 4000 + i * 40;
      b.length = 10;
      EXPECT_EQ(disk->placeFile(L"f" + std::to_wstring(i), 0, 20 * 4096, {a, b}), 0u);
    }
    return disk;
  }
  void start() {
    owner = std::make_unique<engine>(&done, "", HKEY_CURRENT_USER, dir.path());
    owner->start(false, kDefragModeSmart);
  }
  void stop() {
    if (!owner) return;
    std::atomic<bool> stopped{false};
    // With the manual clock, the worker sees the stop once time moves on.
    std::thread ticker([&] {
      while (!stopped.load()) {
        env.advanceClock(100);
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
      }
    });
    owner->stop();
    stopped = true;
    ticker.join();
    owner.reset();
  }
  // Polls for up to 10 s, moving the manual clock on meanwhile.
  bool waitUntil(const std::function<bool()>& done) {
    for (int i = 0; i < 2000; ++i) {
      if (done()) return true;
      env.advanceClock(100);
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return done();
  }
  DWORD volumeMode(wchar_t letter) {
    CRegistryStore store(HKEY_LOCAL_MACHINE);
    CRegistryKey key = store.key(kKeyPath, KEY_READ, false);
    DWORD v = 99;
    key.getDword(L"volumeMode_" + std::wstring(1, letter), v, 99);
    return v;
  }
  size_t logged(const std::string& message, const std::string& volume = "") {
    size_t n = 0;
    for (auto& e : recorder->seen()) {
      if (e.message != message) continue;
      bool match = volume.empty();
      for (auto& p : e.properties) match = match || (p.name() == "Volume" && p.value() == volume);
      if (match) ++n;
    }
    return n;
  }
  static size_t pieces(SimDisk& disk, const std::wstring& path) {
    SimFileInfo info;
    if (disk.fileInfo(path, &info) != 0) return 0;
    size_t n = 0;
    uint64_t next = kNoCluster;
    for (const SimRun& r : info.runs) {
      if (r.isVirtual()) continue;
      if (r.lcn != next) ++n;
      next = r.lcn + r.length;
    }
    return n;
  }
  // A file of 2 x n clusters in two pieces, made the way users make them: the
  // file grows after another file took the clusters behind it.
  void userWritesFragmented(SimDisk& disk, const std::wstring& path, uint64_t n) {
    ASSERT_EQ(disk.createFile(path, n * 4096), 0u);
    ASSERT_EQ(disk.createFile(path + L".pad", 4096), 0u);
    ASSERT_EQ(disk.appendFile(path, n * 4096), 0u);
  }
  std::wstring savedResumePath() {
    std::ifstream in(dir.file("state/resumeInfo"), std::ios::binary);
    std::string b(std::istreambuf_iterator<char>(in), {});
    if (b.size() < 8) return L"<none>";
    uint32_t n = static_cast<uint8_t>(b[4]) | static_cast<uint8_t>(b[5]) << 8;
    std::wstring path;
    for (uint32_t i = 0; i < n && 9 + 2 * i < b.size(); ++i) {
      path += static_cast<wchar_t>(static_cast<uint8_t>(b[8 + 2 * i]) | static_cast<uint8_t>(b[9 + 2 * i]) << 8);
    }
    return path;
  }

  TempDir dir;
  InstalledEnv env;
  ScopedEnv scoped{&env};
  Event done{false, false};
  std::unique_ptr<engine> owner;
  std::vector<std::pair<wchar_t, std::shared_ptr<SimDisk>>> disks;
  std::shared_ptr<VolumeProbe> probe = std::make_shared<VolumeProbe>();
  testing_log::RecordingAppender* recorder = nullptr;
};

TEST_F(SmartDriverTest, AFragmentedVolumeGetsCleanThenReactModeTreatsChangedFiles) {
  env.useManualClock(1000);
  auto disk = addDrive(L'C', fragmentedDisk());
  ASSERT_EQ(disk->createDirectory(L"glidewell"), 0u);
  ASSERT_EQ(disk->createDirectory(L"glidewell\\log"), 0u);
  start();
  ASSERT_TRUE(waitUntil([&] { return volumeMode(L'C') == 1; }));
  EXPECT_EQ(logged("Volume is clean. Switching to react mode", "C:"), 1u);
  EXPECT_EQ(disk->stats().fragmentedFiles, 0u);
  EXPECT_EQ(logged("Finished Scan pass", "C:"), 1u);

  // Users at work: the engine's own log (in another letter case) and files
  // ending in .log are left alone; everything else is treated.
  userWritesFragmented(*disk, L"glidewell\\LOG\\Log.TXT", 6);
  userWritesFragmented(*disk, L"app.Log", 6);
  EXPECT_EQ(pieces(*disk, L"glidewell\\LOG\\Log.TXT"), 2u);
  EXPECT_EQ(pieces(*disk, L"app.Log"), 2u);
  userWritesFragmented(*disk, L"zz.txt", 6);  // changes are handled in name order: this one last
  EXPECT_TRUE(waitUntil([&] { return pieces(*disk, L"zz.txt") == 1; }));
  EXPECT_EQ(pieces(*disk, L"glidewell\\LOG\\Log.TXT"), 2u);
  EXPECT_EQ(pieces(*disk, L"app.Log"), 2u);
  EXPECT_EQ(volumeMode(L'C'), 1u);
  EXPECT_EQ(logged("Finished Scan pass", "C:"), 1u);  // no rescan in react mode
}

TEST_F(SmartDriverTest, AStoppedScanPassResumesOnTheSameVolumeAtTheInterruptedFile) {
  // Past the twentieth move every move is slow, so the stop is sure to land
  // inside the scan pass it was meant for, however busy the machine is.
  std::atomic<int> moved{0};
  probe->beforeMove = [&moved](const MOVE_FILE_DATA&) {
    int n = ++moved;
    std::this_thread::sleep_for(std::chrono::microseconds(n > 20 ? 30000 : 1500));
  };
  auto c = addDrive(L'C', agedDisk(41, 1u << 15, 1500));
  auto d = addDrive(L'D', agedDisk(42, 1u << 15, 1500));
  start();
  ASSERT_TRUE(waitUntil([&] { return moved.load() > 20; }));
  owner->stop();
  owner.reset();
  std::wstring resume = savedResumePath();
  ASSERT_GE(resume.size(), 3u);
  ASSERT_EQ(resume[1], L':');
  {
    std::lock_guard<std::mutex> g(probe->mutex);
    probe->opened.clear();
  }
  start();
  ASSERT_TRUE(waitUntil([&] { return !probe->openedPaths().empty(); }));
  owner->stop();
  owner.reset();
  // The first file the second run opened is the one the first run stopped at.
  EXPECT_EQ(probe->openedPaths()[0], resume);
}

TEST_F(SmartDriverTest, AVolumeLostDuringAPassIsLeftAloneForFiveMinutes) {
  env.useManualClock(1000);
  auto disk = addDrive(L'C', fragmentedDisk());
  std::atomic<int> moves{0};
  std::atomic<uint32_t> lostAt{0}, nextMoveAt{0};
  probe->beforeMove = [&](const MOVE_FILE_DATA&) {
    if (moves++ == 0) {
      lostAt = env.timeGetTime();
      throw CDfrgException(ErrorVolumeUnavailable, "gone");
    }
    if (nextMoveAt.load() == 0) nextMoveAt = env.timeGetTime();
  };
  start();
  ASSERT_TRUE(waitUntil([&] { return nextMoveAt.load() != 0; }));
  EXPECT_EQ(logged("Could not open volume.", "C:"), 1u);
  EXPECT_GE(nextMoveAt.load() - lostAt.load(), 300000u);
  // The volume is not reset to scan mode by a lost volume: it stays in its
  // scan pass and ends clean.
  EXPECT_EQ(logged("Resetting volume mode to scan mode because an exception was encountered."), 0u);
  ASSERT_TRUE(waitUntil([&] { return volumeMode(L'C') == 1; }));
}

TEST_F(SmartDriverTest, AVolumeThatStaysFragmentedEscalatesToPanicPassesThenGivesUp) {
  env.useManualClock(1000);
  // Plenty of free space, but in pieces of ten clusters: a file of twenty
  // has nowhere to go.
  SimGeometry g;
  g.totalClusters = 32768;
  auto disk = addDrive(L'C', std::make_shared<SimDisk>(g));
  SimRun a, b;
  a.lcn = 100;
  a.length = 10;
  b.vcn = 10;
  b.lcn = 5000;
  b.length = 10;
  ASSERT_EQ(disk->placeFile(L"stuck", 0, 20 * 4096, {a, b}), 0u);
  for (uint64_t lcn = 10; lcn < g.totalClusters; lcn += 20) {
    for (uint64_t i = lcn; i < lcn + 10 && i < g.totalClusters; ++i) disk->reserveSystemClusters(i, 1);
  }
  start();
  ASSERT_TRUE(waitUntil([&] { return volumeMode(L'C') == 1; }));
  std::vector<std::string> passes, panics;
  for (auto& e : recorder->seen()) {
    if (e.message != "Finished Scan pass") continue;
    for (auto& p : e.properties) {
      if (p.name() == "Pass") passes.push_back(p.value());
      if (p.name() == "PanicPass") panics.push_back(p.value());
    }
  }
  // Three standard passes, then three panic passes, then it gives up.
  EXPECT_EQ(passes, (std::vector<std::string>{"0", "1", "2", "3", "4", "5"}));
  EXPECT_EQ(panics, (std::vector<std::string>{"-1", "-1", "-1", "0", "1", "2"}));
  EXPECT_EQ(logged("Unable to defragment all files in standard mode. Activating panic mode", "C:"), 3u);
  EXPECT_EQ(logged("Unable to defragment all files in panic mode. Giving up for now...", "C:"), 1u);
  EXPECT_EQ(logged("Volume is clean. Switching to react mode"), 0u);
}

}  // namespace
}  // namespace glidewell
