// RegistryBackend: the seam between the engine's typed registry layer
// (config/registry_store.h) and a place that keeps registry data.
//
// The operations are the handful of advapi32 calls the engine uses, with their
// results: ERROR_SUCCESS or a Win32 error number (ERROR_FILE_NOT_FOUND for a
// missing key or value, ERROR_NO_MORE_ITEMS past the end of an enumeration,
// ERROR_ACCESS_DENIED for a write through a handle without write access or the
// deletion of a key that still has subkeys, ERROR_KEY_DELETED for a handle
// onto a key that was deleted meanwhile, ERROR_INVALID_HANDLE for a handle the
// backend never issued or already closed).
//
// Three implementations:
//   - the Windows registry itself (platform/win32/registry_win32.cc);
//   - an SQLite database file, the registry on POSIX systems
//     (platform/posix/registry_sqlite.cc);
//   - an in-memory tree (platform/registry_memory.cc), for tests and for a
//     process that has no install directory.
// The two portable ones behave like the Windows registry: one tree per
// predefined root (HKEY_CURRENT_USER, HKEY_LOCAL_MACHINE, ...), names compared
// without regard to case, the spelling of a name kept as it was first written,
// subkeys and values enumerated in case-insensitive name order.
//
// Key names are narrow (the engine opens keys with the A calls), value names
// wide (the W calls). Value data is raw bytes as the registry stores them:
// REG_DWORD 4 bytes and REG_QWORD 8 bytes little-endian, REG_SZ UTF-16LE with
// its terminating NUL.
//
// Every implementation is thread safe: the host thread, the worker and the
// statistics use one backend at the same time, each through its own handles.
#ifndef GLIDEWELL_PLATFORM_REGISTRY_BACKEND_H_
#define GLIDEWELL_PLATFORM_REGISTRY_BACKEND_H_

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/wintypes.h"

#ifndef ERROR_KEY_DELETED
#define ERROR_KEY_DELETED 1018L
#endif

namespace glidewell {

class RegistryBackend {
 public:
  virtual ~RegistryBackend() = default;

  // --- Choosing the process-wide backend ---
  //
  // current() is what every CRegistryStore binds to when it is made: the
  // backend a test installed with setCurrent, else system(). The store keeps
  // its own reference, so a backend lives as long as any store made on it.
  static std::shared_ptr<RegistryBackend> current();
  // Installs a backend for the whole process (tests, tools); null goes back to
  // system(). Call it while no engine thread runs.
  static void setCurrent(std::shared_ptr<RegistryBackend> backend);
  // The system's registry. On Windows, the real registry. On POSIX systems,
  // what openSystem() opened, or an in-memory registry before that and after
  // closeSystem().
  static std::shared_ptr<RegistryBackend> system();
  // Opens the system's registry for the install directory the host gave to
  // dfrg_initialize (Env::current()->installDirectory(), set first). On POSIX
  // systems that is the database "<install dir>registry.db", created when
  // missing; with no install directory, a fresh in-memory registry. On Windows
  // it does nothing. dfrg_initialize calls it before it creates the statistics
  // object. Returns false with *error (when given) set to a one-line reason
  // when the database cannot be opened (unwritable directory, a file that is
  // not a registry database); system() is then an in-memory registry and the
  // file is left untouched.
  static bool openSystem(std::string* error = nullptr);
  // Lets go of what openSystem() opened; dfrg_deinitialize calls it after the
  // statistics object is gone. Stores still open keep their backend alive until
  // they are destroyed, so nothing dangles.
  static void closeSystem();
  // A new, empty in-memory registry.
  static std::shared_ptr<RegistryBackend> newMemory();

  // --- The registry operations ---
  //
  // A handle is an open key; a predefined root (HKEY_CURRENT_USER...) is always
  // open and is never closed. Handles from one backend mean nothing to another.

  // RegOpenKeyExA: opens the subkey `name` (one component, no separators) of
  // `parent`. An empty name opens a new handle onto `parent` itself.
  virtual LONG openKey(HKEY parent, const std::string& name, REGSAM access, HKEY* result) = 0;
  // RegCreateKeyExA (non-volatile, no class): opens the subkey, creating it
  // when missing. *created (when given) tells which happened.
  virtual LONG createKey(HKEY parent, const std::string& name, REGSAM access, HKEY* result, bool* created) = 0;
  // RegCloseKey.
  virtual LONG closeKey(HKEY key) = 0;
  // RegQueryValueExW: the value's type and its data bytes.
  virtual LONG queryValue(HKEY key, const std::wstring& name, DWORD* type, std::vector<BYTE>* data) = 0;
  // RegSetValueExW: creates or replaces the value as one atomic write.
  virtual LONG setValue(HKEY key, const std::wstring& name, DWORD type, const BYTE* data, DWORD size) = 0;
  // RegEnumKeyExA: the name of the index-th subkey.
  virtual LONG enumKey(HKEY key, DWORD index, std::string* name) = 0;
  // RegEnumValueW: the name of the index-th value.
  virtual LONG enumValue(HKEY key, DWORD index, std::wstring* name) = 0;
  // RegDeleteValueW.
  virtual LONG deleteValue(HKEY key, const std::wstring& name) = 0;
  // RegDeleteKeyA: deletes the subkey `name` of `parent` with its values. A
  // subkey that has subkeys of its own is not deleted (ERROR_ACCESS_DENIED).
  // Needs no write access on `parent`.
  virtual LONG deleteKey(HKEY parent, const std::string& name) = 0;
};

// Registry names compare after this folding (upper case, as the Windows
// registry compares); the portable backends sort by the folded form.
std::wstring foldRegistryName(const std::wstring& name);

}  // namespace glidewell

#endif  // GLIDEWELL_PLATFORM_REGISTRY_BACKEND_H_
