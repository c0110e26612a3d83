// One pass of the engine over the drive images of an install directory,
// measured: each drive before and after, the clusters moved, and the proof
// that every image still holds every file whole.
#ifndef GLIDEWELL_CLI_DRIVE_PASS_H_
#define GLIDEWELL_CLI_DRIVE_PASS_H_

#include <string>
#include <vector>

#include "cli/engine_run.h"
#include "cli/volume_metrics.h"

namespace glidewell {

struct DriveResult {
  wchar_t letter = L'C';
  std::string image;           // <install dir>volumes/<letter>.vdf
  VolumeSnapshot before;
  VolumeSnapshot after;
  uint64_t movedClusters = 0;
  std::string problem;         // "" when the image after the run verifies and kept every file

  bool intact() const { return problem.empty(); }
};

struct PassResult {
  EngineRunResult run;
  std::vector<DriveResult> drives;

  // The run ended by itself or on the requested stop, and every drive is intact.
  bool succeeded() const;
};

// The image path of a drive letter in an install directory.
std::string driveImagePath(const std::string& installDir, wchar_t letter);
// The letters of the images already in <installDir>volumes/.
std::vector<wchar_t> imagesInInstallDirectory(const std::string& installDir);

// Measures the images of `letters`, installs the logging configuration, runs
// one pass through the exports with a progress display on stdout, and
// measures the images again.
PassResult runPass(const std::string& installDir, const std::vector<wchar_t>& letters, double stopAfterSeconds);

// The table of each drive and how the run ended, to stdout.
void printPassReport(const PassResult& pass);

// Draws a volume as a cluster-map PNG with the title given and the volume's
// figures as its caption. HostError when the file cannot be written.
void writeVolumeMap(const VolumeSnapshot& volume, const std::string& title, const std::string& path);

// Writes "<prefix>before.png" and "<prefix>after.png" for a drive; returns
// their paths.
std::vector<std::string> writeDriveMaps(const DriveResult& drive, const std::string& prefix);

}  // namespace glidewell

#endif  // GLIDEWELL_CLI_DRIVE_PASS_H_
