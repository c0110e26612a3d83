// The figures of an NTFS volume that show how fragmented it is, measured
// through NtfsVolume (the files a walk of the engine would visit: reparse
// points are not entered).
#ifndef GLIDEWELL_NTFS_NTFS_VOLUME_STATS_H_
#define GLIDEWELL_NTFS_NTFS_VOLUME_STATS_H_

#include <cstdint>
#include <string>

#include "ntfs/ntfs_volume.h"

namespace glidewell {

struct NtfsVolumeStats {
  uint64_t files = 0;
  uint64_t directories = 0;
  uint64_t fragmentedFiles = 0;  // files whose stored clusters lie in more than one place
  uint64_t extents = 0;          // places the files' clusters lie in, summed
  uint64_t freeClusters = 0;
  uint64_t freeRuns = 0;
  uint64_t largestFreeRun = 0;
};

NtfsVolumeStats measureVolume(NtfsVolume& volume);

}  // namespace glidewell

#endif  // GLIDEWELL_NTFS_NTFS_VOLUME_STATS_H_
