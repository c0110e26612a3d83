// The pass loop (one walk over every enabled volume, then the run ends) and
// the pass statistics that the drivers and movers share.
#include "config/dfrg_config.h"
#include "engine/dfrg_exception.h"
#include "engine/dfrg_thread.h"
#include "logging/logger.h"

namespace glidewell {

void DfrgThread::resetPassStatistics() {
  processedCount = defraggedCount = movedCount = errorCount = 0;
  nonDefraggableCount = spaceOnlyCount = 0;
  deferred.clear();
  deferredOverflow = false;
}

void DfrgThread::deferFile(const std::wstring& path) {
  if (deferred.size() < kMaxDeferredFiles) {
    deferred.push_back(path);
    return;
  }
  // Too many failures for a retry to be worth it: give up deferring this pass.
  deferred.clear();
  deferredOverflow = true;
}

void DfrgThread::logPassStatistics(const char* message, const std::wstring& volume, CDfrgContext& ctx) {
  Logger log("logPassStatistics");
  log.log(kLogInformal) << message << LogProperty("Volume", volume) << LogProperty("Pass", ctx.pass)
                        << LogProperty("PanicPass", ctx.panicPass) << LogProperty("Processed", processedCount)
                        << LogProperty("Defragged", defraggedCount) << LogProperty("Moved", movedCount)
                        << LogProperty("Errors", errorCount)
                        << LogProperty("Non-Defraggable", nonDefraggableCount)
                        << LogProperty("Non-Defraggable because of pure space reasons", spaceOnlyCount);
}

void DfrgThread::runPasses() {
  Logger log("defragSmart");
  CDfrgConfig* config = config_;
  bool moveLeftWanted = config->doMoveLeft();
  // The contexts are only ever changed on this thread, so walking them here
  // needs no lock.
  for (auto& ctxPtr : contexts_) {
    CDfrgContext& ctx = *ctxPtr;
    std::wstring volume = std::wstring(1, ctx.volume().getDriveLetter()) + L":";
    checkState(ctx);
    config->setDoMoveBetterPlace(true);
    config->setDoMoveLeft(false);
    int changed = 0;
    walkDirectory(ctx, volume, L"", false, false, false, &changed);
    checkState(ctx);
    if (changed == 0) {
      if (!moveLeftWanted) return;
      config->setDoMoveLeft(true);
    }
    updateSnapshotRange(ctx, 0, kNoCluster);
    logPassStatistics("Finished pass", volume, ctx);
  }
}

}  // namespace glidewell
