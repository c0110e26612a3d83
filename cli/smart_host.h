// SmartEngineHost: the engine object held by this process to run the smart
// driver, as a service host holds it. No exported function starts that mode,
// so the host links the engine for it (the pass loop stays on the exports).
// It does for the engine what dfrg_initialize and dfrg_createDefragInstance
// do behind the exports: opens the registry of the install directory, starts
// logging there, makes the statistics object and the engine (which loads the
// settings and refreshes the drive map). One per process at a time.
#ifndef GLIDEWELL_CLI_SMART_HOST_H_
#define GLIDEWELL_CLI_SMART_HOST_H_

#include <cstdint>
#include <memory>
#include <string>

#include "cli/registry_access.h"
#include "platform/sync.h"

namespace glidewell {

class engine;

// The engine status a host sets when it starts the engine working; the smart
// driver moves it to 4 while every volume is clean and idle, and back.
constexpr int kEngineStatusWorking = 3;

class SmartEngineHost {
 public:
  // HostError when the registry cannot be opened or the engine cannot load
  // its settings; nothing is left set up then.
  explicit SmartEngineHost(const std::string& installDir);
  ~SmartEngineHost();
  SmartEngineHost(const SmartEngineHost&) = delete;
  SmartEngineHost& operator=(const SmartEngineHost&) = delete;

  // The install directory's registry, shared with the engine.
  HostRegistry& registry() { return *registry_; }
  const std::string& logFile() const { return logFile_; }

  // Sets the engine status to working and starts the smart driver; returns
  // once the worker has built its volume contexts (or ended before).
  void start();
  // Ends the worker and waits for it. Returns the seconds the stop took
  // (0 when nothing was running).
  double stop();
  // True from start() until the worker has ended, by stop() or by itself.
  bool workerRunning() const;
  // The last error the worker reported since start() (0 when none).
  int32_t lastError(std::string* message) const;

 private:
  std::unique_ptr<HostRegistry> registry_;
  std::string logFile_;
  bool logging_ = false;
  bool statistics_ = false;
  Event done_{true, false};  // set by the worker as its last act
  std::unique_ptr<engine> engine_;
  bool started_ = false;
};

}  // namespace glidewell

#endif  // GLIDEWELL_CLI_SMART_HOST_H_
