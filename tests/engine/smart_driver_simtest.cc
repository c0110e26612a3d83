// The smart driver run by the engine's worker over simulated drives: a
// fragmented volume gets clean and switches to react mode, react mode treats
// the files users change (but not the engine's own log files) until tracking
// is invalidated, a stopped scan pass resumes where it stopped (and only when
// it can), passes are judged into react, scan or panic mode, an old react
// mode forces a scan, and a volume lost in the middle of a pass is left alone
// for five minutes.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <filesystem>
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

  // A clean slate for the next row of a table: no engine, drives, probe
  // hooks, state files, registry values or log records of the row before.
  void nextCase() {
    TearDown();
    disks.clear();
    probe = std::make_shared<VolumeProbe>();
    std::filesystem::remove_all(dir.file("state"));
    SetUp();
  }
  // The values of a property of every "Finished Scan pass" so far.
  std::vector<std::string> passes(const std::string& name) {
    std::vector<std::string> out;
    for (auto& e : recorder->seen()) {
      if (e.message != "Finished Scan pass") continue;
      for (auto& p : e.properties) {
        if (p.name() == name) out.push_back(p.value());
      }
    }
    return out;
  }
  // A file in the state directory, as an earlier run would have left it.
  void writeState(const std::string& name, const std::string& bytes) {
    std::filesystem::create_directories(dir.file("state"));
    std::ofstream(dir.file("state/" + name), std::ios::binary | std::ios::trunc) << bytes;
  }
  static std::string le(uint64_t v, int bytes) {
    std::string out;
    for (int i = 0; i < bytes; ++i) out += static_cast<char>((v >> (8 * i)) & 0xFF);
    return out;
  }
  static std::string ustring(const std::wstring& text) {
    std::string out = le(text.size(), 4);
    for (wchar_t c : text) out += le(static_cast<uint16_t>(c), 2);
    return out;
  }
  // A resume info file: the resume path, "Processed" (the other counters 0),
  // no deferred files, and one volume record per (letter, pass).
  void writeResumeInfo(const std::wstring& resumePath, int64_t processed,
                       const std::vector<std::pair<wchar_t, int32_t>>& volumes) {
    std::string b = le(3, 4) + ustring(resumePath);
    for (int64_t counter : {int64_t{0}, int64_t{0}, int64_t{0}, int64_t{0}, int64_t{0}, processed}) b += le(counter, 8);
    b += std::string(1, '\0') + le(0, 4) + le(volumes.size(), 4);
    for (auto& v : volumes) b += le(v.first, 4) + le(static_cast<uint32_t>(v.second), 4) + le(0xFFFFFFFFu, 4);
    writeState("resumeInfo", b);
  }
  // The change tracking state of drive C: that a stop leaves behind, with the
  // changes still pending (paths relative to the root).
  void writeTrackingState(bool watching, const std::vector<std::wstring>& pending = {}) {
    std::string b = ustring(L"VCHANGEMAN") + std::string(1, watching ? '\1' : '\0');
    if (watching) b += le(pending.size(), 4);
    for (const std::wstring& path : pending) b += ustring(path) + le(1, 4);
    writeState("changeTrack_C_manual", b);
  }
  // A volume whose free space is all in `freePieces` pieces of ten clusters,
  // with a file "stuck" (and "stuck2" when asked) of twenty clusters in two
  // pieces that no free run can hold, and "a" (one cluster, which comes first
  // in every pass). With 1000 pieces the free space is far larger than the
  // file; with 50 it is not.
  std::shared_ptr<SimDisk> stuckDisk(uint64_t freePieces, bool second = false) {
    SimGeometry g;
    g.totalClusters = 32768;
    auto disk = std::make_shared<SimDisk>(g);
    SimRun a, b, one;
    a.vcn = a.lcn = 0;
    a.length = b.length = 10;
    b.vcn = 10;
    b.lcn = 20;
    one.lcn = 40;
    one.length = 1;
    EXPECT_EQ(disk->placeFile(L"stuck", 0, 20 * 4096, {a, b}), 0u);
    EXPECT_EQ(disk->placeFile(L"a", 0, 4096, {one}), 0u);
    if (second) {
      a.lcn = 10;
      b.lcn = 30;
      EXPECT_EQ(disk->placeFile(L"stuck2", 0, 20 * 4096, {a, b}), 0u);
    }
    for (uint64_t lcn = 0; lcn < g.totalClusters; ++lcn) {
      bool free = lcn >= 50 && (lcn - 50) % 20 < 10 && (lcn - 50) / 20 < freePieces;
      if (!free) disk->reserveSystemClusters(lcn, 1);  // fails, harmlessly, under the files
    }
    return disk;
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

TEST_F(SmartDriverTest, AFragmentedVolumeGetsCleanThenReactModeTreatsChangedFilesUntilTrackingGivesUp) {
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

  // More than 20000 files change before the next react step (the engine is
  // paused meanwhile, outside its react steps): the watcher gives up, and the
  // volume is scanned again.
  owner->pause(true);
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  for (int i = 0; i < 25000; ++i) ASSERT_EQ(disk->createFile(L"n" + std::to_wstring(i), 0), 0u);
  std::this_thread::sleep_for(std::chrono::milliseconds(2500));  // the watcher reads them all
  owner->pause(false);
  ASSERT_TRUE(waitUntil([&] { return logged("Finished Scan pass", "C:") == 2; }));
  EXPECT_EQ(logged("Change tracking invalidated. Switching to scan mode.", "C:"), 1u);
  for (auto& e : recorder->seen()) {
    if (e.message == "Change tracking invalidated. Switching to scan mode.") EXPECT_EQ(e.priority, kLogAlert);
  }
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

TEST_F(SmartDriverTest, PassesAreJudgedIntoReactScanOrPanicMode) {
  struct Case {
    const char* name;
    uint64_t freePieces;
    bool refragmentEachPass;  // a user breaks "zz" into pieces again as each pass begins
    std::vector<std::string> pass, panicPass;
    bool endsInReact;
    size_t clean, panics, givesUp;
  } cases[] = {
      // "stuck" fails only for lack of space: the volume counts as clean.
      {"space only", 50, false, {"0"}, {"-1"}, true, 1, 0, 0},
      // Three standard passes, three panic passes, then it gives up.
      {"stays fragmented", 1000, false, {"0", "1", "2", "3", "4", "5"}, {"-1", "-1", "-1", "0", "1", "2"}, true, 0, 3, 1},
      // At least 1 % of the files change in every pass: it keeps scanning
      // without escalating, whatever the pass number.
      {"keeps changing", 1000, true, {"0", "1", "2", "3", "4", "5"}, {"-1", "-1", "-1", "-1", "-1", "-1"}, false, 0, 0, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    nextCase();
    env.useManualClock(1000);
    auto disk = addDrive(L'C', stuckDisk(c.freePieces));
    if (c.refragmentEachPass) {
      probe->beforeOpen = [disk](const std::wstring& path) {
        if (path != L"C:\\a") return;
        disk->deleteFile(L"zz");
        disk->deleteFile(L"zz.pad");
        ASSERT_EQ(disk->createFile(L"zz", 5 * 4096), 0u);
        ASSERT_EQ(disk->createFile(L"zz.pad", 4096), 0u);
        ASSERT_EQ(disk->appendFile(L"zz", 5 * 4096), 0u);
      };
    }
    start();
    ASSERT_TRUE(waitUntil([&] {
      return passes("Pass").size() >= c.pass.size() && (!c.endsInReact || volumeMode(L'C') == 1);
    }));
    stop();
    std::vector<std::string> pass = passes("Pass"), panicPass = passes("PanicPass");
    if (!c.endsInReact) {  // it goes on scanning: look at the first passes
      pass.resize(c.pass.size());
      panicPass.resize(c.panicPass.size());
    }
    EXPECT_EQ(pass, c.pass);
    EXPECT_EQ(panicPass, c.panicPass);
    EXPECT_EQ(pieces(*disk, L"stuck"), 2u);
    EXPECT_EQ(logged("Volume is clean. Switching to react mode", "C:"), c.clean);
    EXPECT_EQ(logged("Unable to defragment all files in standard mode. Activating panic mode", "C:"), c.panics);
    EXPECT_EQ(logged("Unable to defragment all files in panic mode. Giving up for now...", "C:"), c.givesUp);
    if (c.name == std::string("space only")) {
      EXPECT_EQ(passes("Non-Defraggable"), std::vector<std::string>{"1"});
      EXPECT_EQ(passes("Non-Defraggable because of pure space reasons"), std::vector<std::string>{"1"});
    }
  }
}

TEST_F(SmartDriverTest, AResumePointIsFollowedOnlyOnItsDriveAndOnlyWithItsChangeRecord) {
  // f0 .. f7 in the root; an earlier run stopped at f3 of pass 4 with 1000
  // files counted.
  struct Case {
    const char* name;
    std::wstring resumePath;
    bool trackingSaved;
    std::wstring firstOpened;
    std::string pass, processed;
  } cases[] = {
      // The resume drive is no longer enabled: a fresh pass, counted from zero.
      {"drive gone", L"E:\\f3", true, L"C:\\f0", "5", "8"},
      // Without its change record the interrupted pass is not trusted.
      {"no change record", L"C:\\f3", false, L"C:\\f0", "5", "8"},
      // With it, the pass goes on at f3, keeping its number and counters.
      {"resumed", L"C:\\f3", true, L"C:\\f3", "4", "1005"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    nextCase();
    env.useManualClock(1000);
    addDrive(L'C', fragmentedDisk());
    writeResumeInfo(c.resumePath, 1000, {{L'C', 4}, {L'E', 9}});
    if (c.trackingSaved) writeTrackingState(true);
    start();
    ASSERT_TRUE(waitUntil([&] { return !passes("Pass").empty(); }));
    stop();
    ASSERT_FALSE(probe->openedPaths().empty());
    EXPECT_EQ(probe->openedPaths()[0], c.firstOpened);
    EXPECT_EQ(passes("Pass")[0], c.pass);
    EXPECT_EQ(passes("Processed")[0], c.processed);
  }
}

TEST_F(SmartDriverTest, AStopDuringTheRetryOfDeferredFilesStartsAFreshPassNextTime) {
  env.useManualClock(1000);
  addDrive(L'C', stuckDisk(1000, true));
  // Both stuck files are deferred by the walk and retried after it; the stop
  // comes while the second is retried, after the first one's retry is done.
  std::atomic<int> stuckOpens{0};
  std::thread stopper;
  probe->beforeOpen = [&](const std::wstring& path) {
    if (path != L"C:\\stuck2" || ++stuckOpens != 2) return;
    stopper = std::thread([this] { owner->stop(); });
    std::this_thread::sleep_for(std::chrono::milliseconds(200));  // the stop request is made
    env.advanceClock(1000);                                       // and the next check sees it
  };
  start();
  ASSERT_TRUE(waitUntil([&] { return stuckOpens.load() >= 2; }));
  stopper.join();
  owner.reset();
  EXPECT_EQ(logged("Finished Scan pass"), 0u);
  EXPECT_EQ(savedResumePath(), L"");

  probe->beforeOpen = nullptr;
  start();
  ASSERT_TRUE(waitUntil([&] { return !passes("Pass").empty(); }));
  stop();
  EXPECT_EQ(passes("Pass")[0], "1");  // not pass 0 resumed
}

TEST_F(SmartDriverTest, ReactModeSevenDaysOldForcesAScan) {
  struct Case {
    const char* name;
    uint64_t ageMs;
    size_t resets;
  } cases[] = {
      {"younger", 7ull * 86400000 - 1, 0},
      {"seven days", 7ull * 86400000, 1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    nextCase();
    env.useManualClock(1000);
    env.setLocalTime(SYSTEMTIME{2026, 11, 1, 23, 12, 0, 0, 0});
    auto disk = addDrive(L'C', fragmentedDisk());
    {
      CRegistryStore store(HKEY_LOCAL_MACHINE);
      CRegistryKey key = store.key(kKeyPath, KEY_ALL_ACCESS, true);
      key.setDword(std::string("volumeModeVersion"), 1);
      key.setDword(L"volumeMode_C", 1);
      key.setQword(L"volumeModeTime_C", env.fileTimeNow() - c.ageMs * 10000);
    }
    // A change made before the engine stopped is treated either way; only the
    // old mode scans the volume (and joins the eight files left in pieces).
    userWritesFragmented(*disk, L"new.txt", 6);
    writeTrackingState(true, {L"new.txt"});
    start();
    ASSERT_TRUE(waitUntil([&] { return pieces(*disk, L"new.txt") == 1; }));
    stop();
    EXPECT_EQ(logged("Resetting volume mode to scan mode because of react mode age.", "C:"), c.resets);
    EXPECT_EQ(passes("Pass").size(), c.resets);
    EXPECT_EQ(disk->stats().fragmentedFiles, c.resets == 1 ? 0u : 8u);
  }
}

}  // namespace
}  // namespace glidewell
