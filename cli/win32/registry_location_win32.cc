#include "cli/registry_location.h"

namespace glidewell {

std::string registryLocation(const std::string&) { return "the Windows registry"; }

bool registryExists(const std::string&) { return true; }

}  // namespace glidewell
