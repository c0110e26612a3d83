// The resume info file and the volume modes of the smart driver: what a save
// writes, and that a damaged or hostile file resets the pass state instead of
// loading half of it.
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <iterator>

#include "config/dfrg_config.h"
#include "config/dfrg_statistics.h"
#include "config/registry_store.h"
#include "engine/dfrg_thread.h"
#include "dfrg_thread_peer.h"
#include "platform/registry_backend.h"
#include "sim/sim_disk.h"
#include "sim/sim_volume_system.h"
#include "support/fake_env.h"
#include "support/temp_dir.h"

namespace glidewell {

namespace {

constexpr const char* kKeyPath = "SOFTWARE\\quorvane\\Quorvane Glidewell";

class ResumeInfoTest : public ::testing::Test {
 protected:
  void SetUp() override {
    RegistryBackend::setCurrent(RegistryBackend::newMemory());
    config = CDfrgConfig::detached(dir.path());
    worker.setConfig(config.get());
  }
  void TearDown() override { RegistryBackend::setCurrent(nullptr); }

  DfrgThread& withVolumes(const std::wstring& letters) {
    for (wchar_t l : letters) DfrgThreadTestPeer::addVolume(worker, l, config.get());
    return worker;
  }
  CDfrgContext& ctx(size_t i) { return DfrgThreadTestPeer::context(worker, i); }
  std::string fileBytes() {
    std::ifstream in(dir.file("resumeInfo"), std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
  }
  void writeBytes(const std::string& bytes) {
    std::ofstream out(dir.file("resumeInfo"), std::ios::binary | std::ios::trunc);
    out << bytes;
  }
  // A saved state with something in every field.
  void fillAndSave() {
    DfrgThreadTestPeer::resumePath(worker) = L"C:\\dir\\file.txt";
    DfrgThreadTestPeer::counters(worker).defragged = 1;
    DfrgThreadTestPeer::counters(worker).nonDefraggable = 2;
    DfrgThreadTestPeer::counters(worker).spaceOnly = 3;
    DfrgThreadTestPeer::counters(worker).errors = 4;
    DfrgThreadTestPeer::counters(worker).moved = 5;
    DfrgThreadTestPeer::counters(worker).processed = 6;
    DfrgThreadTestPeer::deferredOverflow(worker) = true;
    DfrgThreadTestPeer::deferred(worker) = {L"C:\\a", L"C:\\bb", L"C:\\ccc"};
    ctx(0).pass = 7;
    ctx(0).panicPass = 1;
    ASSERT_TRUE(worker.saveResumeInfo());
  }
  CRegistryKey key(CRegistryStore& store) { return store.key(kKeyPath, KEY_ALL_ACCESS, true); }
  void expectReset() {
    EXPECT_EQ(worker.resumePath(), L"");
    EXPECT_EQ(worker.passCounters().processed, 0);
    EXPECT_TRUE(worker.deferredFiles().empty());
    EXPECT_FALSE(worker.deferredOverflow());
    for (size_t i = 0; i < worker.contextCount(); ++i) {
      EXPECT_EQ(ctx(i).pass, -1);
      EXPECT_EQ(ctx(i).panicPass, -1);
    }
  }

  TempDir dir;
  std::unique_ptr<CDfrgConfig> config;
  DfrgThread worker{""};
};

std::string le32(int32_t v) {
  std::string s(4, '\0');
  for (int i = 0; i < 4; ++i) s[i] = static_cast<char>(static_cast<uint32_t>(v) >> (8 * i));
  return s;
}

TEST_F(ResumeInfoTest, SaveWritesTheFieldsInOrderAndLoadRestoresThem) {
  withVolumes(L"CD");
  ctx(1).pass = 2;
  ctx(1).panicPass = -1;
  fillAndSave();
  std::string bytes = fileBytes();
  // 4 version + (4+30) path + 48 counters + 1 + 4 + (4+8)+(4+10)+(4+12) + 4 + 2*12
  ASSERT_EQ(bytes.size(), 4u + 34 + 48 + 1 + 4 + 12 + 14 + 16 + 4 + 24);
  EXPECT_EQ(bytes.substr(0, 4), le32(3));
  EXPECT_EQ(bytes.substr(4, 4), le32(15));
  EXPECT_EQ(bytes.substr(bytes.size() - 24, 12), le32('C') + le32(7) + le32(1));

  worker.resetPassStatistics();
  DfrgThreadTestPeer::resumePath(worker).clear();
  ctx(0).pass = ctx(1).pass = 99;
  ASSERT_TRUE(worker.loadResumeInfo());
  EXPECT_EQ(worker.resumePath(), L"C:\\dir\\file.txt");
  EXPECT_EQ(worker.passCounters().defragged, 1);
  EXPECT_EQ(worker.passCounters().nonDefraggable, 2);
  EXPECT_EQ(worker.passCounters().spaceOnly, 3);
  EXPECT_EQ(worker.passCounters().errors, 4);
  EXPECT_EQ(worker.passCounters().moved, 5);
  EXPECT_EQ(worker.passCounters().processed, 6);
  EXPECT_TRUE(worker.deferredOverflow());
  EXPECT_EQ(worker.deferredFiles(), (std::vector<std::wstring>{L"C:\\a", L"C:\\bb", L"C:\\ccc"}));
  EXPECT_EQ(ctx(0).pass, 7);
  EXPECT_EQ(ctx(0).panicPass, 1);
  EXPECT_EQ(ctx(1).pass, 2);
  // A second load replaces the deferred list instead of adding to it.
  ASSERT_TRUE(worker.loadResumeInfo());
  EXPECT_EQ(worker.deferredFiles().size(), 3u);
}

TEST_F(ResumeInfoTest, MissingShortOrHostileFilesResetEverything) {
  withVolumes(L"C");
  // No file at all.
  DfrgThreadTestPeer::resumePath(worker) = L"C:\\x";
  ctx(0).pass = 4;
  EXPECT_FALSE(worker.loadResumeInfo());
  expectReset();

  fillAndSave();
  std::string good = fileBytes();
  // Every truncation of a good file is invalid.
  for (size_t cut = 0; cut < good.size(); cut += 7) {
    fillAndSave();
    writeBytes(good.substr(0, cut));
    EXPECT_FALSE(worker.loadResumeInfo()) << "cut at " << cut;
    expectReset();
  }
  // Another version.
  writeBytes(le32(2) + good.substr(4));
  EXPECT_FALSE(worker.loadResumeInfo());
  // A deferred count of 5 over three paths, and a count claiming two billion
  // entries: rejected without allocating for them.
  size_t countAt = 4 + 34 + 48 + 1;
  for (int32_t claimed : {5, 0x7fffffff, -1}) {
    writeBytes(good.substr(0, countAt) + le32(claimed) + good.substr(countAt + 4));
    EXPECT_FALSE(worker.loadResumeInfo()) << claimed;
    expectReset();
  }
  // A path length beyond the end of the file.
  writeBytes(le32(3) + le32(0x40000000) + good.substr(8));
  EXPECT_FALSE(worker.loadResumeInfo());
  expectReset();
}

TEST_F(ResumeInfoTest, RecordsOfVolumesNotEnabledAreIgnoredAndMissingOnesAreReset) {
  withVolumes(L"D");
  // A file saved by a run with C: and D:, D: carrying pass 3.
  ctx(0).pass = 3;
  ctx(0).panicPass = 0;
  ASSERT_TRUE(worker.saveResumeInfo());
  std::string bytes = fileBytes();
  std::string head = bytes.substr(0, bytes.size() - 16);
  writeBytes(head + le32(2) + le32('C') + le32(9) + le32(9) + bytes.substr(bytes.size() - 12));
  ctx(0).pass = 55;
  ASSERT_TRUE(worker.loadResumeInfo());
  EXPECT_EQ(ctx(0).pass, 3);
  EXPECT_EQ(ctx(0).panicPass, 0);
  // A file without a record for D: leaves D: at -1.
  writeBytes(head + le32(1) + le32('C') + le32(9) + le32(9));
  ASSERT_TRUE(worker.loadResumeInfo());
  EXPECT_EQ(ctx(0).pass, -1);
  EXPECT_EQ(ctx(0).panicPass, -1);
}

TEST_F(ResumeInfoTest, VolumeModesAreStoredWithTheirTimeAndAge) {
  FakeEnv env;
  ScopedEnv scoped(&env);
  SYSTEMTIME t{};
  t.wYear = 2026;
  t.wMonth = 3;
  t.wDay = 1;
  env.setLocalTime(t);
  withVolumes(L"C");
  double age = -1;
  EXPECT_EQ(worker.getVolumeMode(ctx(0), &age), kVolumeModeScan);
  EXPECT_EQ(age, 0.0);
  EXPECT_EQ(worker.setVolumeMode(ctx(0), kVolumeModeReact), kVolumeModeReact);
  t.wDay = 8;
  t.wHour = 12;
  env.setLocalTime(t);
  EXPECT_EQ(worker.getVolumeMode(ctx(0), &age), kVolumeModeReact);
  EXPECT_DOUBLE_EQ(age, 7.5);

  CRegistryStore store(HKEY_LOCAL_MACHINE);
  CRegistryKey k = key(store);
  DWORD mode = 9;
  EXPECT_TRUE(k.getDword(std::wstring(L"volumeMode_C"), mode, 9));
  EXPECT_EQ(mode, 1u);
  uint64_t when = 0;
  EXPECT_TRUE(k.getQword(std::wstring(L"volumeModeTime_C"), when, 0));
  EXPECT_NE(when, 0u);
  // A mode of the wrong type reads as scan, without an age.
  k.setString(L"volumeMode_C", L"1");
  EXPECT_EQ(worker.getVolumeMode(ctx(0), &age), kVolumeModeScan);
  EXPECT_EQ(age, 0.0);
}

TEST_F(ResumeInfoTest, MigrationDropsOldModeValuesButKeepsTimesAndOtherValues) {
  withVolumes(L"D");
  {
    CRegistryStore store(HKEY_LOCAL_MACHINE);
    CRegistryKey k = key(store);
    k.setDword(std::wstring(L"VOLUMEMODE_D"), 1);
    k.setDword(std::wstring(L"volumeMode_E"), 1);
    k.setQword(std::wstring(L"volumeModeTime_D"), 42);
    k.setDword(std::wstring(L"other"), 5);
  }
  worker.migrateVolumeModes();
  EXPECT_EQ(worker.getVolumeMode(ctx(0), nullptr), kVolumeModeScan);
  CRegistryStore store(HKEY_LOCAL_MACHINE);
  CRegistryKey k = key(store);
  DWORD v = 0;
  EXPECT_FALSE(k.getDword(std::wstring(L"volumeMode_E"), v, 0));
  EXPECT_TRUE(k.getDword(std::wstring(L"volumeModeVersion"), v, 0));
  EXPECT_EQ(v, 1u);
  EXPECT_TRUE(k.getDword(std::wstring(L"other"), v, 0));
  uint64_t q = 0;
  EXPECT_TRUE(k.getQword(std::wstring(L"volumeModeTime_D"), q, 0));
  EXPECT_EQ(q, 42u);
  // Once migrated, modes set afterwards survive the next start.
  worker.setVolumeMode(ctx(0), kVolumeModeReact);
  worker.migrateVolumeModes();
  EXPECT_EQ(worker.getVolumeMode(ctx(0), nullptr), kVolumeModeReact);
}

TEST_F(ResumeInfoTest, EngineStatusIsFourOnlyWhileEveryVolumeIsCleanAndIdle) {
  CDfrgStatistics::create(HKEY_CURRENT_USER, kKeyPath);
  CDfrgStatistics* stats = CDfrgStatistics::instance();
  ASSERT_NE(stats, nullptr);
  withVolumes(L"CD");
  stats->setStatus(3);
  worker.setVolumeMode(ctx(0), kVolumeModeReact);
  EXPECT_EQ(stats->getStatus(), 3);  // D: still scans
  worker.setVolumeMode(ctx(1), kVolumeModeReact);
  EXPECT_EQ(stats->getStatus(), 4);
  // Changed files being processed leave the idle state; a paused volume makes it 1.
  DfrgThreadTestPeer::reactInProgress(worker) = true;
  worker.updateEngineStatus();
  EXPECT_EQ(stats->getStatus(), 3);
  DfrgThreadTestPeer::reactInProgress(worker) = false;
  worker.updateEngineStatus();
  EXPECT_EQ(stats->getStatus(), 4);
  ctx(1).pause(true);
  worker.setVolumeMode(ctx(1), kVolumeModeScan);
  EXPECT_EQ(stats->getStatus(), 1);
  // Other states are left alone.
  stats->setStatus(2);
  worker.setVolumeMode(ctx(1), kVolumeModeReact);
  EXPECT_EQ(stats->getStatus(), 2);
  CDfrgStatistics::destroy();
}

}  // namespace
}  // namespace glidewell
