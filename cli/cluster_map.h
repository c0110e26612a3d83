// Cluster-map pictures: a volume drawn as a grid of cells, each cell standing
// for an equal share of the volume's clusters and coloured by what they hold.
#ifndef GLIDEWELL_CLI_CLUSTER_MAP_H_
#define GLIDEWELL_CLI_CLUSTER_MAP_H_

#include <cstdint>
#include <string>
#include <vector>

namespace glidewell {

// In order of precedence: a cell shows the highest state of its clusters.
enum class CellState : uint8_t { kFree = 0, kSystem = 1, kContiguous = 2, kFragmented = 3 };

struct MapRange {
  uint64_t first;  // inclusive
  uint64_t last;   // inclusive
  CellState state;
};

// Folds ranges of clusters into cellCount cells (fewer for a small volume).
std::vector<CellState> buildCells(uint64_t totalClusters, const std::vector<MapRange>& ranges, size_t cellCount);

// Writes the cells as a PNG, `columns` cells wide, with a one-line legend
// strip at the bottom. False with *error set when the file cannot be written.
bool writeClusterMapPng(const std::string& path, const std::vector<CellState>& cells, int columns,
                        std::string* error);

}  // namespace glidewell

#endif  // GLIDEWELL_CLI_CLUSTER_MAP_H_
