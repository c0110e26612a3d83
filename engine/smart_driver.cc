// The smart driver: an endless loop over the enabled volumes, one volume per
// iteration. A volume in scan mode is walked completely; once a pass leaves
// nothing defragmentable behind, the volume switches to react mode and only
// the files its change tracker reports are treated. A volume that does not
// get clean escalates to panic passes and then gives up for a while. The
// loop ends only by an exception (a stop, or an error for the top level).
#include <cwctype>

#include "config/dfrg_statistics.h"
#include "engine/dfrg_exception.h"
#include "engine/dfrg_thread.h"
#include "engine/file_walk.h"
#include "engine/random.h"
#include "logging/logger.h"
#include "platform/env.h"

namespace glidewell {

namespace {

// A volume in react mode is rescanned completely at least this often.
constexpr double kReactModeMaxAgeDays = 7.0;
// A volume that could not be opened is left alone this long.
constexpr uint32_t kVolumeBlockMs = 300000;
// Waits are cut in slices so that a stop or pause is seen meanwhile: 50 x 100 ms.
constexpr int kWaitSlices = 50;
constexpr uint32_t kWaitSliceMs = 100;
constexpr size_t kMaxCurrentDirectory = 520;

void resetPassCounters(CDfrgContext& ctx) { ctx.pass = ctx.panicPass = -1; }

void blockVolume(CDfrgContext& ctx, uint32_t ms) {
  ctx.blocked = true;
  ctx.blockUntil = Env::current()->timeGetTime() + ms;
}

bool isVolumeBlocked(CDfrgContext& ctx) {
  if (!ctx.blocked) return false;
  // Signed difference, so the millisecond clock may wrap.
  if (static_cast<int32_t>(Env::current()->timeGetTime() - ctx.blockUntil) >= 0) {
    ctx.blocked = false;
    return false;
  }
  return true;
}

// About five seconds, during which a stop or pause still takes effect.
void waitChecking(CDfrgContext& ctx) {
  for (int i = 0; i < kWaitSlices; ++i) {
    Env::current()->sleep(kWaitSliceMs);
    checkState(ctx);
  }
}

bool equalsIgnoringCase(const std::wstring& a, const std::wstring& b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    if (towlower(a[i]) != towlower(b[i])) return false;
  }
  return true;
}

// The engine's own log and resume files, which change all the time.
std::vector<std::wstring> ownFiles() {
  std::wstring dir = Env::current()->currentDirectory();
  if (dir.size() > kMaxCurrentDirectory) dir.resize(kMaxCurrentDirectory);
  if (!dir.empty() && (dir.back() == L'\\' || dir.back() == L'/')) dir.pop_back();
  std::wstring base = parentPath(dir);
  return {base + L"\\log\\log.txt", base + L"\\state\\resumeInfo"};
}

bool isLogFile(const std::wstring& path) {
  size_t dot = path.rfind(L'.');
  return dot != std::wstring::npos && equalsIgnoringCase(path.substr(dot), L".LOG");
}

}  // namespace

// Holds the tracker's lock during a react step and, on every way out, leaves
// react processing and the engine status as they were.
class ReactStepScope {
 public:
  ReactStepScope(DfrgThread& thread, CChangeTracker& tracker) : thread_(thread), tracker_(tracker) { tracker_.lock(); }
  ~ReactStepScope() {
    if (thread_.reactInProgress_) {
      thread_.reactInProgress_ = false;
      thread_.updateEngineStatus();
    }
    tracker_.unlock();
  }
  ReactStepScope(const ReactStepScope&) = delete;
  ReactStepScope& operator=(const ReactStepScope&) = delete;

 private:
  DfrgThread& thread_;
  CChangeTracker& tracker_;
};

CDfrgContext& DfrgThread::chooseSmartVolume(int& lastIndex) {
  CDfrgContext* chosen = nullptr;
  int index = -1;
  if (resumePath_.size() >= 2 && resumePath_[1] == L':') {
    for (size_t i = 0; i < contexts_.size(); ++i) {
      if (contexts_[i]->volume().getDriveLetter() == resumePath_[0]) {
        chosen = contexts_[i].get();
        index = static_cast<int>(i);
        break;
      }
    }
  }
  if (chosen == nullptr) {
    resumePath_.clear();
    resetPassStatistics();
    int n = static_cast<int>(contexts_.size());
    index = static_cast<int>(nextEngineRandom() % static_cast<uint32_t>(n));
    while (n > 1 && index == lastIndex) index = static_cast<int>(nextEngineRandom() % static_cast<uint32_t>(n));
    chosen = contexts_[static_cast<size_t>(index)].get();
  }
  lastIndex = index;
  return *chosen;
}

void DfrgThread::defragSmart() {
  Logger log("defragSmart");
  updateEngineStatus();
  const std::vector<std::wstring> excluded = ownFiles();
  migrateVolumeModes();
  updateEngineStatus();
  int lastIndex = -1;
  bool waitBeforeReact = false;
  for (;;) smartIteration(lastIndex, waitBeforeReact, excluded);
}

void DfrgThread::smartIteration(int& lastIndex, bool& waitBeforeReact, const std::vector<std::wstring>& excluded) {
  Logger log("defragSmart");
  CDfrgStatistics* stats = CDfrgStatistics::instance();
  std::wstring startDir;
  bool dirty = false;
  loadResumeInfo();
  CDfrgContext& ctx = chooseSmartVolume(lastIndex);
  CChangeTracker& tracker = *ctx.changeTracker;
  const std::wstring volume = std::wstring(1, ctx.volume().getDriveLetter()) + L":";

  double age = 0.0;
  int32_t mode = getVolumeMode(ctx, &age);
  if (mode == kVolumeModeReact && age >= kReactModeMaxAgeDays) {
    log.log(kLogInformal) << "Resetting volume mode to scan mode because of react mode age."
                          << LogProperty("Volume", volume);
    mode = setVolumeMode(ctx, kVolumeModeScan);
    resetPassCounters(ctx);
    dirty = true;
  }

  try {
    if (isVolumeBlocked(ctx)) {
      checkState(ctx);
      waitChecking(ctx);
      if (isVolumeBlocked(ctx)) return;
    }

    bool react = mode == kVolumeModeReact;
    if (mode == kVolumeModeScan) {
      dirty = true;
      if (!resumePath_.empty()) {
        // An interrupted pass cannot be trusted without its record of changes.
        if (tracker.resumeTracking()) {
          startDir = parentPath(resumePath_);
        } else {
          resumePath_.clear();
        }
      }
      checkState(ctx);
      if (resumePath_.empty()) {
        if (stats != nullptr) stats->resetRun();
        resetPassStatistics();
        ctx.pass += 1;
        startDir = volume;
        tracker.startTracking();
      }
      scanInProgress_ = true;
      // A stop before the first file keeps the resume point it started from.
      currentFile_ = resumePath_;
      walkDirectory(ctx, startDir, resumePath_, false, false, false, nullptr);
      scanInProgress_ = false;
      currentFile_.clear();
      retryDeferredFiles(ctx);
      logPassStatistics("Finished Scan pass", volume, ctx);
      mode = judgeScanPass(ctx, volume);
      resumePath_.clear();
      react = mode == kVolumeModeReact;
    }

    if (react) {
      reactStep(ctx, volume, mode, dirty, waitBeforeReact, excluded);
    } else {
      waitBeforeReact = false;
    }
    if (mode == kVolumeModeScan) tracker.stopTracking();
    if (stats != nullptr) stats->flush(true);
    if (dirty) saveResumeInfo();
    scanInProgress_ = false;
  } catch (const CDfrgException& e) {
    if (e.code == ErrorVolumeUnavailable) {
      log.log(kLogInformal) << "Could not open volume." << LogProperty("Volume", volume);
      blockVolume(ctx, kVolumeBlockMs);
      scanInProgress_ = false;
      if (stats != nullptr) stats->flush(true);
      if (dirty) saveResumeInfo();
      return;
    }
    if (e.code == ErrorStopRequested) {
      // The restarted driver continues this pass at the interrupted file.
      if (mode == kVolumeModeScan) resumePath_ = currentFile_;
      saveResumeInfo();
      resetPassStatistics();
      resumePath_.clear();
      scanInProgress_ = false;
      throw;
    }
    abandonVolume(ctx, volume);
    throw;
  } catch (...) {
    abandonVolume(ctx, volume);
    throw;
  }
}

void DfrgThread::retryDeferredFiles(CDfrgContext& ctx) {
  // The list may not change under the loop: copy it.
  std::vector<std::wstring> files = deferred_;
  try {
    for (const std::wstring& path : files) {
      int n = 0;
      processFile(ctx, path, &n, false);
      // The walk counted the file already; its retry counts instead.
      counters_.processed -= 1;
      counters_.nonDefraggable -= 1;
    }
  } catch (...) {
    currentFile_.clear();
    throw;
  }
}

int32_t DfrgThread::judgeScanPass(CDfrgContext& ctx, const std::wstring& volume) {
  Logger log("defragSmart");
  if (counters_.nonDefraggable - counters_.spaceOnly <= 0) {
    // Files that failed only for lack of free space do not keep a volume scanning.
    int32_t mode = setVolumeMode(ctx, kVolumeModeReact);
    resetPassCounters(ctx);
    log.log(kLogInformal) << "Volume is clean. Switching to react mode" << LogProperty("Volume", volume);
    return mode;
  }
  if (static_cast<double>(counters_.defragged + counters_.moved) >= static_cast<double>(counters_.processed) * 0.01) {
    return kVolumeModeScan;  // still making progress
  }
  if (ctx.pass < 2) return kVolumeModeScan;
  ctx.panicPass += 1;
  if (ctx.panicPass > 2) {
    log.log(kLogInformal) << "Unable to defragment all files in panic mode. Giving up for now..."
                          << LogProperty("Volume", volume);
    int32_t mode = setVolumeMode(ctx, kVolumeModeReact);
    resetPassCounters(ctx);
    return mode;
  }
  log.log(kLogInformal) << "Unable to defragment all files in standard mode. Activating panic mode"
                        << LogProperty("Volume", volume);
  return kVolumeModeScan;
}

void DfrgThread::reactStep(CDfrgContext& ctx, const std::wstring& volume, int32_t& mode, bool& dirty,
                           bool& waitBeforeReact, const std::vector<std::wstring>& excluded) {
  Logger log("defragSmart");
  CChangeTracker& tracker = *ctx.changeTracker;
  if (!tracker.resumeTracking()) {
    log.log(kLogInformal) << "Resetting volume mode to scan mode because resumeTracking failed."
                          << LogProperty("Volume", volume);
    mode = setVolumeMode(ctx, kVolumeModeScan);
    resetPassCounters(ctx);
    dirty = true;
    waitBeforeReact = true;
    return;
  }
  checkState(ctx);
  // Consecutive react steps are at least five seconds apart.
  if (waitBeforeReact) waitChecking(ctx);
  int rc;
  {
    ReactStepScope scope(*this, tracker);
    rc = tracker.nextChange();
    while (rc == kChangeAvailable) {
      ChangeEntry change;
      rc = tracker.getCurrentChange(change);
      if (rc != kChangeAvailable) break;
      bool skip = false;
      for (const std::wstring& own : excluded) skip = skip || equalsIgnoringCase(change.path, own);
      if (!skip) {
        dirty = true;
        skip = isLogFile(change.path);
      }
      if (!skip) {
        if (!reactInProgress_) {
          reactInProgress_ = true;
          updateEngineStatus();
        }
        int n = 0;
        processFile(ctx, change.path, &n, false);
      }
      rc = tracker.nextChange();
    }
  }
  if (rc == kTrackingInvalidated) {
    log.log(kLogAlert) << "Change tracking invalidated. Switching to scan mode." << LogProperty("Volume", volume);
    mode = setVolumeMode(ctx, kVolumeModeScan);
    resetPassCounters(ctx);
    dirty = true;
  }
  waitBeforeReact = true;
}

void DfrgThread::abandonVolume(CDfrgContext& ctx, const std::wstring& volume) {
  Logger log("defragSmart");
  try {
    ctx.changeTracker->stopTracking();
  } catch (const CDfrgException&) {
    // The state file could not be written; the exception being handled is
    // the one that matters.
  }
  log.log(kLogInformal) << "Resetting volume mode to scan mode because an exception was encountered."
                        << LogProperty("Volume", volume);
  setVolumeMode(ctx, kVolumeModeScan);
  resetPassCounters(ctx);
  scanInProgress_ = false;
  resetPassStatistics();
  resumePath_.clear();
  saveResumeInfo();
}

}  // namespace glidewell
