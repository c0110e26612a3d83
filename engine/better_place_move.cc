// The better-place move of a file already in one piece: into a free run that
// fits it more tightly than the gap it would leave, or, when free space lies
// on both sides of it, left into the gap before it.
#include "engine/dfrg_thread.h"
#include "engine/move_primitives.h"
#include "logging/logger.h"

namespace glidewell {

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
  ErrorCode rc = moveClusters(file, target, getTotalVcnClusters(extents), 0);
  if (rc == ErrorNone) {
    counters_.moved += 1;
  } else {
    moved = false;
    updateSnapshotRange(ctx, 0, kNoCluster);
    counters_.errors += 1;
  }
  refreshAfterMove(ctx, file, extents);
  if (moved && extents.size() > 1) {
    moved = false;
    counters_.moved -= 1;
    counters_.errors += 1;
    log.log(kLogAlert) << "Error: moved file (better) ended up having more than one extent!"
                       << LogProperty("FileName", file.path()) << LogProperty("Number of Clusters", needed)
                       << LogProperty("Target LCN", best);
    updateSnapshotRange(ctx, 0, kNoCluster);
  }
  return true;
}

}  // namespace glidewell
