#include "cli/report_table.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>

#include "platform/text.h"

namespace glidewell {

std::string TextTable::render() const {
  size_t columns = header_.size();
  for (const auto& row : rows_) columns = std::max(columns, row.size());
  std::vector<size_t> width(columns, 0);
  auto measure = [&](const std::vector<std::string>& row) {
    for (size_t c = 0; c < row.size(); ++c) width[c] = std::max(width[c], row[c].size());
  };
  measure(header_);
  for (const auto& row : rows_) measure(row);
  std::string out;
  auto emit = [&](const std::vector<std::string>& row) {
    std::string line;
    for (size_t c = 0; c < columns; ++c) {
      const std::string cell = c < row.size() ? row[c] : std::string();
      bool left = c == 0 || std::find(leftColumns_.begin(), leftColumns_.end(), c) != leftColumns_.end();
      if (c > 0) line += "  ";
      line += left ? fmt::format("{:<{}}", cell, width[c]) : fmt::format("{:>{}}", cell, width[c]);
    }
    line.erase(line.find_last_not_of(' ') + 1);
    out += line + "\n";
  };
  emit(header_);
  for (const auto& row : rows_) emit(row);
  return out;
}

std::string formatBytes(uint64_t bytes) {
  static const char* const kUnits[] = {"KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
  if (bytes < 1024) return fmt::format("{} B", bytes);
  double value = static_cast<double>(bytes) / 1024.0;
  size_t unit = 0;
  while (value >= 1023.95 && unit + 1 < std::size(kUnits)) {
    value /= 1024.0;
    ++unit;
  }
  return fmt::format("{:.1f} {}", value, kUnits[unit]);
}

std::string formatChange(uint64_t before, uint64_t after) {
  if (before == after) return "0";
  bool down = after < before;
  uint64_t delta = down ? before - after : after - before;
  std::string sign = down ? "-" : "+";
  if (before == 0) return sign + std::to_string(delta);
  double percent = 100.0 * static_cast<double>(delta) / static_cast<double>(before);
  // A change is never shown as 0%: below one percent it reads "<1%".
  std::string share = percent < 1.0 ? "<1" : fmt::format("{:.0f}", std::floor(percent));
  return fmt::format("{}{} ({}{}%)", sign, delta, sign, share);
}

std::string formatSeconds(double seconds) {
  if (seconds < 0) seconds = 0;
  if (seconds < 10) return fmt::format("{:.2f} s", seconds);
  if (seconds < 60) return fmt::format("{:.1f} s", seconds);
  uint64_t whole = static_cast<uint64_t>(seconds + 0.5);
  return fmt::format("{} min {:02} s", whole / 60, whole % 60);
}

std::string formatClusters(uint64_t clusters, uint32_t bytesPerCluster) {
  return fmt::format("{} ({})", clusters, formatBytes(clusters * bytesPerCluster));
}

std::string describeVolume(wchar_t letter, const VolumeSnapshot& v) {
  const SimGeometry& g = v.geometry;
  uint64_t used = g.totalClusters - v.stats.freeClusters;
  double share = g.totalClusters == 0 ? 0.0 : 100.0 * static_cast<double>(used) / static_cast<double>(g.totalClusters);
  return fmt::format("{}: \"{}\" {} {} clusters of {} bytes ({}), {:.0f}% in use, {} files in {} directories",
                     narrow(std::wstring(1, letter)), narrow(g.label), narrow(g.fileSystemName), g.totalClusters,
                     g.bytesPerCluster, formatBytes(g.totalClusters * g.bytesPerCluster), share, v.stats.files,
                     v.stats.directories);
}

namespace {

struct Row {
  const char* name;
  uint64_t SimStats::*field;
};
constexpr Row kRows[] = {
    {"files", &SimStats::files},
    {"fragmented files", &SimStats::fragmentedFiles},
    {"extents (fragments)", &SimStats::fragments},
    {"free runs", &SimStats::freeRuns},
};

}  // namespace

TextTable volumeTable(const VolumeSnapshot& v) {
  TextTable table({"", "value"});
  for (const Row& row : kRows) table.addRow({row.name, std::to_string(v.stats.*row.field)});
  table.addRow({"largest free run", formatClusters(v.stats.largestFreeRun, v.geometry.bytesPerCluster)});
  return table;
}

TextTable comparisonTable(const VolumeSnapshot& before, const VolumeSnapshot& after, uint64_t movedClusters,
                          double seconds) {
  TextTable table({"", "before", "after", "change"});
  for (const Row& row : kRows) {
    uint64_t b = before.stats.*row.field, a = after.stats.*row.field;
    table.addRow({row.name, std::to_string(b), std::to_string(a), formatChange(b, a)});
  }
  uint32_t bpc = after.geometry.bytesPerCluster;
  table.addRow({"largest free run", formatClusters(before.stats.largestFreeRun, bpc),
                formatClusters(after.stats.largestFreeRun, bpc),
                formatChange(before.stats.largestFreeRun, after.stats.largestFreeRun)});
  table.addRow({"clusters moved", "", formatClusters(movedClusters, bpc)});
  table.addRow({"time", "", formatSeconds(seconds)});
  return table;
}

}  // namespace glidewell
