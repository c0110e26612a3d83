#include "cli/volume_metrics.h"

#include <algorithm>
#include <map>

#include "platform/text.h"
#include "sim/sim_node.h"

namespace glidewell {

namespace {

bool isDirectory(const SimFileInfo& f) { return (f.attributes & FILE_ATTRIBUTE_DIRECTORY) != 0; }

std::map<std::wstring, const SimFileInfo*> byPath(const std::vector<SimFileInfo>& files) {
  std::map<std::wstring, const SimFileInfo*> out;
  for (const SimFileInfo& f : files) out.emplace(f.path, &f);
  return out;
}

// Clusters of the two maps that hold the same VCN at different LCNs. Both
// lists are in VCN order; within the overlap of two stored runs the distance
// between LCN and VCN is constant on each side, so the overlap either moved
// as a whole or not at all.
uint64_t movedBetween(const std::vector<SimRun>& a, const std::vector<SimRun>& b) {
  uint64_t moved = 0;
  size_t i = 0, j = 0;
  while (i < a.size() && j < b.size()) {
    uint64_t lo = std::max(a[i].vcn, b[j].vcn);
    uint64_t hi = std::min(a[i].vcnEnd(), b[j].vcnEnd());
    if (lo < hi && !a[i].isVirtual() && !b[j].isVirtual() && a[i].lcn - a[i].vcn != b[j].lcn - b[j].vcn) {
      moved += hi - lo;
    }
    if (a[i].vcnEnd() <= b[j].vcnEnd()) {
      ++i;
    } else {
      ++j;
    }
  }
  return moved;
}

}  // namespace

VolumeSnapshot takeSnapshot(const SimDisk& disk) {
  VolumeSnapshot v;
  v.geometry = disk.geometry();
  v.stats = disk.stats();
  v.files = disk.listAll();
  v.systemRanges = disk.systemRanges();
  v.verifyProblem = disk.verify();
  return v;
}

uint64_t countMovedClusters(const std::vector<SimFileInfo>& before, const std::vector<SimFileInfo>& after) {
  auto later = byPath(after);
  uint64_t moved = 0;
  for (const SimFileInfo& f : before) {
    auto it = later.find(f.path);
    if (it != later.end()) moved += movedBetween(f.runs, it->second->runs);
  }
  return moved;
}

std::string compareContents(const std::vector<SimFileInfo>& before, const std::vector<SimFileInfo>& after) {
  auto later = byPath(after);
  for (const SimFileInfo& f : before) {
    std::string name = narrow(f.path);
    auto it = later.find(f.path);
    if (it == later.end()) return (isDirectory(f) ? "directory " : "file ") + name + " is missing";
    const SimFileInfo& g = *it->second;
    if (isDirectory(f) != isDirectory(g)) return name + " changed between file and directory";
    if (f.size != g.size) {
      return "file " + name + " has " + std::to_string(g.size) + " bytes instead of " + std::to_string(f.size);
    }
    uint64_t was = storedClusters(f.runs), now = storedClusters(g.runs);
    if (was != now) {
      return "file " + name + " holds " + std::to_string(now) + " clusters instead of " + std::to_string(was);
    }
  }
  if (after.size() != before.size()) {
    auto earlier = byPath(before);
    for (const SimFileInfo& g : after) {
      if (earlier.count(g.path) == 0) return narrow(g.path) + " appeared";
    }
    return "the volume lists " + std::to_string(after.size()) + " entries instead of " + std::to_string(before.size());
  }
  return "";
}

std::vector<MapRange> clusterMapRanges(const VolumeSnapshot& volume) {
  std::vector<MapRange> ranges;
  for (const SimPiece& p : volume.systemRanges) {
    if (p.length > 0) ranges.push_back({p.lcn, p.lcn + p.length - 1, CellState::kSystem});
  }
  for (const SimFileInfo& f : volume.files) {
    if (isDirectory(f)) continue;
    CellState state = countFragments(f.runs) > 1 ? CellState::kFragmented : CellState::kContiguous;
    for (const SimRun& r : f.runs) {
      if (!r.isVirtual() && r.length > 0) ranges.push_back({r.lcn, r.lcn + r.length - 1, state});
    }
  }
  return ranges;
}

}  // namespace glidewell
