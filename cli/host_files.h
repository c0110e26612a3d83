// Files and directories of the host: install directories, drive images
// copied in and out, atomic replacement. Every failure is a HostError whose
// message is one line naming the path and the reason.
#ifndef GLIDEWELL_CLI_HOST_FILES_H_
#define GLIDEWELL_CLI_HOST_FILES_H_

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

namespace glidewell {

// A failure the host reports to its user as one line on stderr.
class HostError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// A command line that asks for something the host cannot do (exit status 2).
class UsageError : public HostError {
 public:
  using HostError::HostError;
};

// The directory with exactly one trailing '/', made absolute (the engine
// appends "state\" and "volumes\" to it directly, and runs with another
// working directory in mind than the user's).
std::string asDirectory(const std::string& path);

// The install directory a command works on: `option` when given, else
// $GLIDEWELL_HOME, else ~/.glidewell/. Always with a trailing '/'.
std::string resolveInstallDirectory(const std::string& option);

// Creates the directory and its parents; HostError when that fails or when
// the directory cannot be written (checked by creating a file in it).
void prepareDirectory(const std::string& dir);

// A fresh directory "<system temp>/<prefix>XXXXXX/" that the caller owns
// (it is not removed: the demo leaves its pictures and log there).
std::string makeTemporaryDirectory(const std::string& prefix);

bool pathExists(const std::string& path);
bool isRegularFile(const std::string& path);

std::vector<uint8_t> readWholeFile(const std::string& path);
// Writes path + ".tmp", flushes it to the device and renames it over path,
// so that path holds either its old bytes or all of the new ones.
void writeFileAtomically(const std::string& path, const std::vector<uint8_t>& bytes);
void copyFileAtomically(const std::string& from, const std::string& to);
void removeFile(const std::string& path);

}  // namespace glidewell

#endif  // GLIDEWELL_CLI_HOST_FILES_H_
