#include "cli/smart_host.h"

#include <fmt/format.h>

#include <chrono>
#include <mutex>

#include "cli/host_files.h"
#include "cli/log_config_file.h"
#include "config/dfrg_config.h"
#include "config/dfrg_statistics.h"
#include "engine/dfrg_exception.h"
#include "engine/engine.h"
#include "logging/log_setup.h"
#include "platform/text.h"

namespace glidewell {

namespace {

// The engine reports errors through a plain function; one host per process.
std::mutex errorMutex;
int32_t reportedCode = 0;
std::string reportedMessage;

void storeError(int32_t code, const char* message) {
  std::lock_guard<std::mutex> g(errorMutex);
  reportedCode = code;
  reportedMessage = message != nullptr ? message : "";
}

}  // namespace

SmartEngineHost::SmartEngineHost(const std::string& installDir) {
  // HostRegistry opens the system's registry for the install directory; the
  // engine's stores bind to that same registry.
  registry_ = HostRegistry::open(installDir, true);
  logFile_ = installLogConfig(installDir);
  try {
    initLogging(widen(installDir));
    logging_ = true;
    CDfrgStatistics::create(HKEY_CURRENT_USER, kDefaultRegistryKeyPath);
    statistics_ = true;
    engine_ = std::make_unique<engine>(&done_, kDefaultRegistryKeyPath, HKEY_CURRENT_USER, widen(installDir));
  } catch (const CDfrgException& e) {
    if (statistics_) CDfrgStatistics::destroy();
    if (logging_) deinitLogging();
    throw HostError(fmt::format("the engine could not load its settings from {}: error {} ({})", registry_->path(),
                                e.code, e.message));
  }
  engine_->setErrorCallback(&storeError);
}

SmartEngineHost::~SmartEngineHost() {
  engine_.reset();  // stops a worker that still runs
  CDfrgStatistics::destroy();
  deinitLogging();
  registry_.reset();
}

void SmartEngineHost::start() {
  storeError(0, "");
  if (CDfrgStatistics* stats = CDfrgStatistics::instance()) {
    stats->setStatus(kEngineStatusWorking);
    stats->flush(true);
  }
  done_.reset();
  started_ = true;
  engine_->start(false, kDefragModeSmart);
}

double SmartEngineHost::stop() {
  if (!started_) return 0;
  auto begin = std::chrono::steady_clock::now();
  engine_->stop();
  started_ = false;
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

bool SmartEngineHost::workerRunning() const { return started_ && !done_.isSet(); }

int32_t SmartEngineHost::lastError(std::string* message) const {
  std::lock_guard<std::mutex> g(errorMutex);
  if (message != nullptr) *message = reportedMessage;
  return reportedCode;
}

}  // namespace glidewell
