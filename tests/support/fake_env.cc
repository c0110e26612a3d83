#include "support/fake_env.h"

#include "engine/dfrg_exception.h"
#include "platform/change_source.h"
#include "sim/sim_change_source.h"
#include "platform/text.h"

namespace glidewell {

namespace {
wchar_t upper(wchar_t c) { return (c >= L'a' && c <= L'z') ? static_cast<wchar_t>(c - L'a' + L'A') : c; }
}  // namespace

// The FakeEnv's drives as the drive list sees them.
class FakeEnvDrives : public DriveProvider {
 public:
  explicit FakeEnvDrives(FakeEnv* env) : env_(env) {}
  DWORD drives() override { return env_->logicalDrives(); }
  UINT driveType(wchar_t letter) override { return env_->driveType(std::wstring(1, letter) + L":\\"); }
  bool volumeLabel(wchar_t letter, std::wstring* label) override {
    return env_->volumeLabel(std::wstring(1, letter) + L":\\", label);
  }
  std::unique_ptr<CVolumeSystem> openVolume(wchar_t letter) override { return env_->openVolume(letter); }
  // Change notification comes from the simulated disk plugged in on the
  // letter, if there is one (the watcher sees a test's user activity).
  std::unique_ptr<ChangeSource> openChangeSource(wchar_t letter) override { return openSimChangeSource(letter); }

 private:
  FakeEnv* env_;
};

FakeEnv::FakeEnv()
    : EnvWrapper(Env::system()), base_(Env::system()), provider_(std::make_shared<FakeEnvDrives>(this)) {}

FakeEnv::~FakeEnv() { removeDriveProvider(provider_.get()); }

void FakeEnv::addDrive(wchar_t letter, std::wstring label, VolumeFactory factory, UINT type) {
  {
    std::lock_guard<std::mutex> g(mutex_);
    drives_[upper(letter)] = Drive{std::move(label), std::move(factory), type};
  }
  addDriveProvider(provider_, true);
}

void FakeEnv::removeDrive(wchar_t letter) {
  std::lock_guard<std::mutex> g(mutex_);
  drives_.erase(upper(letter));
}

SYSTEMTIME FakeEnv::localTime() {
  std::lock_guard<std::mutex> g(mutex_);
  return fixedLocalTime_ ? localTime_ : base_->localTime();
}

uint64_t FakeEnv::fileTimeNow() {
  SYSTEMTIME t;
  {
    std::lock_guard<std::mutex> g(mutex_);
    if (!fixedLocalTime_) return base_->fileTimeNow();
    t = localTime_;
  }
  uint64_t ft = 0;
  base_->systemTimeToFileTime(t, &ft);
  return ft;
}

void FakeEnv::sleep(uint32_t ms) {
  if (manualClock_) {
    clockMs_ += ms;  // time passes without waiting
    return;
  }
  base_->sleep(ms);
}

DWORD FakeEnv::logicalDrives() {
  std::lock_guard<std::mutex> g(mutex_);
  DWORD mask = 0;
  for (auto& d : drives_) mask |= 1u << (d.first - L'A');
  return mask;
}

UINT FakeEnv::driveType(const std::wstring& rootPath) {
  std::lock_guard<std::mutex> g(mutex_);
  if (rootPath.empty()) return DRIVE_NO_ROOT_DIR;
  auto it = drives_.find(upper(rootPath[0]));
  return it == drives_.end() ? DRIVE_NO_ROOT_DIR : it->second.type;
}

bool FakeEnv::volumeLabel(const std::wstring& rootPath, std::wstring* label) {
  std::lock_guard<std::mutex> g(mutex_);
  if (rootPath.empty()) return false;
  auto it = drives_.find(upper(rootPath[0]));
  if (it == drives_.end()) return false;
  *label = it->second.label;
  return true;
}

std::unique_ptr<CVolumeSystem> FakeEnv::openVolume(wchar_t driveLetter) {
  VolumeFactory factory;
  {
    std::lock_guard<std::mutex> g(mutex_);
    auto it = drives_.find(upper(driveLetter));
    if (it != drives_.end()) factory = it->second.factory;
  }
  if (!factory) {
    throw CDfrgException(ErrorVolumeUnavailable,
                         "Couldn't open Volume ! " + narrow(L"\\\\.\\" + std::wstring(1, driveLetter) + L":"));
  }
  ++opened_;
  return factory();
}

}  // namespace glidewell
