#include "engine/engine.h"

#include "config/dfrg_config.h"
#include "config/dfrg_statistics.h"
#include "engine/dfrg_thread.h"
#include "engine/random.h"
#include "engine/system_drives.h"
#include "logging/logger.h"
#include "platform/env.h"

namespace glidewell {

engine::engine(Event* doneEvent, const std::string& registryKeyPath, HKEY root, const std::wstring& installDir)
    : doneEvent_(doneEvent), registryKeyPath_(registryKeyPath.empty() ? kDefaultRegistryKeyPath : registryKeyPath) {
  addSystemDriveProviders();  // before the settings look for drives
  uint32_t ticks = Env::current()->tickCount();
  std::srand(ticks);
  seedEngineRandom(ticks);
  config_ = std::make_unique<CDfrgConfig>(installDir, root, registryKeyPath_);
}

engine::~engine() {
  Logger log("Engine destructor");
  log.log(kLogInformal) << "Calling stop.";
  stop();
  // The worker still signals doneEvent after its stopped event; let it finish
  // before the instance closes that event.
  threadHandle_.reset();
  log.log(kLogInformal) << "Deleting config.";
  config_.reset();
  log.log(kLogInformal) << "Engine destructor finished.";
}

void engine::start(bool startPaused, DefragMode mode) {
  ScopedLock guard(lock_);
  Logger log("engine::start");
  stop();
  // The previous worker thread has passed its stopped event; wait for its
  // last steps so that only one worker thread exists at a time.
  threadHandle_.reset();

  auto record = std::make_unique<ThreadStartRecord>();
  auto worker = std::make_unique<DfrgThread>(registryKeyPath_);
  record->dfrgThread = worker.get();
  record->owner = this;
  record->config = config_.get();
  record->startPaused = startPaused;
  record->doneEvent = doneEvent_;
  record->mode = mode;

  if (mode == kDefragModePasses) {
    if (CDfrgStatistics* stats = CDfrgStatistics::instance()) stats->resetAll();
  }
  thread_ = std::move(worker);
  DfrgThread* running = thread_.get();

  log.log(kLogInformal) << "Starting thread";
  threadHandle_ = Thread::start([r = record.release()]() { runthread(std::unique_ptr<ThreadStartRecord>(r)); });
  log.log(kLogInformal) << "Waiting for thread init";
  running->initDoneEvent().wait(kWaitInfinite);
  log.log(kLogInformal) << "Thread init done";
}

void engine::stop() {
  ScopedLock guard(lock_);
  if (!thread_) return;
  Logger log("engine::stop");
  log.log(kLogInformal) << "Calling thread::end.";
  thread_->end(true);
  log.log(kLogInformal) << "thread::end returned. Deleting thread object.";
  thread_.reset();
  log.log(kLogInformal) << "Thread object deleted.";
}

void engine::pause(bool pause) {
  ScopedLock guard(lock_);
  if (thread_) thread_->pause(pause);
}

void engine::setErrorCallback(ErrorCallback cb) { errorCallback_ = cb; }

void engine::reportError(int code, const char* message) {
  if (errorCallback_ != nullptr) errorCallback_(code, message != nullptr ? message : "");
}

void runthread(std::unique_ptr<ThreadStartRecord> record) {
  Logger root(Logger::kRoot, "runthread");
  setThreadName("WorkThread");
  Event* doneEvent = record->doneEvent;
  DfrgThread* worker = record->dfrgThread;
  worker->run(*record);
  root.log(kLogInformal) << "thread::run has returned";
  worker->stoppedEvent().set();
  // From here on the host may delete the DfrgThread at any moment.
  record.reset();
  doneEvent->set();
  root.log(kLogInformal) << "runthread exiting";
}

}  // namespace glidewell
