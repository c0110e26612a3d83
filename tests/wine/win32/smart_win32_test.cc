// Change tracking and the smart driver on Windows itself (under Wine): catches
// a watcher that misses a file created and then appended on a real drive, or
// records it with the wrong kind, and volume-mode values that are not stored
// with their registry types or that a run unable to open its volume disturbs.
#include <gtest/gtest.h>

#include <windows.h>

#include <chrono>
#include <cwctype>
#include <thread>

#include "changes/manual_change_tracker.h"
#include "config/dfrg_statistics.h"
#include "config/registry_store.h"
#include "engine/dfrg_exception.h"
#include "engine/engine.h"
#include "engine/system_drives.h"
#include "platform/drive_provider.h"
#include "platform/registry_backend.h"
#include "sim/sim_change_source.h"
#include "sim/sim_disk.h"
#include "sim/sim_drives.h"
#include "volume/volume_system.h"

namespace glidewell {
namespace {

// The key the smart-driver test uses (its volume modes are below
// HKEY_LOCAL_MACHINE); ctest reads them back from the prefix's system.reg.
const char kSmartKey[] = "Software\\quorvane\\Glidewell Wine Smart Driver";

std::wstring scratchDirectory(const wchar_t* name) {
  std::wstring dir = L"C:\\" + std::wstring(name) + L"-" + std::to_wstring(::GetCurrentProcessId());
  ::CreateDirectoryW(dir.c_str(), nullptr);
  return dir;
}

std::wstring lower(std::wstring s) {
  for (wchar_t& c : s) c = static_cast<wchar_t>(std::towlower(c));
  return s;
}

// Takes the pending changes until `path` turns up; its isNew, or -1 when it
// does not within five seconds.
int waitForChange(CManualChangeTracker& tracker, const std::wstring& path) {
  for (int i = 0; i < 100; ++i) {
    tracker.lock();
    int found = -1;
    for (int rc = tracker.nextChange(); rc == kChangeAvailable && found < 0; rc = tracker.nextChange()) {
      ChangeEntry change;
      if (tracker.getCurrentChange(change) == kChangeAvailable && lower(change.path) == lower(path)) {
        found = change.isNew;
      }
    }
    tracker.unlock();
    if (found >= 0) return found;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  return -1;
}

TEST(Win32ChangeTracking, AFileCreatedThenAppendedOnDriveCReachesTheTracker) {
  // In the root directory of C:: below it, Wine did not report changes in
  // directories that existed before the watch began.
  std::wstring base = L"C:\\glidewell-watch-" + std::to_wstring(::GetCurrentProcessId());
  std::wstring file = base + L".txt";
  addSystemDriveProviders();  // the drive list that serves C:'s change source
  {
    CManualChangeTracker tracker(L'C', base + L"-changeTrack_C");
    tracker.startTracking();
    HANDLE h = ::CreateFileW(file.c_str(), GENERIC_WRITE, FILE_SHARE_READ, nullptr, CREATE_NEW, 0, nullptr);
    ASSERT_NE(h, INVALID_HANDLE_VALUE);
    ::CloseHandle(h);
    EXPECT_EQ(waitForChange(tracker, file), 1) << "the creation (action 1) did not arrive";

    h = ::CreateFileW(file.c_str(), FILE_APPEND_DATA, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
    ASSERT_NE(h, INVALID_HANDLE_VALUE);
    DWORD written = 0;
    ASSERT_TRUE(::WriteFile(h, "appended", 8, &written, nullptr));
    ::CloseHandle(h);
    EXPECT_EQ(waitForChange(tracker, file), 0) << "the append (action 3) did not arrive";
    EXPECT_NE(tracker.nextChange(), kTrackingInvalidated) << "the watcher ended";
    tracker.stopTracking();
  }
  ::DeleteFileW(file.c_str());
  ::DeleteFileW((base + L"-changeTrack_C_manual").c_str());
}

// Drive S: is a simulated disk, its changes reported as the disk makes them;
// the rest of the machine is Windows (Wine).
class DriveS : public DriveProvider {
 public:
  DWORD drives() override { return 1u << ('S' - 'A'); }
  UINT driveType(wchar_t letter) override { return isS(letter) ? DRIVE_FIXED : DRIVE_NO_ROOT_DIR; }
  bool volumeLabel(wchar_t letter, std::wstring* label) override {
    *label = L"Simulated";
    return isS(letter);
  }
  // Throws -1 once the disk has vanished.
  std::unique_ptr<CVolumeSystem> openVolume(wchar_t letter) override {
    return SimDrives::instance().open(letter, nullptr, nullptr);
  }
  std::unique_ptr<ChangeSource> openChangeSource(wchar_t letter) override { return openSimChangeSource(letter); }

 private:
  static bool isS(wchar_t letter) { return std::towupper(letter) == L'S'; }
};

int32_t reportedError = 0;
void rememberError(int32_t code, const char*) { reportedError = code; }

struct ModeValue {
  DWORD type = 0;
  std::vector<BYTE> data;
  bool operator==(const ModeValue& o) const { return type == o.type && data == o.data; }
};

ModeValue machineValue(const std::wstring& name) {
  std::shared_ptr<RegistryBackend> reg = RegistryBackend::system();
  HKEY key = nullptr;
  ModeValue v;
  if (reg->openKey(HKEY_LOCAL_MACHINE, kSmartKey, KEY_READ, &key) != ERROR_SUCCESS) return v;
  reg->queryValue(key, name, &v.type, &v.data);
  reg->closeKey(key);
  return v;
}

TEST(Win32SmartDriver, ModeValuesKeepTheirTypesAndOutliveARunThatCannotOpenItsVolume) {
  SimGeometry g;
  g.totalClusters = 4096;
  auto disk = std::make_shared<SimDisk>(g);
  SimRun a, b;
  a.lcn = 0;
  a.length = b.length = 8;
  b.vcn = 8;
  b.lcn = 100;
  ASSERT_EQ(disk->placeFile(L"broken", 0, 16 * 4096, {a, b}), 0u);
  SimDrives::instance().plug(L'S', disk);
  auto driveS = std::make_shared<DriveS>();
  addDriveProvider(driveS, true);
  std::wstring installDir = scratchDirectory(L"glidewell-smart") + L"\\";
  CDfrgStatistics::create(HKEY_CURRENT_USER, kSmartKey);
  Event done(true, false);

  // First run: the volume is scanned clean, and react mode stored.
  {
    engine owner(&done, kSmartKey, HKEY_CURRENT_USER, installDir);
    owner.setErrorCallback(&rememberError);
    owner.start(false, kDefragModeSmart);
    for (int i = 0; i < 200 && machineValue(L"volumeMode_S").data != std::vector<BYTE>{1, 0, 0, 0}; ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
  }
  ModeValue mode = machineValue(L"volumeMode_S"), time = machineValue(L"volumeModeTime_S"),
            version = machineValue(L"volumeModeVersion");
  EXPECT_EQ(mode.type, static_cast<DWORD>(REG_DWORD));
  EXPECT_EQ(mode.data, (std::vector<BYTE>{1, 0, 0, 0}));
  EXPECT_EQ(time.type, static_cast<DWORD>(REG_QWORD));
  EXPECT_EQ(time.data.size(), 8u);
  EXPECT_EQ(version.type, static_cast<DWORD>(REG_DWORD));
  EXPECT_EQ(version.data, (std::vector<BYTE>{1, 0, 0, 0}));

  // Second run: the volume is gone; the run ends for want of a volume and
  // leaves the stored mode as it was.
  disk->setVanished(true);
  reportedError = 0;
  done.reset();
  {
    engine owner(&done, kSmartKey, HKEY_CURRENT_USER, installDir);
    owner.setErrorCallback(&rememberError);
    owner.start(false, kDefragModeSmart);
    EXPECT_EQ(done.wait(5000), WaitResult::kSignaled);
  }
  EXPECT_EQ(reportedError, ErrorNoVolumesSelected);
  EXPECT_TRUE(machineValue(L"volumeMode_S") == mode);
  EXPECT_TRUE(machineValue(L"volumeModeTime_S") == time);
  CDfrgStatistics::destroy();
  removeDriveProvider(driveS.get());
  SimDrives::instance().unplug(L'S');
}

}  // namespace
}  // namespace glidewell
