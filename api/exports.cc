// The ten exported functions and the process-wide state behind them.
//
// No exception ever leaves an export. The state has no lock: the host calls
// the lifecycle functions from one thread, and the worker writes the last
// error (through storeLastError) before it signals the done event that the
// host polls.
#include <string>

#include "api/defrag_instance.h"
#include "config/dfrg_statistics.h"
#include "engine/dfrg_exception.h"
#include "glidewell/dfrg.h"
#include "logging/exception_report.h"
#include "logging/log_setup.h"
#include "logging/logger.h"
#include "platform/crash_handler.h"
#include "platform/env.h"
#include "platform/registry_backend.h"

namespace glidewell {
namespace {

int initialised = 0;
std::wstring installDirectory;
std::string registryKeyPath;
int32_t lastErrorCode = 0;
std::string lastErrorMessage;

void storeLastError(int32_t code, const char* message) {
  lastErrorCode = code;
  lastErrorMessage = message != nullptr ? message : "";
}

}  // namespace
}  // namespace glidewell

using namespace glidewell;

extern "C" {

DFRG_API int DFRG_CALL dfrg_initialize(const wchar_t* installDir, const char* keyPath) {
  if (initialised) return 0;
  if (installDir == nullptr || keyPath == nullptr) return 0;
  try {
    installCrashHandler(reportUnhandledException);
    installDirectory = installDir;
    registryKeyPath = keyPath;
    Env::current()->setInstallDirectory(installDirectory);
    initLogging(installDirectory);
    // A registry database that cannot be opened leaves an in-memory registry:
    // the engine still runs, with default settings.
    std::string registryError;
    if (!RegistryBackend::openSystem(&registryError)) {
      Logger log("dfrg_initialize");
      log.log(kLogError) << "Couldn't open the registry database, settings are not kept"
                         << LogProperty("Error", registryError);
    }
    CDfrgStatistics::create(HKEY_CURRENT_USER, registryKeyPath);
  } catch (...) {
    return 0;
  }
  initialised = 1;
  return 1;
}

DFRG_API int DFRG_CALL dfrg_deinitialize(void) {
  if (!initialised) return 0;
  try {
    CDfrgStatistics::destroy();
    RegistryBackend::closeSystem();
    deinitLogging();
  } catch (...) {
  }
  initialised = 0;
  return 1;
}

DFRG_API DfrgHandle DFRG_CALL dfrg_createDefragInstance(void) {
  if (!initialised) return nullptr;
  try {
    auto instance = std::make_unique<DefragInstance>();
    instance->doneEvent = std::make_unique<Event>(false, false);
    try {
      instance->owner = std::make_unique<engine>(instance->doneEvent.get(), registryKeyPath, HKEY_CURRENT_USER,
                                                 installDirectory);
      instance->owner->setErrorCallback(&storeLastError);
      instance->pausePipe = std::make_unique<PausePipeClient>(kPausePipeName);
      instance->pausePipe->connect();
    } catch (const CDfrgException& e) {
      lastErrorCode = e.code;
      return nullptr;
    }
    return instance.release();
  } catch (...) {
    lastErrorCode = -1;
    return nullptr;
  }
}

DFRG_API int DFRG_CALL dfrg_deleteDefragInstance(DfrgHandle handle) {
  if (!initialised || handle == nullptr) return 0;
  std::unique_ptr<DefragInstance> instance(static_cast<DefragInstance*>(handle));
  try {
    // The engine's destructor ends the worker and waits for its thread, so
    // the done event outlives every use of it.
    instance->owner.reset();
    if (instance->pausePipe) instance->pausePipe->close();
    instance->pausePipe.reset();
    instance->doneEvent.reset();
  } catch (...) {
  }
  return 1;
}

DFRG_API int DFRG_CALL dfrg_startDefrag(DfrgHandle handle) {
  if (!initialised) return 0;
  try {
    static_cast<DefragInstance*>(handle)->owner->start(false, kDefragModePasses);
    return 1;
  } catch (const CDfrgException& e) {
    lastErrorCode = e.code;
  } catch (...) {
  }
  return 0;
}

DFRG_API int DFRG_CALL dfrg_stopDefrag(DfrgHandle handle) {
  if (!initialised) return 0;
  try {
    static_cast<DefragInstance*>(handle)->owner->stop();
    return 1;
  } catch (const CDfrgException& e) {
    lastErrorCode = e.code;
  } catch (...) {
  }
  return 0;
}

DFRG_API int DFRG_CALL dfrg_pauseDefrag(DfrgHandle handle, int pause) {
  if (!initialised) return 0;
  try {
    static_cast<DefragInstance*>(handle)->owner->pause(pause != 0);
    return 1;
  } catch (const CDfrgException& e) {
    lastErrorCode = e.code;
  } catch (...) {
  }
  return 0;
}

DFRG_API int DFRG_CALL dfrg_isRunning(DfrgHandle handle) {
  if (handle == nullptr) return 0;
  WaitResult r = static_cast<DefragInstance*>(handle)->doneEvent->wait(0);
  return r == WaitResult::kTimeout ? 1 : 0;
}

DFRG_API int DFRG_CALL dfrg_getLastErrorCode(void) { return lastErrorCode; }

DFRG_API const char* DFRG_CALL dfrg_getLastErrorMessage(void) { return lastErrorMessage.c_str(); }

}  // extern "C"
