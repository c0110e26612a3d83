// The pass loop (one walk over every enabled volume, then the run ends) and
// the pass statistics that the drivers and movers share.
#include "config/dfrg_config.h"
#include "engine/dfrg_exception.h"
#include "engine/dfrg_thread.h"
#include "logging/logger.h"

namespace glidewell {

void DfrgThread::resetPassStatistics() {
  counters_.processed = counters_.defragged = counters_.moved = counters_.errors = 0;
  counters_.nonDefraggable = counters_.spaceOnly = 0;
  deferred_.clear();
  deferredOverflow_ = false;
}

void DfrgThread::deferFile(const std::wstring& path) {
  if (deferred_.size() < kMaxDeferredFiles) {
    deferred_.push_back(path);
    return;
  }
  // Too many failures for a retry to be worth it: give up deferring this pass.
  deferred_.clear();
  deferredOverflow_ = true;
}

void DfrgThread::logPassStatistics(const char* message, const std::wstring& volume, CDfrgContext& ctx) {
  Logger log("logPassStatistics");
  log.log(kLogInformal) << message << LogProperty("Volume", volume) << LogProperty("Pass", ctx.pass)
                        << LogProperty("PanicPass", ctx.panicPass) << LogProperty("Processed", counters_.processed)
                        << LogProperty("Defragged", counters_.defragged) << LogProperty("Moved", counters_.moved)
                        << LogProperty("Errors", counters_.errors)
                        << LogProperty("Non-Defraggable", counters_.nonDefraggable)
                        << LogProperty("Non-Defraggable because of pure space reasons", counters_.spaceOnly);
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
