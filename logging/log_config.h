// The parts of reading logconfig.xml that stand on their own: the limits on
// what is accepted as a configuration file, and the rule that merges the
// collected settings into an object (with the time stamp of file names).
// LogManager::loadConfig (log_config.cc) does the reading itself.
#ifndef GLIDEWELL_LOGGING_LOG_CONFIG_H_
#define GLIDEWELL_LOGGING_LOG_CONFIG_H_

#include <cstddef>
#include <cstdint>
#include <string>

#include "logging/configurable.h"
#include "platform/wintypes.h"

namespace glidewell {

// A configuration file is a few kilobytes. Anything bigger than this is not
// one (and is refused before memory is taken for it).
constexpr uint64_t kMaxLogConfigSize = 64ull << 20;
// Deeper nesting than any configuration needs; refused before parsing,
// because the parser recurses once per level.
constexpr size_t kMaxLogConfigNesting = 200;

// "log.txt" stamped at 09:45:02 on 2024-01-31 -> "log_20240131_094502.txt";
// the split is at the last "." (none: the stamp goes at the end).
std::string stampedFileName(const std::string& name, const SYSTEMTIME& now);

// Writes every collected key into the object's settings (replacing earlier
// values), then, when the object's "filename" is not empty and its
// "addTimeStampToFilename" is "true" or "1", stamps "filename" with now.
void mergeSettings(Configurable* object, const LogSettings& collected, const SYSTEMTIME& now);

}  // namespace glidewell

#endif  // GLIDEWELL_LOGGING_LOG_CONFIG_H_
