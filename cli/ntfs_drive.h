// Real NTFS volumes (image files and block devices) in the glidewell host:
// recognised by their boot sector, measured, and defragmented in place by one
// pass of the engine through its exported functions. The volumes become the
// engine's drives C:, D:, ... through links <install dir>/volumes/<letter>.ntfs,
// which the engine's drive list serves (ntfs/ntfs_drive_provider.h).
#ifndef GLIDEWELL_CLI_NTFS_DRIVE_H_
#define GLIDEWELL_CLI_NTFS_DRIVE_H_

#include <string>
#include <vector>

#include "cli/progress_bar.h"
#include "ntfs/ntfs_volume_stats.h"

namespace glidewell {

// <installDir>volumes/<letter>.ntfs.
std::string ntfsDrivePath(const std::string& installDir, wchar_t letter);

// True when path starts with an NTFS boot sector.
bool isNtfsVolume(const std::string& path);

struct NtfsPassSettings {
  std::vector<std::string> volumes;  // drives C:, D:, ... in this order
  std::string installDir;            // with its trailing '/': state, log and registry of the run
  double stopAfterSeconds = 0;       // 0: let the pass end by itself
  std::string dumpPath;              // not empty: write the volume dump there instead of defragmenting
  ProgressDisplay* progress = nullptr;  // may be null
};

struct NtfsPassOutcome {
  std::vector<NtfsVolumeStats> before, after;
  bool completed = false;  // the pass ended by itself (or on the requested stop)
  int32_t errorCode = 0;   // an error the engine reported
  std::string errorText;   // how a failed run ended, in one line
  double seconds = 0;
};

// Checks and measures every volume first (a refused one is a HostError with
// its one-line reason, and nothing has been written), then runs one pass
// through the exports and measures them again.
NtfsPassOutcome runNtfsPass(const NtfsPassSettings& settings);

// The commands for NTFS volumes.
int analyzeNtfsVolume(const std::string& path);
int runNtfsVolumes(const std::vector<std::string>& volumes, double seconds, const std::string& dir);

}  // namespace glidewell

#endif  // GLIDEWELL_CLI_NTFS_DRIVE_H_
