// FakeEnv: an Env for tests. It passes everything to the system's Env except
// what a test takes over: a manual millisecond clock, a fixed local time, and
// a drive list whose volumes come from factories (simulated disks, or
// volumes that fail on purpose). ScopedEnv installs one for a test's scope.
#ifndef GLIDEWELL_TESTS_SUPPORT_FAKE_ENV_H_
#define GLIDEWELL_TESTS_SUPPORT_FAKE_ENV_H_

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "platform/env.h"
#include "volume/volume_system.h"

namespace glidewell {

class FakeEnv : public Env {
 public:
  using VolumeFactory = std::function<std::unique_ptr<CVolumeSystem>()>;

  FakeEnv() : base_(Env::system()) {}

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
  void setInstallDirectory(const std::wstring& dir) override { base_->setInstallDirectory(dir); }
  std::wstring installDirectory() override { return base_->installDirectory(); }
  uint32_t timeGetTime() override { return manualClock_ ? clockMs_.load() : base_->timeGetTime(); }
  uint32_t tickCount() override { return timeGetTime(); }
  SYSTEMTIME localTime() override;
  bool systemTimeToFileTime(const SYSTEMTIME& t, uint64_t* ft) override { return base_->systemTimeToFileTime(t, ft); }
  uint64_t fileTimeNow() override;
  void sleep(uint32_t ms) override;
  std::unique_ptr<File> openFile(const std::wstring& path, FileOpen how, DWORD* error) override {
    return base_->openFile(path, how, error);
  }
  std::FILE* openStream(const std::wstring& path, const char* mode) override { return base_->openStream(path, mode); }
  bool createDirectory(const std::wstring& path) override { return base_->createDirectory(path); }
  bool deleteFile(const std::wstring& path) override { return base_->deleteFile(path); }
  std::wstring currentDirectory() override { return base_->currentDirectory(); }
  DWORD logicalDrives() override;
  UINT driveType(const std::wstring& rootPath) override;
  bool volumeLabel(const std::wstring& rootPath, std::wstring* label) override;
  std::unique_ptr<CVolumeSystem> openVolume(wchar_t driveLetter) override;
  std::unique_ptr<OsHandle> openPipeClient(const std::wstring& name, DWORD* error) override {
    return base_->openPipeClient(name, error);
  }
  bool waitNamedPipe(const std::wstring& name, uint32_t timeoutMs) override {
    return base_->waitNamedPipe(name, timeoutMs);
  }
  void exitProcess(int status) override { base_->exitProcess(status); }

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
