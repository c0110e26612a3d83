// What the two portable registry backends (in memory, SQLite) share: the
// predefined roots, the access rights each operation needs, and handle values
// that never collide with a predefined root.
#ifndef GLIDEWELL_PLATFORM_REGISTRY_PORTABLE_H_
#define GLIDEWELL_PLATFORM_REGISTRY_PORTABLE_H_

#include <cstdint>
#include <string>

#include "platform/wintypes.h"

namespace glidewell {
namespace registry_portable {

// HKEY_CLASSES_ROOT .. HKEY_USERS.
constexpr int kRootCount = 4;

// 0 for HKEY_CLASSES_ROOT up to 3 for HKEY_USERS; -1 for any other handle.
inline int rootIndex(HKEY key) {
  uintptr_t v = reinterpret_cast<uintptr_t>(key);
  uintptr_t first = reinterpret_cast<uintptr_t>(HKEY_CLASSES_ROOT);
  return v >= first && v < first + kRootCount ? static_cast<int>(v - first) : -1;
}

const char* rootName(int index);

// Handles the backends issue: small multiples of 4 from 0x1000, far below the
// predefined roots at 0x80000000.
inline HKEY handleFromNumber(uintptr_t n) { return reinterpret_cast<HKEY>(0x1000 + 4 * n); }

// The rights an operation needs on the handle it is given, as the Windows
// registry checks them. A predefined root has every right.
constexpr REGSAM kNeedQuery = KEY_QUERY_VALUE;
constexpr REGSAM kNeedSet = KEY_SET_VALUE;
constexpr REGSAM kNeedCreate = KEY_CREATE_SUB_KEY;
constexpr REGSAM kNeedEnumKeys = KEY_ENUMERATE_SUB_KEYS;
inline bool allows(REGSAM granted, REGSAM needed) { return (granted & needed) == needed; }

// A key name is one component: it may not hold a backslash.
inline bool validKeyName(const std::string& name) { return name.find('\\') == std::string::npos; }

}  // namespace registry_portable
}  // namespace glidewell

#endif  // GLIDEWELL_PLATFORM_REGISTRY_PORTABLE_H_
