// The change tracker over a simulated drive: what the watcher records, the
// cursor of the driver, the limit of pending paths, and the state file that
// carries tracking over a restart.
#include <gtest/gtest.h>

#include <chrono>
#include <fstream>
#include <iterator>
#include <thread>

#include "changes/manual_change_tracker.h"
#include "engine/dfrg_exception.h"
#include "sim/posix/sim_drive_provider.h"
#include "sim/sim_disk.h"
#include "sim/sim_drives.h"
#include "sim/sim_notify.h"
#include "support/temp_dir.h"

namespace glidewell {

class ManualChangeTrackerTestPeer {
 public:
  static bool collect(CManualChangeTracker& t, const std::vector<uint8_t>& records) { return t.collect(records); }
  // The kind of a pending change (-1 when none), without moving the cursor.
  static int kindOf(CManualChangeTracker& t, const std::u16string& relative) {
    ScopedLock guard(t.lock_);
    auto it = t.changes_.find(relative);
    return it == t.changes_.end() ? -1 : it->second;
  }
};

namespace {

constexpr wchar_t kLetter = L'T';

std::string le32(int32_t v) {
  std::string s(4, '\0');
  for (int i = 0; i < 4; ++i) s[i] = static_cast<char>(static_cast<uint32_t>(v) >> (8 * i));
  return s;
}
std::string ustring(const std::string& ascii) {
  std::string s = le32(static_cast<int32_t>(ascii.size()));
  for (char c : ascii) s += std::string{c, '\0'};
  return s;
}

class ChangeTrackerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    SimGeometry g;
    g.totalClusters = 4096;
    disk = std::make_shared<SimDisk>(g);
    SimDrives::instance().plug(kLetter, disk);
    addDriveProvider(SimDriveProvider::instance());
    tracker = std::make_unique<CManualChangeTracker>(kLetter, dir.path() + L"changeTrack_T");
  }
  void TearDown() override {
    tracker.reset();
    SimDrives::instance().unplug(kLetter);
  }

  std::string stateBytes() {
    std::ifstream in(dir.file("changeTrack_T_manual"), std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
  }
  void writeState(const std::string& bytes) {
    std::ofstream out(dir.file("changeTrack_T_manual"), std::ios::binary | std::ios::trunc);
    out << bytes;
  }
  // Waits (up to 3 s) until the watcher has recorded path with the given kind.
  bool waitFor(const std::u16string& relative, int isNew) {
    for (int i = 0; i < 300; ++i) {
      if (ManualChangeTrackerTestPeer::kindOf(*tracker, relative) == isNew) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
  }
  // Every pending change, consuming them.
  std::vector<ChangeEntry> drain() {
    std::vector<ChangeEntry> out;
    int rc = tracker->nextChange();
    while (rc == kChangeAvailable) {
      ChangeEntry e;
      if (tracker->getCurrentChange(e) != kChangeAvailable) break;
      out.push_back(e);
      rc = tracker->nextChange();
    }
    return out;
  }

  TempDir dir;
  std::shared_ptr<SimDisk> disk;
  std::unique_ptr<CManualChangeTracker> tracker;
};

TEST_F(ChangeTrackerTest, CreatedThenModifiedIsOneChangeThatIsNotNew) {
  ASSERT_EQ(disk->createFile(L"old.txt", 4096), 0u);
  ASSERT_EQ(disk->createFile(L"gone.txt", 4096), 0u);
  tracker->startTracking();
  ASSERT_EQ(disk->createDirectory(L"dir"), 0u);
  ASSERT_EQ(disk->createFile(L"dir\\a.txt", 4096), 0u);
  ASSERT_EQ(disk->appendFile(L"dir\\a.txt", 4096), 0u);
  ASSERT_EQ(disk->renameFile(L"old.txt", L"new.txt"), 0u);
  ASSERT_EQ(disk->deleteFile(L"gone.txt"), 0u);
  ASSERT_EQ(disk->createFile(L"zz", 0), 0u);  // changes arrive in order: this one last
  ASSERT_TRUE(waitFor(u"zz", 1));
  EXPECT_EQ(ManualChangeTrackerTestPeer::kindOf(*tracker, u"dir\\a.txt"), 0);
  // Deleted and renamed files are not recorded; the directory is not either.
  std::vector<ChangeEntry> all = drain();
  ASSERT_EQ(all.size(), 2u);
  EXPECT_EQ(all[0].path, L"T:\\dir\\a.txt");
  EXPECT_EQ(all[0].isNew, 0);
  // A renamed file is recorded once its size changes.
  ASSERT_EQ(disk->appendFile(L"new.txt", 4096), 0u);
  EXPECT_TRUE(waitFor(u"new.txt", 0));
}

TEST_F(ChangeTrackerTest, TrackingStartsAgainAfterAStop) {
  tracker->startTracking();
  tracker->stopTracking();
  EXPECT_FALSE(tracker->isWatching());
  ChangeEntry e;
  EXPECT_EQ(tracker->getCurrentChange(e), kTrackingInvalidated);
  EXPECT_EQ(tracker->nextChange(), kTrackingInvalidated);
  EXPECT_EQ(stateBytes().size(), 25u);
  tracker->startTracking();
  EXPECT_EQ(stateBytes(), ustring("VCHANGEMAN") + '\1' + le32(0));
  ASSERT_EQ(disk->createFile(L"b", 0), 0u);
  EXPECT_TRUE(waitFor(u"b", 1));
}

TEST_F(ChangeTrackerTest, ARootThatCannotBeOpenedInvalidatesTracking) {
  disk->setVanished(true);
  tracker->startTracking();
  int rc = kChangeAvailable;
  for (int i = 0; i < 300 && rc != kTrackingInvalidated; ++i) {
    rc = tracker->nextChange();
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  EXPECT_EQ(rc, kTrackingInvalidated);
}

TEST_F(ChangeTrackerTest, TheCursorKeepsAChangeUntilTheNextCall) {
  tracker->startTracking();
  EXPECT_EQ(tracker->nextChange(), kNoChangePending);
  ASSERT_TRUE(ManualChangeTrackerTestPeer::collect(*tracker, encodeNotifyRecords({{1, u"one"}})));
  EXPECT_EQ(tracker->nextChange(), kChangeAvailable);
  EXPECT_EQ(tracker->pendingCount(), 1u);
  ChangeEntry e;
  ASSERT_EQ(tracker->getCurrentChange(e), kChangeAvailable);
  EXPECT_EQ(e.path, L"T:\\one");
  EXPECT_EQ(e.isNew, 1);
  EXPECT_EQ(tracker->nextChange(), kNoChangePending);
  EXPECT_EQ(tracker->pendingCount(), 0u);
  // Ordered by UTF-16 code units: "B" < "a" < "ab".
  ASSERT_TRUE(ManualChangeTrackerTestPeer::collect(*tracker, encodeNotifyRecords({{1, u"ab"}, {3, u"a"}, {1, u"B"}})));
  std::vector<ChangeEntry> all = drain();
  ASSERT_EQ(all.size(), 3u);
  EXPECT_EQ(all[0].path, L"T:\\B");
  EXPECT_EQ(all[1].path, L"T:\\a");
  EXPECT_EQ(all[2].path, L"T:\\ab");
}

TEST_F(ChangeTrackerTest, TwentyThousandPathsAreKeptOneMoreInvalidates) {
  tracker->startTracking();
  std::vector<SimChange> batch;
  for (int i = 0; i < 20000; ++i) {
    std::string name = "f" + std::to_string(i);
    batch.push_back({1, std::u16string(name.begin(), name.end())});
  }
  ASSERT_TRUE(ManualChangeTrackerTestPeer::collect(*tracker, encodeNotifyRecords(batch)));
  EXPECT_EQ(tracker->pendingCount(), 20000u);
  // A path already pending does not count twice.
  EXPECT_TRUE(ManualChangeTrackerTestPeer::collect(*tracker, encodeNotifyRecords({{3, u"f7"}})));
  EXPECT_FALSE(ManualChangeTrackerTestPeer::collect(*tracker, encodeNotifyRecords({{1, u"one more"}})));
  // A truncated record chain stops without reading past the end.
  std::vector<uint8_t> cut = encodeNotifyRecords({{1, u"x"}});
  cut.resize(13);
  EXPECT_TRUE(ManualChangeTrackerTestPeer::collect(*tracker, cut));
}

TEST_F(ChangeTrackerTest, ResumeFromAStateFile) {
  // Watching with no changes: resumes with an empty set.
  writeState(ustring("VCHANGEMAN") + '\1' + le32(0));
  EXPECT_TRUE(tracker->resumeTracking());
  EXPECT_TRUE(tracker->isWatching());
  EXPECT_EQ(tracker->pendingCount(), 0u);
  // Resuming while watching is true at once and reads nothing.
  writeState("garbage");
  EXPECT_TRUE(tracker->resumeTracking());
  tracker->stopTracking();

  // Not watching: the resume fails and the file stays as it was.
  std::string notWatching = ustring("VCHANGEMAN") + '\0';
  writeState(notWatching);
  EXPECT_FALSE(tracker->resumeTracking());
  EXPECT_EQ(stateBytes(), notWatching);

  // Duplicates: one change, with the later kind.
  writeState(ustring("VCHANGEMAN") + '\1' + le32(3) + ustring("a") + le32(1) + ustring("b") + le32(1) +
             ustring("a") + le32(0));
  EXPECT_TRUE(tracker->resumeTracking());
  std::vector<ChangeEntry> all = drain();
  ASSERT_EQ(all.size(), 2u);
  EXPECT_EQ(all[0].path, L"T:\\a");
  EXPECT_EQ(all[0].isNew, 0);
  tracker->stopTracking();
}

TEST_F(ChangeTrackerTest, DamagedStateFilesFailTheResume) {
  std::string good = ustring("VCHANGEMAN") + '\1' + le32(2) + ustring("a") + le32(1) + ustring("bcd") + le32(0);
  // The last entry cut short: replaced by a file saying tracking is not running.
  writeState(good.substr(0, good.size() - 3));
  EXPECT_FALSE(tracker->resumeTracking());
  EXPECT_FALSE(tracker->isWatching());
  EXPECT_EQ(stateBytes(), ustring("VCHANGEMAN") + '\0');
  // Another letter case, a hostile count, a hostile path length.
  for (std::string bad : {ustring("vchangeman") + '\1' + le32(0),
                          ustring("VCHANGEMAN") + '\1' + le32(0x7fffffff) + ustring("a") + le32(1),
                          ustring("VCHANGEMAN") + '\1' + le32(1) + le32(0x40000000) + "a",
                          ustring("VCHANGEMAN") + '\1' + le32(-1), std::string("\x0a")}) {
    writeState(bad);
    EXPECT_FALSE(tracker->resumeTracking());
    EXPECT_EQ(stateBytes().size(), 25u);
  }
  // No file: fails, and none is written.
  std::remove(dir.file("changeTrack_T_manual").c_str());
  EXPECT_FALSE(tracker->resumeTracking());
  EXPECT_TRUE(stateBytes().empty());
}

TEST_F(ChangeTrackerTest, PendingChangesSurviveTheTrackerAndFailuresThrow) {
  tracker->startTracking();
  ASSERT_TRUE(ManualChangeTrackerTestPeer::collect(*tracker, encodeNotifyRecords({{1, u"x"}, {3, u"y"}})));
  tracker.reset();  // saves the pending changes
  tracker = std::make_unique<CManualChangeTracker>(kLetter, dir.path() + L"changeTrack_T");
  EXPECT_TRUE(tracker->resumeTracking());
  EXPECT_EQ(tracker->pendingCount(), 2u);

  CManualChangeTracker nowhere(kLetter, dir.path() + L"missing\\changeTrack_T");
  try {
    nowhere.startTracking();
    FAIL() << "no exception";
  } catch (const CDfrgException& e) {
    EXPECT_EQ(e.code, ErrorOpenFile);
    EXPECT_EQ(e.message, "Couldn't open volume change tracking state file.");
  }
}

}  // namespace
}  // namespace glidewell
