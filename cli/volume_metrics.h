// What the host measures on a volume: the figures of the before/after table,
// the clusters a run moved, proof that a run kept every file whole, and the
// ranges a cluster map draws.
#ifndef GLIDEWELL_CLI_VOLUME_METRICS_H_
#define GLIDEWELL_CLI_VOLUME_METRICS_H_

#include <cstdint>
#include <string>
#include <vector>

#include "cli/cluster_map.h"
#include "sim/sim_disk.h"

namespace glidewell {

// One volume at one moment.
struct VolumeSnapshot {
  SimGeometry geometry;
  SimStats stats;
  std::vector<SimFileInfo> files;  // listAll(): files and directories in walk order
  std::vector<SimPiece> systemRanges;
  std::string verifyProblem;       // "" when verify() holds
};

VolumeSnapshot takeSnapshot(const SimDisk& disk);

// The clusters of the files present in both lists that sit at another LCN
// afterwards, VCN by VCN (clusters stored on one side only are not counted).
uint64_t countMovedClusters(const std::vector<SimFileInfo>& before, const std::vector<SimFileInfo>& after);

// "" when `after` holds the same files and directories as `before`, each file
// with the same size and number of stored clusters; otherwise the first
// difference, as one line.
std::string compareContents(const std::vector<SimFileInfo>& before, const std::vector<SimFileInfo>& after);

// What the cluster map draws: the file system's clusters, then every file's
// stored runs, marked fragmented when the file is stored in more than one place.
std::vector<MapRange> clusterMapRanges(const VolumeSnapshot& volume);

}  // namespace glidewell

#endif  // GLIDEWELL_CLI_VOLUME_METRICS_H_
