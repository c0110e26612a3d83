#include "engine/move_primitives.h"

#include <algorithm>

#include "config/dfrg_config.h"
#include "engine/error_codes.h"
#include "volume/volume_context.h"

namespace glidewell {

namespace {
// The move control's cluster count is 32-bit.
constexpr uint64_t kMaxMoveChunk = 4294967295ull;

// Status of a failed move, from the error the volume reported.
ErrorCode moveFailureStatus(DWORD error) {
  if (error == ERROR_ACCESS_DENIED) return ErrorAccessDenied;
  if (error == ERROR_INVALID_PARAMETER) return ErrorInvalidParameter;
  return ErrorFailed;
}

// Rounds a chunk down to a multiple of the move granularity when it is larger.
uint64_t alignChunk(uint64_t chunk, uint64_t granularity) {
  chunk = std::min(chunk, kMaxMoveChunk);
  if (chunk > granularity && chunk % granularity != 0) chunk -= chunk % granularity;
  return chunk;
}

BOOL issueMove(CDfrgFile& file, uint64_t vcn, uint64_t lcn, uint64_t count) {
  MOVE_FILE_DATA move{};
  move.FileHandle = file.handle();
  move.StartingVcn.QuadPart = static_cast<LONGLONG>(vcn);
  move.StartingLcn.QuadPart = static_cast<LONGLONG>(lcn);
  move.ClusterCount = static_cast<DWORD>(count);
  return file.volume().moveFile(&move);
}
}  // namespace

uint32_t maxClusterMoveCountOf(CVolumeContext& ctx) {
  CDfrgConfig* config = ctx.config() != nullptr ? ctx.config() : CDfrgConfig::current();
  return config != nullptr ? config->maxClusterMoveCount() : CDfrgConfig::kDefaultMaxClusterMoveCount;
}

uint64_t getTotalVcnClusters(const ExtentList& extents) {
  uint64_t total = 0;
  for (const Extent& e : extents) total += e.vcn.length();
  return total;
}

uint64_t getTotalLcnClusters(const ExtentList& extents) {
  uint64_t total = 0;
  for (const Extent& e : extents) total += e.lcn.length();
  return total;
}

bool findMoveBoundary(const ExtentList& extents, uint64_t vcn, uint64_t* boundaryVcn, uint64_t* boundaryLcn) {
  for (const Extent& e : extents) {
    if (e.vcn.end + 1 >= vcn) return e.locateVcn(vcn, boundaryVcn, boundaryLcn);
  }
  return false;
}

uint64_t countStoredClusters(const ExtentList& extents, uint64_t fromVcn, uint64_t toVcn) {
  uint64_t total = 0;
  for (const Extent& e : extents) {
    if (e.vcn.end < fromVcn || e.vcn.start > toVcn) continue;
    uint64_t first = std::max(fromVcn, e.vcn.start);
    uint64_t last = std::min(toVcn, e.vcn.end);
    uint64_t v0, l0, v1, l1;
    if (!e.locateVcn(first, &v0, &l0) || !e.locateVcn(last + 1, &v1, &l1)) return kNoCluster;
    total += l1 - l0;
  }
  return total;
}

uint64_t getLowestLcnStart(const ExtentList& extents) {
  uint64_t lowest = kNoCluster;
  for (const Extent& e : extents) lowest = std::min(lowest, e.lcn.start);
  return lowest;
}

uint64_t getHighestLcnEnd(const ExtentList& extents) {
  if (extents.empty()) return kNoCluster;
  uint64_t highest = 0;
  for (const Extent& e : extents) highest = std::max(highest, e.lcn.end);
  return highest;
}

uint64_t getLargestSubRunInList(const ExtentList& extents) {
  uint64_t largest = 1;
  for (const Extent& e : extents) largest = std::max(largest, e.getLargestSubRun());
  return largest;
}

uint64_t findBestFitLinear(const FreeExtentList& runs, uint64_t needed, uint64_t excludeStart) {
  uint64_t best = kNoCluster;
  uint64_t bestLength = 0;
  for (const ClusterRange& r : runs) {
    uint64_t length = r.length();
    if (length < needed || r.start == excludeStart) continue;
    if (best == kNoCluster || length < bestLength) {
      best = r.start;
      bestLength = length;
      if (bestLength == needed) break;
    }
  }
  return best;
}

uint64_t findFirstFitLinear(const FreeExtentList& runs, uint64_t needed) {
  for (const ClusterRange& r : runs) {
    if (r.length() >= needed) return r.start;
  }
  return kNoCluster;
}

uint64_t getFreeRunLengthAtLinear(const FreeExtentList& runs, uint64_t lcn) {
  for (const ClusterRange& r : runs) {
    if (r.start == lcn) return r.length();
    if (r.start > lcn) return 0;
  }
  return 0;
}

uint64_t getFreeRunLengthEndingAtLinear(const FreeExtentList& runs, uint64_t lcn) {
  if (lcn == kNoCluster || lcn == 0) return 0;
  for (const ClusterRange& r : runs) {
    if (r.end == lcn - 1) return r.length();
    if (r.start >= lcn) return 0;
  }
  return 0;
}

uint64_t findFreeRunBeforeLinear(const FreeExtentList& runs, uint64_t lcn) {
  if (lcn == kNoCluster || lcn == 0) return kNoCluster;
  for (const ClusterRange& r : runs) {
    if (r.end == lcn - 1) return r.start;
    if (r.start >= lcn) return kNoCluster;
  }
  return kNoCluster;
}

int64_t getTotalFreeClustersLinear(const FreeExtentList& runs) {
  int64_t total = 0;
  for (const ClusterRange& r : runs) total += static_cast<int64_t>(r.length());
  return total;
}

uint64_t findBestFit(const FreeExtentList& runs, uint64_t needed, uint64_t excludeStart) {
  if (const FreeRunIndex* index = runs.index()) return index->bestFit(needed, excludeStart);
  return findBestFitLinear(runs, needed, excludeStart);
}

uint64_t findFirstFit(const FreeExtentList& runs, uint64_t needed) {
  if (const FreeRunIndex* index = runs.index()) return index->firstFit(needed);
  return findFirstFitLinear(runs, needed);
}

uint64_t getFreeRunLengthAt(const FreeExtentList& runs, uint64_t lcn) {
  if (const FreeRunIndex* index = runs.index()) return index->lengthAt(lcn);
  return getFreeRunLengthAtLinear(runs, lcn);
}

uint64_t getFreeRunLengthEndingAt(const FreeExtentList& runs, uint64_t lcn) {
  if (const FreeRunIndex* index = runs.index()) {
    ClusterRange run;
    return index->runEndingBefore(lcn, &run) ? run.length() : 0;
  }
  return getFreeRunLengthEndingAtLinear(runs, lcn);
}

uint64_t findFreeRunBefore(const FreeExtentList& runs, uint64_t lcn) {
  if (const FreeRunIndex* index = runs.index()) {
    ClusterRange run;
    return index->runEndingBefore(lcn, &run) ? run.start : kNoCluster;
  }
  return findFreeRunBeforeLinear(runs, lcn);
}

void refreshAfterMove(CVolumeContext& ctx, CDfrgFile& file, ExtentList& extents) {
  updateSnapshotExt(ctx, extents);
  file.getFileExtents(extents);
  updateSnapshotExt(ctx, extents);
}

int64_t getTotalFreeClusters(CVolumeContext& ctx) {
  const FreeExtentList* runs = nullptr;
  if (!getSnapshot(ctx, &runs) || runs == nullptr) return -1;
  if (const FreeRunIndex* index = runs->index()) return static_cast<int64_t>(index->totalClusters());
  return getTotalFreeClustersLinear(*runs);
}

ErrorCode moveClusters(CDfrgFile& file, uint64_t targetLcn, uint64_t count, uint64_t startVcn) {
  CVolumeContext& ctx = file.context();
  uint64_t setting = maxClusterMoveCountOf(ctx);
  uint64_t chunk = count < setting ? count : setting;
  if (chunk == 0) chunk = count;
  uint64_t granularity = file.getMoveGranularity();
  if (granularity > setting && setting != 0) return ErrorImpossible;
  chunk = alignChunk(chunk, granularity);

  ExtentList map;
  if (!file.getFileExtents(map)) return ErrorFailed;

  uint64_t vcn = startVcn, lcn = targetLcn, remaining = count, done = 0;
  while (done < count) {
    uint64_t n = std::min(chunk, remaining);
    uint64_t boundaryVcn, boundaryLcn;
    if (!findMoveBoundary(map, vcn + n, &boundaryVcn, &boundaryLcn)) return ErrorInternal;
    n = boundaryVcn - vcn;
    if (n == 0) {  // nothing left before the next boundary
      done += chunk;
      continue;
    }
    if (!issueMove(file, vcn, lcn, n)) return moveFailureStatus(GetLastError());
    uint64_t stored = countStoredClusters(map, vcn, vcn + n - 1);
    if (stored == kNoCluster) return ErrorInternal;
    lcn += stored;
    vcn += n;
    remaining -= std::min(remaining, n);
    ctx.checkState();
    done += chunk;
  }
  return ErrorNone;
}

ErrorCode slideLeft(CDfrgFile& file, uint64_t distance) {
  CVolumeContext& ctx = file.context();
  ExtentList map;
  if (!file.getFileExtents(map)) return ErrorFailed;
  uint64_t total = getTotalVcnClusters(map);
  if (map.empty() || map.front().lcn.start == kNoCluster) return ErrorInternal;
  uint64_t target = map.front().lcn.start - distance;

  uint64_t setting = maxClusterMoveCountOf(ctx);
  uint64_t granularity = file.getMoveGranularity();
  if (granularity > setting && setting != 0) return ErrorImpossible;
  if (distance < granularity) return ErrorImpossible;
  uint64_t chunk = setting == 0 ? distance : std::min<uint64_t>(distance, setting);
  chunk = alignChunk(chunk, granularity);

  uint64_t vcn = 0, remaining = total, moved = 0;
  while (moved < total) {
    uint64_t n = std::min(chunk, remaining);
    uint64_t boundaryVcn, boundaryLcn;
    if (!findMoveBoundary(map, vcn + n, &boundaryVcn, &boundaryLcn)) return ErrorInternal;
    n = boundaryVcn - vcn;
    if (n == 0) return ErrorInternal;  // cannot happen with a chunk of at least one unit
    if (!issueMove(file, vcn, target, n)) {
      DWORD error = GetLastError();
      scanBitmap(ctx, 0, kNoCluster, false);
      return moveFailureStatus(error);
    }
    uint64_t stored = countStoredClusters(map, vcn, vcn + n - 1);
    if (stored == kNoCluster) return ErrorInternal;
    target += stored;
    vcn += n;
    remaining -= std::min(remaining, n);
    ctx.checkState();
    moved += n;
  }
  return ErrorNone;
}

}  // namespace glidewell
