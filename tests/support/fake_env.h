// FakeEnv: an Env for tests. It passes everything to the system's Env except
// what a test takes over: a manual millisecond clock, a fixed local time, and
// drives whose volumes come from factories (simulated disks, or volumes that
// fail on purpose). The drives answer the Env's drive questions and, through
// a provider in the process's drive list while the FakeEnv lives, the
// engine's opens. ScopedEnv installs one for a test's scope.
#ifndef GLIDEWELL_TESTS_SUPPORT_FAKE_ENV_H_
#define GLIDEWELL_TESTS_SUPPORT_FAKE_ENV_H_

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "platform/drive_provider.h"
#include "platform/env.h"
#include "volume/volume_system.h"

namespace glidewell {

class FakeEnv : public EnvWrapper {
 public:
  using VolumeFactory = std::function<std::unique_ptr<CVolumeSystem>()>;

  FakeEnv();
  ~FakeEnv() override;

  // --- what tests take over ---
  void useManualClock(uint32_t startMs) {
    manualClock_ = true;
    clockMs_ = startMs;
  }
  void advanceClock(uint32_t ms) { clockMs_ += ms; }
  void setLocalTime(const SYSTEMTIME& t) {
    std::lock_guard<std::mutex> g(mutex_);
    localTime_ = t;
    fixedLocalTime_ = true;
  }
  // A fixed drive with a label; the factory makes its volume (it may throw).
  void addDrive(wchar_t letter, std::wstring label, VolumeFactory factory, UINT type = DRIVE_FIXED);
  void removeDrive(wchar_t letter);
  int openedVolumes() const { return opened_.load(); }

  // --- Env ---
  uint32_t timeGetTime() override { return manualClock_ ? clockMs_.load() : base_->timeGetTime(); }
  uint32_t tickCount() override { return timeGetTime(); }
  SYSTEMTIME localTime() override;
  uint64_t fileTimeNow() override;
  void sleep(uint32_t ms) override;
  DWORD logicalDrives() override;
  UINT driveType(const std::wstring& rootPath) override;
  bool volumeLabel(const std::wstring& rootPath, std::wstring* label) override;
  // What the engine's open of a drive letter does (drive_volume.h).
  std::unique_ptr<CVolumeSystem> openVolume(wchar_t driveLetter);

 private:
  struct Drive {
    std::wstring label;
    VolumeFactory factory;
    UINT type;
  };

  Env* base_;
  std::mutex mutex_;
  std::atomic<bool> manualClock_{false};
  std::atomic<uint32_t> clockMs_{0};
  bool fixedLocalTime_ = false;
  SYSTEMTIME localTime_{};
  std::map<wchar_t, Drive> drives_;
  std::atomic<int> opened_{0};
  std::shared_ptr<DriveProvider> provider_;
};

// Installs an Env for the lifetime of the object, then restores the previous one.
class ScopedEnv {
 public:
  explicit ScopedEnv(Env* env) : previous_(Env::current()) { Env::setCurrent(env); }
  ~ScopedEnv() { Env::setCurrent(previous_ == Env::system() ? nullptr : previous_); }
  ScopedEnv(const ScopedEnv&) = delete;
  ScopedEnv& operator=(const ScopedEnv&) = delete;

 private:
  Env* previous_;
};

}  // namespace glidewell

#endif  // GLIDEWELL_TESTS_SUPPORT_FAKE_ENV_H_
