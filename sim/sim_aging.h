// The aging generator: builds a simulated volume that looks like a disk that
// has been in use for a while. It lays out the file system's own areas the
// way NTFS does (boot sectors, MFT and its reserved zone, MFT mirror, log
// file, bitmap), grows a directory tree, fills it with files whose sizes are
// skewed towards small ones (some compressed, some sparse, a few encrypted or
// reparse points), and then runs churn rounds that delete, append, truncate,
// rename and create files through the disk's NTFS-like allocator, which is
// what fragments files and free space.
//
// The result depends only on the options (and, with a source directory, on
// that directory's tree and sizes): the same seed gives the same volume.
#ifndef GLIDEWELL_SIM_SIM_AGING_H_
#define GLIDEWELL_SIM_SIM_AGING_H_

#include <cstdint>
#include <memory>
#include <string>

#include "sim/sim_disk.h"

namespace glidewell {

struct SimAgingOptions {
  uint64_t seed = 1;
  uint64_t totalClusters = uint64_t{1} << 18;  // 1 GiB of 4 KiB clusters
  uint32_t bytesPerCluster = 4096;
  double fillRatio = 0.6;    // share of the volume in use at the end (0..0.98)
  int churnRounds = 4;
  double compressedShare = 0.03;
  double sparseShare = 0.01;
  // At most this many files; larger volumes get larger files instead.
  uint64_t maxFiles = 200000;
  std::wstring label = L"Aged";
  // When set, the directory tree and file sizes are taken from this real
  // directory (a native path; sizes are scaled down to fit the volume), and
  // churn then works on them.
  std::string sourceDirectory;
};

// Builds the volume. Returns null with *error for options it cannot honour
// (no clusters, a bad cluster size, an unreadable source directory).
std::unique_ptr<SimDisk> ageDisk(const SimAgingOptions& options, std::string* error);

}  // namespace glidewell

#endif  // GLIDEWELL_SIM_SIM_AGING_H_
