#include "engine/dfrg_context.h"

#include <atomic>

#include "changes/manual_change_tracker.h"
#include "config/dfrg_config.h"
#include "engine/dfrg_exception.h"
#include "logging/logger.h"
#include "platform/env.h"

namespace glidewell {

CDfrgContext::CDfrgContext(std::unique_ptr<CVolumeSystem> volume, int index, CDfrgConfig* config)
    : index(index), volume_(std::move(volume)), config_(config) {
  ScopedLock guard(lock);
  // Creating the tracker touches nothing on disk; only the smart driver starts it.
  // (A context without a volume, as some tests build, has no tracker.)
  if (volume_) {
    wchar_t letter = volume_->getDriveLetter();
    std::wstring stateDirectory = config != nullptr ? config->stateDirectory() : std::wstring();
    changeTracker = std::make_unique<CManualChangeTracker>(letter, stateDirectory + L"changeTrack_" + letter);
  }
}

CDfrgContext::~CDfrgContext() {
  // The tracker goes first and outside the context's lock: a react step takes
  // the tracker's lock before the context's, so the two are never nested the
  // other way round.
  changeTracker.reset();
  ScopedLock guard(lock);
  Logger log("~CDfrgContext");
  log.log(kLogInformal) << "Begin";
  snapshot.reset();
  volume_.reset();
  log.log(kLogInformal) << "End";
}

void CDfrgContext::stopAll() {
  Logger log("DfrgContext::stopAll");
  log.log(kLogInformal) << "Setting stop event";
  stopEvent.set();
}

void CDfrgContext::pause(bool pause) {
  if (pause) {
    runEvent.reset();
  } else {
    runEvent.set();
  }
}

namespace {
// Time of the last real check, shared by every context and thread. A race on
// it only shifts the next check.
std::atomic<uint32_t> lastCheck{0};
std::atomic<bool> lastCheckSet{false};
}  // namespace

void CDfrgContext::checkState() { glidewell::checkState(*this); }

void resetCheckStateClock() { lastCheckSet.store(false); }

void checkState(CDfrgContext& ctx) {
  Env* env = Env::current();
  uint32_t now = env->timeGetTime();
  if (!lastCheckSet.exchange(true)) lastCheck.store(now - 500);
  if (now - lastCheck.load() < 500) return;
  lastCheck.store(now);
  ctx.runEvent.wait(kWaitInfinite);
  if (ctx.stopEvent.wait(0) != WaitResult::kSignaled) return;
  Logger log("checkState");
  log.log(kLogInformal) << "Throwing stop exception because stop event is set."
                        << LogProperty("Handle", ctx.stopEvent.handleValue());
  throw CDfrgException(ErrorStopRequested);
}

}  // namespace glidewell
