#include "cli/host_files.h"
#include "cli/registry_location.h"

namespace glidewell {

std::string registryLocation(const std::string& installDir) { return installDir + "registry.db"; }

bool registryExists(const std::string& installDir) { return isRegularFile(registryLocation(installDir)); }

}  // namespace glidewell
