// Setting the logging library up and tearing it down: what dfrg_initialize
// and dfrg_deinitialize do for logging, and the engine's factory of log
// objects.
#ifndef GLIDEWELL_LOGGING_LOG_SETUP_H_
#define GLIDEWELL_LOGGING_LOG_SETUP_H_

#include <string>

#include "logging/configurable.h"

namespace glidewell {

// The engine's factory: "SimpleLayout", "priority" (PriorityFilter),
// "StdAppender", "FileAppender" (with "postfix" preset to ""); any other
// name gives null. The object belongs to the caller, who hands it to
// destroyLogObject (the LogManager does both).
Configurable* createLogObject(const std::string& type);
void destroyLogObject(Configurable* object);

// On the initialising thread, after the install directory is known:
// registers the engine's factory with the LogManager, loads
// <installDirectory>\config\logconfig.xml (without a usable file the engine
// runs with no outputs), creates the "main" root logger, names the thread
// "MainThread", logs "Log started" (priority 500, property "Version" =
// "1.06m") and marks logging as initialised.
void initLogging(const std::wstring& installDirectory);

// Deletes the LogManager with every appender, filter and layout, then the
// "main" root logger. Run after every other thread has stopped logging.
void deinitLogging();

// True between initLogging and deinitLogging (read by the crash report).
bool loggingInitialised();

// The version the start banner reports.
extern const char kGlidewellLogVersion[];

}  // namespace glidewell

#endif  // GLIDEWELL_LOGGING_LOG_SETUP_H_
