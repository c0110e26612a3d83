// The tables the host prints: one volume (analyze, age) or one volume before
// and after a run, and the plain text table they are drawn with.
#ifndef GLIDEWELL_CLI_REPORT_TABLE_H_
#define GLIDEWELL_CLI_REPORT_TABLE_H_

#include <cstdint>
#include <string>
#include <vector>

#include "cli/volume_metrics.h"

namespace glidewell {

// Rows of cells, columns two spaces apart. The first column is left-aligned
// and the others right-aligned (numbers) unless made left-aligned (text). A
// row may be shorter than the header.
class TextTable {
 public:
  explicit TextTable(std::vector<std::string> header) : header_(std::move(header)) {}
  void addRow(std::vector<std::string> cells) { rows_.push_back(std::move(cells)); }
  void alignLeft(size_t column) { leftColumns_.push_back(column); }
  std::string render() const;

 private:
  std::vector<std::string> header_;
  std::vector<std::vector<std::string>> rows_;
  std::vector<size_t> leftColumns_;
};

// "12.5 MiB", "512 B", "3.0 GiB": binary units, one decimal above bytes.
std::string formatBytes(uint64_t bytes);
// The change from before to after: "-131 (-92%)", "+4 (+50%)", "0"; the
// percentage is left out when before is 0.
std::string formatChange(uint64_t before, uint64_t after);
// "0.84 s", "12.3 s", "2 min 05 s".
std::string formatSeconds(double seconds);
// "2304 (9.0 MiB)": a cluster count with the bytes it holds.
std::string formatClusters(uint64_t clusters, uint32_t bytesPerCluster);

// One line on the volume: label, size, share in use, files and directories.
std::string describeVolume(wchar_t letter, const VolumeSnapshot& volume);

// files, fragmented files, extents, free runs, largest free run.
TextTable volumeTable(const VolumeSnapshot& volume);
// The same rows before and after a run, with the change, then the clusters
// moved and the time the run took.
TextTable comparisonTable(const VolumeSnapshot& before, const VolumeSnapshot& after, uint64_t movedClusters,
                          double seconds);

}  // namespace glidewell

#endif  // GLIDEWELL_CLI_REPORT_TABLE_H_
