// Whole-file defragmentation (the defragFile mover): a file in more than one
// extent is moved into the smallest free run that holds all of it.
#include "engine/dfrg_exception.h"
#include "engine/dfrg_thread.h"
#include "engine/move_primitives.h"
#include "logging/logger.h"

namespace glidewell {

namespace {
// A file that fits no free run counts as failing "for space reasons only"
// when the whole free space exceeds it by less than this many clusters.
constexpr int64_t kSpaceMarginClusters = 4096;
}  // namespace

bool DfrgThread::defragFile(CDfrgContext& ctx, CDfrgFile& file, ExtentList& extents, bool& defragged) {
  Logger log("defragFile");
  uint64_t excludeStart = kNoCluster;
  uint64_t reserved = 0;
  int attempt = 0;
  bool retry = true;
  while (retry) {
    retry = false;
    uint64_t needed = getTotalLcnClusters(extents);
    const FreeExtentList* runs = nullptr;
    getSnapshot(ctx, &runs);
    if (extents.size() <= 1) break;

    defragged = true;
    uint64_t target = runs != nullptr ? findBestFit(*runs, needed, excludeStart) : kNoCluster;
    if (target == kNoCluster) {
      defragged = false;
      counters_.nonDefraggable += 1;
      bool spaceOnly = false;
      int64_t free = getTotalFreeClusters(ctx);
      if (free != -1) {
        free -= static_cast<int64_t>(reserved);
        if (free < 0) free = 0;
        spaceOnly = free - static_cast<int64_t>(needed) < kSpaceMarginClusters;
      }
      if (spaceOnly) counters_.spaceOnly += 1;
      if (scanInProgress_ && !deferredOverflow_ && !spaceOnly) deferFile(file.path());
      break;
    }

    ErrorCode rc = moveClusters(file, target, getTotalVcnClusters(extents), 0);
    if (rc != ErrorNone) {
      if (attempt == 0) {
        retry = true;
      } else if (attempt == 1) {
        // Try once more somewhere else, and do not count the refused run as free.
        excludeStart = target;
        reserved = getFreeRunLengthAt(*runs, target);
        retry = true;
      } else {
        log.log(kLogWarning) << "Error defragmenting File. Giving up." << LogProperty("FileName", file.path())
                             << LogProperty("Number of Clusters", needed) << LogProperty("Target LCN", target)
                             << LogProperty("Error", rc);
        counters_.errors += 1;
      }
      updateSnapshotRange(ctx, 0, kNoCluster);
      defragged = false;
    } else {
      updateSnapshotExt(ctx, extents);
      file.getFileExtents(extents);
      updateSnapshotExt(ctx, extents);
      if (extents.size() <= 1) {
        counters_.defragged += 1;
      } else {
        defragged = false;
        if (attempt == 0) {
          retry = true;
        } else {
          log.log(kLogAlert) << "Warning: defragmented file ended up having more than one extent."
                             << LogProperty("FileName", file.path()) << LogProperty("Number of Clusters", needed)
                             << LogProperty("Target LCN", target);
          counters_.errors += 1;
        }
        updateSnapshotRange(ctx, 0, kNoCluster);
      }
    }
    attempt += 1;
  }
  return true;
}

}  // namespace glidewell
