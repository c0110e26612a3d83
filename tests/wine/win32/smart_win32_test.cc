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
#include "platform/env.h"
#include "platform/registry_backend.h"
#include "sim/sim_disk.h"
#include "sim/sim_volume_system.h"

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

// Drive S: is a simulated disk; the rest of the machine is Windows (Wine).
class SimulatedDriveS : public EnvWrapper {
 public:
  explicit SimulatedDriveS(std::shared_ptr<SimDisk> disk) : EnvWrapper(Env::system()), disk_(std::move(disk)) {}
  DWORD logicalDrives() override { return 1u << ('S' - 'A'); }
  UINT driveType(const std::wstring& root) override { return isS(root) ? DRIVE_FIXED : DRIVE_NO_ROOT_DIR; }
  bool volumeLabel(const std::wstring& root, std::wstring* label) override {
    *label = L"Simulated";
    return isS(root);
  }
  std::unique_ptr<CVolumeSystem> openVolume(wchar_t letter) override {
    if (std::towupper(letter) != L'S') throw CDfrgException(ErrorVolumeUnavailable, "no such drive");
    return std::make_unique<SimVolumeSystem>(disk_, L'S');  // throws -1 once the disk has vanished
  }

 private:
  static bool isS(const std::wstring& root) { return !root.empty() && std::towupper(root[0]) == L'S'; }
  std::shared_ptr<SimDisk> disk_;
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
  SimulatedDriveS env(disk);
  Env::setCurrent(&env);
  std::wstring installDir = scratchDirectory(L"glidewell-smart") + L"\\";
  CDfrgStatistics::create(HKEY_CURRENT_USER, kSmartKey);
  Event done(true, false);

  // First run: the volume is scanned clean, and its mode stored.
  {
    engine owner(&done, kSmartKey, HKEY_CURRENT_USER, installDir);
    owner.setErrorCallback(&rememberError);
    owner.start(false, kDefragModeSmart);
    for (int i = 0; i < 200 && machineValue(L"volumeModeTime_S").data.empty(); ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
  }
  ModeValue mode = machineValue(L"volumeMode_S"), time = machineValue(L"volumeModeTime_S"),
            version = machineValue(L"volumeModeVersion");
  EXPECT_EQ(mode.type, static_cast<DWORD>(REG_DWORD));
  EXPECT_EQ(mode.data.size(), 4u);
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
  Env::setCurrent(nullptr);
}

}  // namespace
}  // namespace glidewell
