// Cluster-map pictures: a volume drawn as a grid of cells, each cell standing
// for an equal share of the volume's clusters and coloured by what they hold,
// with a title, a caption and a legend.
#ifndef GLIDEWELL_CLI_CLUSTER_MAP_H_
#define GLIDEWELL_CLI_CLUSTER_MAP_H_

#include <cstdint>
#include <string>
#include <vector>

namespace glidewell {

enum class CellState : uint8_t { kFree = 0, kSystem = 1, kContiguous = 2, kFragmented = 3 };

struct MapRange {
  uint64_t first;  // inclusive
  uint64_t last;   // inclusive
  CellState state;
};

// Folds ranges of clusters into cellCount cells (fewer for a small volume);
// clusters no range names are free. A cell takes the state that holds most of
// its clusters, where clusters of fragmented files count twice, so that a
// broken file still shows where it lies among whole ones; ties go to the
// later state in CellState's order.
std::vector<CellState> buildCells(uint64_t totalClusters, const std::vector<MapRange>& ranges, size_t cellCount);

struct ClusterMapPicture {
  std::string title;    // the first line, above the grid
  std::string caption;  // a second line (the figures)
  std::vector<CellState> cells;
  int columns = 128;
};

// RGB pixels, row by row, of the picture; *width and *height receive its size.
std::vector<uint8_t> renderClusterMap(const ClusterMapPicture& picture, int* width, int* height);

// Writes the picture as a PNG. False with *error set when there is nothing to
// draw or the file cannot be written.
bool writeClusterMapPng(const std::string& path, const ClusterMapPicture& picture, std::string* error);

}  // namespace glidewell

#endif  // GLIDEWELL_CLI_CLUSTER_MAP_H_
