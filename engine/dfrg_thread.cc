#include "engine/dfrg_thread.h"

#include "config/dfrg_config.h"
#include "dump/volume_dump.h"
#include "engine/dfrg_exception.h"
#include "engine/random.h"
#include "logging/exception_report.h"
#include "logging/logger.h"
#include "platform/crash_handler.h"
#include "platform/env.h"
#include "platform/text.h"
#include "volume/drive_volume.h"

namespace glidewell {

namespace {
// How long a run that failed with an unexpected error waits before it is
// rebuilt, so a persistent failure does not spin the worker.
constexpr uint32_t kRetryPauseMs = 1000;
}  // namespace

DfrgThread::DfrgThread(const std::string& registryKeyPath)
    : registryKeyPath_(registryKeyPath.empty() ? kDefaultRegistryKeyPath : registryKeyPath) {}

DfrgThread::~DfrgThread() {
  // A worker that never ran has nobody to set its stopped event.
  end(started_.load());
  deleteContexts();
}

size_t DfrgThread::contextCount() {
  ScopedLock guard(lock);
  return contexts_.size();
}

void DfrgThread::deleteContexts() {
  ScopedLock guard(lock);
  contexts_.clear();
  volumeStates_.clear();
}

void DfrgThread::run(ThreadStartRecord& rec) {
  started_.store(true);
  engine_ = rec.owner;
  installCrashHandler(reportUnhandledException);
  seedEngineRandom(Env::current()->tickCount());
  Logger log("main");
  log.log(kLogInformal) << "Thread Start";

  for (;;) {
    try {
      config_ = rec.config;
      buildContexts();
      config_ = rec.config;
      if (rec.startPaused) pause(true);
      initDoneEvent_.set();
      if (contextCount() == 0) {
        log.log(kLogError) << "You didn't enabled a Volume to defrag, Service ends";
        throw CDfrgException(ErrorNoVolumesSelected, "You didn't enabled a Volume to Defrag");
      }
      // A stop that arrived while the contexts were being rebuilt.
      if (stopRequested_.isSet()) throw CDfrgException(ErrorStopRequested);
      dispatch(rec.mode);
      break;
    } catch (const CDfrgException& e) {
      deleteContexts();
      if (engine_ != nullptr) engine_->reportError(e.code, e.message.c_str());
      if (e.code == ErrorNoVolumesSelected) {
        log.log(kLogInformal) << "Defrag thread terminating because no Volumes where selected to defrag";
        break;
      }
      if (e.code == ErrorStopRequested) {
        log.log(kLogInformal) << "Defrag thread terminating because of stop request."
                              << LogProperty("ErrorMessage", e.message);
        break;
      }
      log.log(kLogAlert) << "Top-Level exception in defrag thread." << LogProperty("ErrorCode", e.code)
                         << LogProperty("ErrorMessage", e.message);
      if (stopRequested_.wait(kRetryPauseMs) == WaitResult::kSignaled) {
        engine_->reportError(ErrorStopRequested, "");
        log.log(kLogInformal) << "Defrag thread terminating because of stop request."
                              << LogProperty("ErrorMessage", "");
        break;
      }
    }
  }
  // initDoneEvent must be set on every path, or engine::start waits for ever.
  initDoneEvent_.set();
  log.log(kLogInformal) << "Defrag thread::run exiting.";
}

namespace {
// The dump file of a dump-mode run; closed when the contexts are built.
struct DumpStream {
  std::FILE* file = nullptr;
  ~DumpStream() {
    if (file != nullptr) std::fclose(file);
  }
};
}  // namespace

void DfrgThread::buildContexts() {
  Logger log("main");
  CDfrgConfig* config = config_;
  DumpStream dump;
  if (config != nullptr && config->makeDump()) {
    dump.file = Env::current()->openStream(config->dumpPath(), "wb");
    // A dump that was asked for and cannot be written ends the process.
    if (dump.file == nullptr && config->makeDump()) Env::current()->exitProcess(-1);
  }
  for (int n = 0;; ++n) {
    char letter = config != nullptr ? config->enabledDrive(n) : 0;
    if (letter == 0) break;
    std::unique_ptr<CDfrgContext> ctx;
    try {
      std::unique_ptr<CVolumeSystem> volume = openDriveVolume(static_cast<wchar_t>(letter));
      if (!volume) {  // no drive of that letter any more
        throw CDfrgException(ErrorVolumeUnavailable,
                             std::string("Couldn't open Volume ! \\\\.\\") + letter + ":");
      }
      ctx = std::make_unique<CDfrgContext>(std::move(volume), static_cast<int>(contextCount()), config);
      if (dump.file != nullptr) {
        // In a dump run no context remains. A failed entry write ends this
        // volume's record; the next volume's record follows it.
        try {
          writeVolumeDump(dump.file, ctx.get());
        } catch (const std::string&) {
        } catch (const char*) {
        } catch (int) {
        } catch (long) {
        }
        ctx.reset();
        continue;
      }
    } catch (const CDfrgException& e) {
      log.log(kLogAlert) << "Exception while creating Disk/Context" << LogProperty("ErrorCode", e.code)
                         << LogProperty("ErrorMessage", e.message);
      if (!ctx) continue;  // the volume was not opened: skip the drive
      // The context exists: the error came from writing its dump; keep it.
    }
    if (stopRequested_.isSet()) ctx->stopAll();
    ScopedLock guard(lock);
    contexts_.push_back(std::move(ctx));
    volumeStates_.push_back(std::make_unique<VolumeState>());
  }
}

void DfrgThread::dispatch(DefragMode mode) {
  switch (mode) {
    case kDefragModeSmart:
      defragSmart();
      return;
    case kDefragModePasses:
      runPasses();
      return;
    default:
      throw CDfrgException(ErrorStopRequested, "Unknown Defrag Mode requested");
  }
}

void DfrgThread::end(bool wait) {
  Logger log("DfrgThread::end");
  log.log(kLogInformal) << "Stopping all contexts";
  {
    ScopedLock guard(lock);
    stopRequested_.set();
    for (auto& ctx : contexts_) {
      ctx->stopAll();
      ctx->pause(false);
    }
  }
  if (wait) {
    log.log(kLogInformal) << "Waiting for stopped event.";
    stoppedEvent_.wait(kWaitInfinite);
  }
  log.log(kLogInformal) << "Exiting function.";
}

void DfrgThread::pause(bool pause) {
  ScopedLock guard(lock);
  for (auto& ctx : contexts_) ctx->pause(pause);
}

}  // namespace glidewell
