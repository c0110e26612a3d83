// The left-border move of a file already in one piece: it slides left into
// the free gap before it, or is parked elsewhere and moved back into the gap.
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
    ErrorCode rc = slideLeft(file, distance);
    if (rc == ErrorNone) {
      counters_.moved += 1;
      moved = true;
    } else {
      counters_.errors += 1;
      updateSnapshotRange(ctx, 0, kNoCluster);
    }
  } else {
    uint64_t park = findFirstFit(*runs, needed);
    if (park != kNoCluster) {
      uint64_t count = getTotalVcnClusters(extents);
      if (moveClusters(file, park, count, 0) != ErrorNone) {
        counters_.errors += 1;
      } else if (moveClusters(file, gapStart, count, 0) != ErrorNone) {
        counters_.errors += 1;
      } else {
        counters_.moved += 1;
        moved = true;
      }
    }
  }

  refreshAfterMove(ctx, file, extents);
  if (moved && extents.size() > 1) {
    moved = false;
    counters_.moved -= 1;
    counters_.errors += 1;
    log.log(kLogAlert) << "Warning: moved file (left) ended up having more than one extent."
                       << LogProperty("FileName", file.path()) << LogProperty("Number of Clusters", needed)
                       << LogProperty("Target LCN", lowest);
    updateSnapshotRange(ctx, 0, kNoCluster);
  }
  return true;
}

}  // namespace glidewell
