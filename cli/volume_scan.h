// The figures of a drive read the way the engine reads it, through
// CVolumeSystem: the allocation bitmap for the free space, and every file's
// retrieval pointers for its pieces. For drives the host cannot open as an
// image of its own (real Windows volumes).
#ifndef GLIDEWELL_CLI_VOLUME_SCAN_H_
#define GLIDEWELL_CLI_VOLUME_SCAN_H_

#include <cstdint>
#include <memory>
#include <string>

#include "volume/volume_system.h"

namespace glidewell {

struct DriveFigures {
  wchar_t letter = L'C';
  std::wstring label;
  std::string fileSystem;
  uint64_t totalClusters = 0;
  uint64_t bytesPerCluster = 0;
  uint64_t freeClusters = 0;
  uint64_t freeRuns = 0;
  uint64_t largestFreeRun = 0;
  uint64_t files = 0;
  uint64_t directories = 0;
  uint64_t fragmentedFiles = 0;  // stored in more than one place
  uint64_t fragments = 0;        // places that hold file data, over all files
  uint64_t unreadable = 0;       // files whose map could not be read (in use, no access)
};

// Walks the whole volume. HostError when its bitmap cannot be read.
DriveFigures measureVolume(std::unique_ptr<CVolumeSystem> volume);

// A few lines for the user.
std::string describeFigures(const DriveFigures& figures);

}  // namespace glidewell

#endif  // GLIDEWELL_CLI_VOLUME_SCAN_H_
