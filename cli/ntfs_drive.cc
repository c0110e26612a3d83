#include "cli/ntfs_drive.h"

#include <fmt/format.h>

#include <atomic>
#include <chrono>

#include "cli/host_files.h"
#include "config/registry_store.h"
#include "engine/dfrg_exception.h"
#include "engine/engine.h"
#include "ntfs/ntfs_drive_provider.h"
#include "ntfs/ntfs_safety.h"
#include "platform/env.h"
#include "platform/registry_backend.h"
#include "platform/sync.h"
#include "platform/text.h"
#include "volume/volume_system.h"

namespace glidewell {

namespace {

constexpr const char* kSettingsKey = "SOFTWARE\\quorvane\\Quorvane Glidewell\\settings";

// The drive methods of the environment answer from the NTFS provider only.
class NtfsHostEnv : public EnvWrapper {
 public:
  NtfsHostEnv(Env* base, std::shared_ptr<NtfsDriveProvider> drives) : EnvWrapper(base), drives_(std::move(drives)) {}
  DWORD logicalDrives() override { return drives_->drives(); }
  UINT driveType(const std::wstring& root) override { return root.empty() ? DRIVE_NO_ROOT_DIR : drives_->driveType(root[0]); }
  bool volumeLabel(const std::wstring& root, std::wstring* label) override {
    return !root.empty() && drives_->volumeLabel(root[0], label);
  }
  std::unique_ptr<CVolumeSystem> openVolume(wchar_t letter) override { return drives_->openVolume(letter); }

 private:
  std::shared_ptr<NtfsDriveProvider> drives_;
};

std::atomic<int32_t> reportedError{0};
void rememberError(int32_t code, const char*) {
  if (code != ErrorStopRequested) reportedError = code;
}

void setSettings(const NtfsPassSettings& s) {
  CRegistryStore store(HKEY_CURRENT_USER);
  std::unique_ptr<CRegistryKey> key;
  if (!store.openKey(kSettingsKey, key, KEY_ALL_ACCESS, nullptr, true)) throw HostError("cannot write the settings");
  key->setDword(std::string("makeDump"), s.dumpPath.empty() ? 0 : 1);
  if (!s.dumpPath.empty()) key->setString(L"dumpPath", widen(s.dumpPath));
}

std::string statsLine(const NtfsVolumeStats& s) {
  return fmt::format("{} files, {} fragmented ({} extents), {} free clusters in {} runs (largest {})", s.files,
                     s.fragmentedFiles, s.extents, s.freeClusters, s.freeRuns, s.largestFreeRun);
}

}  // namespace

bool isNtfsVolume(const std::string& path) {
  std::string error;
  return hasNtfsBootSector(path, &error);
}

NtfsPassOutcome runNtfsPass(const NtfsPassSettings& s) {
  if (s.volumes.empty() || s.volumes.size() > 24) throw UsageError("give 1 to 24 NTFS volumes");
  std::vector<std::string> volumes = s.volumes;
  auto provider = std::make_shared<NtfsDriveProvider>([volumes](wchar_t letter) -> std::string {
    size_t i = static_cast<size_t>(letter - L'C');
    return letter >= L'C' && i < volumes.size() ? volumes[i] : std::string();
  });
  // Every volume is opened (and checked) before the engine starts; they stay
  // open, shared with the engine's handles, until the figures after are taken.
  NtfsPassOutcome outcome;
  std::vector<std::shared_ptr<NtfsVolume>> open;
  for (size_t i = 0; i < volumes.size(); ++i) {
    std::string error;
    std::shared_ptr<NtfsVolume> v = provider->volume(static_cast<wchar_t>(L'C' + i), &error);
    if (!v) throw HostError(error);
    outcome.before.push_back(measureVolume(*v));
    open.push_back(std::move(v));
  }
  NtfsHostEnv env(Env::current(), provider);
  Env* previous = Env::current();
  Env::setCurrent(&env);
  std::shared_ptr<RegistryBackend> previousRegistry = RegistryBackend::current();
  RegistryBackend::setCurrent(RegistryBackend::newMemory());
  auto start = std::chrono::steady_clock::now();
  reportedError = 0;
  try {
    setSettings(s);
    Event done(false, false);
    {
      engine worker(&done, "", HKEY_CURRENT_USER, widen(s.installDir));
      worker.setErrorCallback(&rememberError);
      worker.start(false, kDefragModePasses);
      uint32_t limit = s.stopAfterSeconds > 0 ? static_cast<uint32_t>(s.stopAfterSeconds * 1000) : INFINITE;
      outcome.completed = done.wait(limit) == WaitResult::kSignaled || s.stopAfterSeconds > 0;
      worker.stop();
    }
  } catch (...) {
    Env::setCurrent(previous == Env::system() ? nullptr : previous);
    RegistryBackend::setCurrent(previousRegistry);
    throw;
  }
  Env::setCurrent(previous == Env::system() ? nullptr : previous);
  RegistryBackend::setCurrent(previousRegistry);
  outcome.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  outcome.errorCode = reportedError;
  for (auto& v : open) outcome.after.push_back(measureVolume(*v));
  return outcome;
}

int analyzeNtfsVolume(const std::string& path) {
  std::string error;
  std::unique_ptr<NtfsVolume> v = NtfsVolume::open(path, &error);
  if (!v) throw HostError(error);
  fmt::print("{}: NTFS \"{}\", {} clusters of {} bytes\n{}\n", path, narrow(fromUtf16(v->label())), v->totalClusters(),
             v->bytesPerCluster(), statsLine(measureVolume(*v)));
  return 0;
}

int runNtfsVolumes(const std::vector<std::string>& volumes, double seconds, const std::string& dir) {
  NtfsPassSettings s;
  s.volumes = volumes;
  s.installDir = dir;
  s.stopAfterSeconds = seconds;
  NtfsPassOutcome o = runNtfsPass(s);
  for (size_t i = 0; i < volumes.size(); ++i) {
    fmt::print("{}: {}\n  before: {}\n  after:  {}\n", static_cast<char>('C' + i), volumes[i], statsLine(o.before[i]),
               statsLine(o.after[i]));
  }
  fmt::print("pass {} in {:.1f} s\n", o.completed ? "completed" : "did not complete", o.seconds);
  if (o.errorCode != 0) fmt::print(stderr, "glidewell: the engine reported error {}\n", o.errorCode);
  return o.completed && o.errorCode == 0 ? 0 : 1;
}

}  // namespace glidewell
