// Moves of files that are already in one piece: sliding a file left into the
// gap before it, and moving it into a free run that fits it more tightly.
#include "engine/dfrg_thread.h"
#include "engine/move_primitives.h"
#include "logging/logger.h"

namespace glidewell {

namespace {
// A gap at least this long is always closed by sliding; a shorter one only
// when the file is at most three times the gap (otherwise the slide would
// take many small pieces and the file is parked and moved back instead).
constexpr uint64_t kMinSlideGap = 30;
constexpr uint64_t kMaxSlideRatio = 3;

// After a move: the clusters the file left become free, the ones it took do not.
void refreshAfterMove(CDfrgContext& ctx, CDfrgFile& file, ExtentList& extents) {
  updateSnapshotExt(ctx, extents);
  file.getFileExtents(extents);
  updateSnapshotExt(ctx, extents);
}
}  // namespace

bool DfrgThread::moveToLeftBorder(CDfrgContext& ctx, CDfrgFile& file, ExtentList& extents, bool& moved) {
  Logger log("moveToLeftBorder");
  moved = false;
  uint64_t needed = getTotalLcnClusters(extents);
  uint64_t lowest = getLowestLcnStart(extents);
  if (lowest == kNoCluster) return true;
  const FreeExtentList* runs = nullptr;
  if (!getSnapshot(ctx, &runs) || runs == nullptr) return true;
  uint64_t gapStart = findFreeRunBefore(*runs, extents.front().lcn.start);
  if (gapStart == kNoCluster) return true;
  uint64_t distance = lowest - gapStart;
  if (distance == 0) return true;

  uint64_t unit = getLargestSubRunInList(extents);
  bool maySlide = (distance >= kMinSlideGap || needed / distance <= kMaxSlideRatio) && distance >= unit;
  if (maySlide) {
    int32_t rc = slideLeft(file, distance);
    if (rc == 0) {
      movedCount += 1;
      moved = true;
    } else {
      errorCount += 1;
      updateSnapshotRange(ctx, 0, kNoCluster);
    }
  } else {
    uint64_t park = findFirstFit(*runs, needed);
    if (park != kNoCluster) {
      uint64_t count = getTotalVcnClusters(extents);
      if (moveClusters(file, park, count, 0) != 0) {
        errorCount += 1;
      } else if (moveClusters(file, gapStart, count, 0) != 0) {
        errorCount += 1;
      } else {
        movedCount += 1;
        moved = true;
      }
    }
  }

  refreshAfterMove(ctx, file, extents);
  if (moved && extents.size() > 1) {
    moved = false;
    movedCount -= 1;
    errorCount += 1;
    log.log(kLogAlert) << "Warning: moved file (left) ended up having more than one extent."
                       << LogProperty("FileName", file.path()) << LogProperty("Number of Clusters", needed)
                       << LogProperty("Target LCN", lowest);
    updateSnapshotRange(ctx, 0, kNoCluster);
  }
  return true;
}

bool DfrgThread::moveToBetterPlace(CDfrgContext& ctx, CDfrgFile& file, ExtentList& extents, bool& moved) {
  Logger log("moveToBetterPlace");
  moved = false;
  const FreeExtentList* runs = nullptr;
  if (!getSnapshot(ctx, &runs) || runs == nullptr) return true;
  uint64_t needed = getTotalLcnClusters(extents);
  uint64_t highest = getHighestLcnEnd(extents);
  uint64_t lowest = getLowestLcnStart(extents);
  uint64_t before = lowest != kNoCluster ? getFreeRunLengthEndingAt(*runs, lowest) : 0;
  uint64_t after = highest != kNoCluster ? getFreeRunLengthAt(*runs, highest + 1) : 0;
  if (before + after == 0) return true;

  uint64_t best = findBestFit(*runs, needed, kNoCluster);
  uint64_t bestLength = best != kNoCluster ? getFreeRunLengthAt(*runs, best) : 0;
  if (bestLength == 0) best = kNoCluster;
  // A run larger than the hole the move would leave gains nothing, and the
  // runs right beside the file are the ones the move should join.
  if (best != kNoCluster &&
      (bestLength > before + needed + after || best == highest + 1 || best == lowest - before)) {
    best = kNoCluster;
  }
  if (before != 0 && after != 0 && best == kNoCluster) return moveToLeftBorder(ctx, file, extents, moved);
  if (best == kNoCluster) return true;

  moved = true;
  uint64_t target = best > lowest ? best + bestLength - needed : best;
  int32_t rc = moveClusters(file, target, getTotalVcnClusters(extents), 0);
  if (rc == 0) {
    movedCount += 1;
  } else {
    moved = false;
    updateSnapshotRange(ctx, 0, kNoCluster);
    errorCount += 1;
  }
  refreshAfterMove(ctx, file, extents);
  if (moved && extents.size() > 1) {
    moved = false;
    movedCount -= 1;
    errorCount += 1;
    log.log(kLogAlert) << "Error: moved file (better) ended up having more than one extent!"
                       << LogProperty("FileName", file.path()) << LogProperty("Number of Clusters", needed)
                       << LogProperty("Target LCN", best);
    updateSnapshotRange(ctx, 0, kNoCluster);
  }
  return true;
}

}  // namespace glidewell
