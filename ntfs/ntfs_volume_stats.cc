#include "ntfs/ntfs_volume_stats.h"

#include <algorithm>
#include <vector>

namespace glidewell {

namespace {

void walk(NtfsVolume& volume, uint64_t dir, NtfsVolumeStats* stats) {
  std::vector<NtfsName> names;
  if (volume.listNames(dir, &names) != kNtfsOk) return;
  for (const NtfsName& n : names) {
    NtfsFileInfo info;
    if (volume.fileInfo(n.mftNo, &info) != kNtfsOk || (info.attributes & kNtfsAttrReparse)) continue;
    if (info.directory) {
      ++stats->directories;
      walk(volume, n.mftNo, stats);
      continue;
    }
    ++stats->files;
    NtfsStreamMap map;
    if (volume.streamMap(n.mftNo, &map) != kNtfsOk) continue;
    uint64_t pieces = 0;
    int64_t end = -1;  // the LCN after the last stored run
    for (const NtfsRun& r : map.runs) {
      if (r.lcn < 0) continue;  // holes take no place
      if (r.lcn != end) ++pieces;
      end = r.lcn + r.length;
    }
    stats->extents += pieces;
    if (pieces > 1) ++stats->fragmentedFiles;
  }
}

}  // namespace

NtfsVolumeStats measureVolume(NtfsVolume& volume) {
  NtfsVolumeStats stats;
  walk(volume, NtfsVolume::kRootMft, &stats);
  const uint64_t total = volume.totalClusters();
  std::vector<uint8_t> chunk(1 << 16);
  uint64_t run = 0;
  for (uint64_t lcn = 0; lcn < total;) {
    uint64_t bytes = std::min<uint64_t>(chunk.size(), (total - lcn + 7) / 8);
    if (volume.readBitmap(lcn / 8, bytes, chunk.data()) != kNtfsOk) break;
    for (uint64_t i = 0; i < bytes * 8 && lcn < total; ++i, ++lcn) {
      if (chunk[i / 8] & (1u << (i % 8))) {
        if (run > 0) ++stats.freeRuns;
        run = 0;
      } else {
        ++stats.freeClusters;
        if (++run > stats.largestFreeRun) stats.largestFreeRun = run;
      }
    }
  }
  if (run > 0) ++stats.freeRuns;
  return stats;
}

}  // namespace glidewell
