#include "cli/ntfs_drive.h"

#include <fmt/format.h>

#include <cstdio>
#include <filesystem>

#include "cli/console.h"
#include "cli/drive_pass.h"
#include "cli/host_files.h"
#include "cli/log_config_file.h"
#include "cli/registry_access.h"
#include "ntfs/ntfs_safety.h"
#include "ntfs/ntfs_volume.h"
#include "platform/text.h"

namespace glidewell {

namespace {

std::string statsLine(const NtfsVolumeStats& s) {
  return fmt::format("{} files, {} fragmented ({} extents), {} free clusters in {} runs (largest {})", s.files,
                     s.fragmentedFiles, s.extents, s.freeClusters, s.freeRuns, s.largestFreeRun);
}

std::string letterText(wchar_t letter) { return narrow(std::wstring(1, letter)); }

// Opens, checks and measures a volume, then closes it again: the engine in
// the shared library opens it itself, and two mounts of one volume in one
// moment would each believe they own it.
NtfsVolumeStats measureClosed(const std::string& path) {
  std::string error;
  std::unique_ptr<NtfsVolume> v = NtfsVolume::open(path, &error);
  if (!v) throw HostError(path + ": " + error);
  return measureVolume(*v);
}

// The links <install dir>/volumes/<letter>.ntfs that make the volumes the
// engine's drives, removed again when the run is over.
class DriveLinks {
 public:
  DriveLinks(const std::string& installDir, const std::vector<std::string>& volumes) {
    for (size_t i = 0; i < volumes.size(); ++i) {
      std::string link = ntfsDrivePath(installDir, static_cast<wchar_t>(L'C' + i));
      std::error_code ec;
      std::filesystem::create_symlink(std::filesystem::absolute(volumes[i]), link, ec);
      if (ec) throw HostError("cannot create " + link + ": " + ec.message());
      links_.push_back(link);
    }
  }
  ~DriveLinks() {
    for (const std::string& link : links_) std::remove(link.c_str());
  }
  DriveLinks(const DriveLinks&) = delete;
  DriveLinks& operator=(const DriveLinks&) = delete;

 private:
  std::vector<std::string> links_;
};

// A run that was killed leaves its links; one that names a volume of this run
// is removed, anything else in volumes/ stays and is refused below.
void removeLinksLeftBehind(const std::string& installDir, const std::vector<std::string>& volumes) {
  namespace fs = std::filesystem;
  std::error_code ec;
  for (wchar_t l = L'A'; l <= L'Z'; ++l) {
    fs::path link = ntfsDrivePath(installDir, l);
    if (!fs::is_symlink(fs::symlink_status(link, ec))) continue;
    fs::path target = fs::weakly_canonical(link, ec);
    for (const std::string& v : volumes) {
      if (!ec && target == fs::weakly_canonical(v, ec)) fs::remove(link, ec);
    }
  }
}

}  // namespace

std::string ntfsDrivePath(const std::string& installDir, wchar_t letter) {
  return installDir + "volumes/" + letterText(letter) + ".ntfs";
}

bool isNtfsVolume(const std::string& path) {
  std::string error;
  return hasNtfsBootSector(path, &error);
}

NtfsPassOutcome runNtfsPass(const NtfsPassSettings& s) {
  if (s.volumes.empty() || s.volumes.size() > 24) throw UsageError("give 1 to 24 NTFS volumes");
  // Every volume is checked before anything is written anywhere.
  NtfsPassOutcome outcome;
  for (const std::string& path : s.volumes) outcome.before.push_back(measureClosed(path));

  prepareDirectory(s.installDir + "volumes");
  removeLinksLeftBehind(s.installDir, s.volumes);
  for (wchar_t l = L'A'; l <= L'Z'; ++l) {
    if (pathExists(driveImagePath(s.installDir, l)) || pathExists(ntfsDrivePath(s.installDir, l))) {
      throw HostError(fmt::format("{}volumes/ already holds drive {}:; the engine would work on it too. Remove it or "
                                  "give another --dir",
                                  s.installDir, letterText(l)));
    }
  }
  {
    std::unique_ptr<HostRegistry> registry = HostRegistry::open(s.installDir, true);
    RegistryValue makeDump{REG_DWORD, {static_cast<BYTE>(s.dumpPath.empty() ? 0 : 1), 0, 0, 0}};
    registry->set(HostRegistry::userKey("settings"), L"makeDump", makeDump);
    if (!s.dumpPath.empty()) {
      registry->set(HostRegistry::userKey("settings"), L"dumpPath",
                    parseSettingValue(parseSettingName("dumpPath"), s.dumpPath));
    }
  }
  installLogConfig(s.installDir);

  EngineRunResult run;
  {
    DriveLinks links(s.installDir, s.volumes);
    EngineRunSettings settings;
    settings.installDir = s.installDir;
    settings.stopAfterSeconds = s.stopAfterSeconds;
    for (const NtfsVolumeStats& b : outcome.before) settings.totalEntries += b.files + b.directories;
    settings.progress = s.progress;
    run = runEngineOnce(settings);
  }
  outcome.completed = run.end == RunEnd::kCompleted || run.end == RunEnd::kStopped;
  outcome.errorCode = run.end == RunEnd::kFailed ? (run.firstError != 0 ? run.firstError : run.errorCode) : 0;
  outcome.errorText = run.end == RunEnd::kFailed ? run.describe() : "";
  outcome.seconds = run.seconds;
  for (const std::string& path : s.volumes) outcome.after.push_back(measureClosed(path));
  return outcome;
}

int analyzeNtfsVolume(const std::string& path) {
  std::string error;
  std::unique_ptr<NtfsVolume> v = NtfsVolume::open(path, &error);
  if (!v) throw HostError(path + ": " + error);
  fmt::print("{}: NTFS \"{}\", {} clusters of {} bytes\n{}\n", path, narrow(fromUtf16(v->label())), v->totalClusters(),
             v->bytesPerCluster(), statsLine(measureVolume(*v)));
  return 0;
}

int runNtfsVolumes(const std::vector<std::string>& volumes, double seconds, const std::string& dir) {
  NtfsPassSettings s;
  s.volumes = volumes;
  s.installDir = dir;
  s.stopAfterSeconds = seconds;
  ProgressDisplay progress(stdout, isTerminal(stdout), terminalColumns(stdout));
  s.progress = &progress;
  NtfsPassOutcome o = runNtfsPass(s);
  for (size_t i = 0; i < volumes.size(); ++i) {
    fmt::print("{}: {}\n  before: {}\n  after:  {}\n", static_cast<char>('C' + i), volumes[i], statsLine(o.before[i]),
               statsLine(o.after[i]));
  }
  fmt::print("pass {} in {:.1f} s\n", o.completed ? "completed" : "did not complete", o.seconds);
  if (!o.errorText.empty()) fmt::print(stderr, "glidewell: {}\n", o.errorText);
  return o.completed && o.errorCode == 0 ? 0 : 1;
}

}  // namespace glidewell
