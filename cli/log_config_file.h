// The logging configuration the host installs into an install directory, so
// that the engine logs to a file there and leaves the console to the host.
#ifndef GLIDEWELL_CLI_LOG_CONFIG_FILE_H_
#define GLIDEWELL_CLI_LOG_CONFIG_FILE_H_

#include <string>

namespace glidewell {

// The engine's default configuration (logging/logconfig.xml), built in.
const char* defaultLogConfigText();

// The default configuration fitted to this host: its file appender writes to
// logFilePath (the engine opens a relative name in the working directory,
// wherever the user happens to be), and the console appender is gone, since
// the host draws its progress bar there. False when the text does not have
// the one file appender and one console appender this relies on.
bool fitLogConfigToHost(const std::string& text, const std::string& logFilePath, std::string* out);

// Writes <installDir>config/logconfig.xml from the default, unless the
// directory already has one (a user's own configuration is kept). Returns the
// log file's path. HostError when the file cannot be written.
std::string installLogConfig(const std::string& installDir);

}  // namespace glidewell

#endif  // GLIDEWELL_CLI_LOG_CONFIG_FILE_H_
