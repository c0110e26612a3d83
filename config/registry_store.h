// Typed registry access (replaced by the full store).
#ifndef GLIDEWELL_CONFIG_REGISTRY_STORE_H_
#define GLIDEWELL_CONFIG_REGISTRY_STORE_H_
namespace glidewell {
class CRegistryStore {};
class CRegistryKey {};
}  // namespace glidewell
#endif
