// Where the registry of an install directory lives: on POSIX systems a
// database file in the directory, on Windows the system's registry.
#ifndef GLIDEWELL_CLI_REGISTRY_LOCATION_H_
#define GLIDEWELL_CLI_REGISTRY_LOCATION_H_

#include <string>

namespace glidewell {

// How messages name it: the database's path, or "the Windows registry".
std::string registryLocation(const std::string& installDir);
// False when there is no database yet (nothing has run there).
bool registryExists(const std::string& installDir);

}  // namespace glidewell

#endif  // GLIDEWELL_CLI_REGISTRY_LOCATION_H_
