// The registry database of an install directory as the host reads and writes
// it: settings by name (for `config`), statistics (for `stats` and the
// progress bar). The engine inside the shared library keeps its own
// connection to the same database file; SQLite keeps the two consistent.
#ifndef GLIDEWELL_CLI_REGISTRY_ACCESS_H_
#define GLIDEWELL_CLI_REGISTRY_ACCESS_H_

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/registry_backend.h"

namespace glidewell {

// A value as stored: its type and raw bytes.
struct RegistryValue {
  DWORD type = 0;
  std::vector<BYTE> data;
};

// One setting below <key path>\settings, named as the user writes it:
// "MaxClusterMoveCount", "dumpPath", or a drive's value "C:/enabled".
struct SettingName {
  std::string drive;    // "C:" for a per-drive value, else ""
  std::wstring value;   // the value's name, spelled as the engine spells it
  DWORD type;           // REG_DWORD or REG_SZ
  std::optional<std::wstring> defaultText;  // what the engine uses when it is missing

  std::string display() const;  // "MaxClusterMoveCount", "C:/enabled"
};

// UsageError for a name the engine does not know, listing the known ones.
SettingName parseSettingName(const std::string& name);
// Every setting the engine knows, in the order `config list` shows them.
std::vector<SettingName> knownSettings();

// The value of text for a setting of that type: REG_DWORD takes decimal or
// 0x-prefixed hexadecimal up to 0xFFFFFFFF; REG_SZ takes the text as it is.
// UsageError for anything else.
RegistryValue parseSettingValue(const SettingName& name, const std::string& text);
// A value as text: numbers in decimal, REG_SZ up to its NUL, anything else
// (a value of a type nobody expects, a DWORD of the wrong size) with its type
// and bytes in hexadecimal.
std::string formatValue(const RegistryValue& value);
const char* typeName(DWORD type);

class HostRegistry {
 public:
  // Opens the registry of the install directory (registry_location.h).
  // Without `create`, HostError when there is no database yet (nothing has
  // run there). One at a time per process.
  static std::unique_ptr<HostRegistry> open(const std::string& installDir, bool create);
  ~HostRegistry();
  HostRegistry(const HostRegistry&) = delete;
  HostRegistry& operator=(const HostRegistry&) = delete;

  const std::string& path() const { return path_; }

  // HKEY_CURRENT_USER\<product key>\<subkey>; "" for the product key itself
  // (below HKEY_LOCAL_MACHINE, that key holds the volume modes).
  static std::string userKey(const std::string& subkey);

  // Null when the key or the value is missing.
  std::optional<RegistryValue> get(const std::string& keyPath, const std::wstring& name,
                                   HKEY root = HKEY_CURRENT_USER);
  // Creates the key when missing. HostError when the write fails.
  void set(const std::string& keyPath, const std::wstring& name, const RegistryValue& value);
  // Names of the subkeys and of the values of a key, in registry order;
  // empty when the key is missing.
  std::vector<std::string> subkeys(const std::string& keyPath);
  std::vector<std::wstring> values(const std::string& keyPath, HKEY root = HKEY_CURRENT_USER);

 private:
  explicit HostRegistry(std::string path) : path_(std::move(path)) {}

  std::string path_;
  std::shared_ptr<RegistryBackend> backend_;
};

}  // namespace glidewell

#endif  // GLIDEWELL_CLI_REGISTRY_ACCESS_H_
