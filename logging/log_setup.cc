#include "logging/log_setup.h"

#include <atomic>
#include <memory>

#include "logging/file_appender.h"
#include "logging/log_manager.h"
#include "logging/logger.h"
#include "logging/priority_filter.h"
#include "logging/simple_layout.h"
#include "logging/std_appender.h"

namespace glidewell {

const char kGlidewellLogVersion[] = "1.06m";

namespace {

// Written by the initialising thread only; atomic because the crash report
// may read it from any thread.
std::atomic<bool> initialised{false};

std::unique_ptr<Logger>& mainRoot() {
  static std::unique_ptr<Logger> root;
  return root;
}

}  // namespace

Configurable* createLogObject(const std::string& type) {
  if (type == "SimpleLayout") return new SimpleLayout;
  if (type == "priority") return new PriorityFilter;
  if (type == "StdAppender") return new StdAppender;
  if (type == "FileAppender") {
    auto appender = std::make_unique<FileAppender>();
    appender->setSetting("postfix", "");
    return appender.release();
  }
  return nullptr;
}

void destroyLogObject(Configurable* object) { delete object; }

void initLogging(const std::wstring& installDirectory) {
  LogManager* manager = LogManager::instance();
  manager->setGenericFactory(LogObjectFactory{createLogObject, destroyLogObject});
  manager->loadConfig(installDirectory + L"\\config\\logconfig.xml");
  mainRoot().reset();  // a root left by an initialisation that was never undone
  mainRoot() = std::make_unique<Logger>(Logger::kRoot, "main");
  setThreadName("MainThread");
  mainRoot()->log(kLogAlert) << "Log started" << LogProperty("Version", kGlidewellLogVersion) << logSend;
  initialised.store(true, std::memory_order_release);
}

void deinitLogging() {
  initialised.store(false, std::memory_order_release);
  LogManager::release();
  mainRoot().reset();
}

bool loggingInitialised() { return initialised.load(std::memory_order_acquire); }

}  // namespace glidewell
