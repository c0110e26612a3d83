// The registry on POSIX systems: one SQLite database file holding the key
// tree and the values of every predefined root.
//
// Tables: registry_keys(id, parent, name, fold) and registry_values(key, name,
// fold, type, data), where `fold` is the upper-cased name that lookups and the
// enumeration order use. The file is in WAL mode with a busy timeout, so
// another process (a front end showing the statistics) reads it while the
// engine writes. Each write is one SQLite transaction: a process killed in the
// middle of a write leaves the old value or the new one, never a mixture.
#ifndef GLIDEWELL_PLATFORM_POSIX_REGISTRY_SQLITE_H_
#define GLIDEWELL_PLATFORM_POSIX_REGISTRY_SQLITE_H_

#include <memory>
#include <string>

#include "platform/registry_backend.h"

namespace glidewell {

// Opens the database at `path` (a POSIX path), creating the file and its
// tables when missing. Returns null with *error (when given) set to a one-line
// reason when the file cannot be opened or is not a registry database; such a
// file is left as it is.
std::shared_ptr<RegistryBackend> openSqliteRegistry(const std::string& path, std::string* error);

}  // namespace glidewell

#endif  // GLIDEWELL_PLATFORM_POSIX_REGISTRY_SQLITE_H_
