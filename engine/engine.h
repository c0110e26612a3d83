// engine: the object behind each defragmentation instance. It owns the
// settings and at most one worker (a DfrgThread and the thread that runs it),
// and serialises start, stop and pause under its recursive lock.
#ifndef GLIDEWELL_ENGINE_ENGINE_H_
#define GLIDEWELL_ENGINE_ENGINE_H_

#include <cstdint>
#include <memory>
#include <string>

#include "platform/sync.h"
#include "platform/wintypes.h"

namespace glidewell {

class CDfrgConfig;
class DfrgThread;
class engine;

// How the worker reports the error that ended (or restarted) its run.
using ErrorCallback = void (*)(int32_t code, const char* message);

// 0: the smart driver (runs until stopped); 1: one pass over every volume.
using DefragMode = int32_t;
constexpr DefragMode kDefragModeSmart = 0;
constexpr DefragMode kDefragModePasses = 1;

// What start hands to the new worker thread; the thread frees it.
struct ThreadStartRecord {
  DfrgThread* dfrgThread = nullptr;
  engine* owner = nullptr;
  CDfrgConfig* config = nullptr;
  DefragMode mode = kDefragModePasses;
  Event* doneEvent = nullptr;
  bool startPaused = false;
};

// The engine object. Its lower-case name is the one the service and the log
// know it by ("engine::start", "Engine destructor").
class engine {
 public:
  // Loads the settings (CDfrgConfig); its CDfrgException (2) propagates.
  // doneEvent is the instance's and must outlive this object.
  engine(Event* doneEvent, const std::string& registryKeyPath, HKEY root, const std::wstring& installDir);
  virtual ~engine();
  engine(const engine&) = delete;
  engine& operator=(const engine&) = delete;

  // Stops a running worker, then starts a new one and returns once it has
  // built its volume contexts (or failed before). Mode 1 first resets all
  // statistics.
  void start(bool startPaused, DefragMode mode);
  // Ends and deletes the worker; returns once it has stopped.
  void stop();
  void pause(bool pause);
  void setErrorCallback(ErrorCallback cb);
  // Called on the worker thread.
  void reportError(int code, const char* message);

  CDfrgConfig* config() const { return config_.get(); }
  const std::string& registryKeyPath() const { return registryKeyPath_; }

 private:
  RecursiveLock lock_;
  std::unique_ptr<CDfrgConfig> config_;
  ErrorCallback errorCallback_ = nullptr;
  std::unique_ptr<DfrgThread> thread_;
  Event* doneEvent_;
  std::unique_ptr<Thread> threadHandle_;
  std::string registryKeyPath_;
};

// The worker thread's procedure: runs the DfrgThread, then signals its
// stopped event and, as its very last act, the instance's done event.
void runthread(std::unique_ptr<ThreadStartRecord> record);

}  // namespace glidewell

#endif  // GLIDEWELL_ENGINE_ENGINE_H_
