#include "cli/registry_access.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstdlib>

#include "cli/host_files.h"
#include "cli/registry_location.h"
#include "config/dfrg_config.h"
#include "platform/env.h"
#include "platform/text.h"

namespace glidewell {

namespace {

// A key handle of a backend, closed when it goes out of scope.
class OpenKey {
 public:
  explicit OpenKey(RegistryBackend& backend) : backend_(backend) {}
  ~OpenKey() { reset(); }
  OpenKey(const OpenKey&) = delete;
  OpenKey& operator=(const OpenKey&) = delete;
  HKEY get() const { return key_; }
  HKEY* put() {
    reset();
    return &key_;
  }
  void reset() {
    if (key_ != nullptr) backend_.closeKey(key_);
    key_ = nullptr;
  }
  HKEY release() {
    HKEY key = key_;
    key_ = nullptr;
    return key;
  }
  void adopt(HKEY key) {
    reset();
    key_ = key;
  }

 private:
  RegistryBackend& backend_;
  HKEY key_ = nullptr;
};

// Opens root\keyPath component by component.
LONG openPath(RegistryBackend& backend, HKEY root, const std::string& keyPath, bool create, REGSAM access,
              OpenKey* out) {
  HKEY parent = root;
  OpenKey current(backend);
  size_t start = 0;
  while (start <= keyPath.size()) {
    size_t end = keyPath.find('\\', start);
    if (end == std::string::npos) end = keyPath.size();
    std::string part = keyPath.substr(start, end - start);
    start = end + 1;
    if (part.empty()) continue;
    OpenKey next(backend);
    LONG rc = create ? backend.createKey(parent, part, access, next.put(), nullptr)
                     : backend.openKey(parent, part, access, next.put());
    if (rc != ERROR_SUCCESS) return rc;
    current.adopt(next.release());
    parent = current.get();
  }
  if (current.get() == nullptr) return backend.openKey(root, "", access, out->put());
  out->adopt(current.release());
  return ERROR_SUCCESS;
}

struct KnownSetting {
  const char* name;
  DWORD type;
  const wchar_t* defaultText;  // null: the engine has no default (it writes the value itself)
};

constexpr KnownSetting kGlobalSettings[] = {
    {"Drive Map", REG_DWORD, nullptr},
    {"doRunInBatteryMode", REG_DWORD, L"0"},
    {"MaxClusterMoveCount", REG_DWORD, L"1024"},
    {"MaxExtentListSize", REG_DWORD, L"1048576"},
    {"NearByWatchListDist", REG_DWORD, L"1200"},
    {"DoMoveLeft", REG_DWORD, L"0"},
    {"DoMoveBetterPlace", REG_DWORD, L"1"},
    {"maxProcessCalls", REG_DWORD, L"4294967295"},
    {"makeDump", REG_DWORD, L"0"},
    {"dumpPath", REG_SZ, L"c:\\volumeDump.vdf"},
};

constexpr KnownSetting kDriveSettings[] = {
    {"enabled", REG_DWORD, L"1"},
    {"Name", REG_SZ, nullptr},
};

bool sameName(const std::string& a, const char* b) {
  return foldRegistryName(widen(a)) == foldRegistryName(widen(b));
}

SettingName makeName(const std::string& drive, const KnownSetting& s) {
  SettingName n;
  n.drive = drive;
  n.value = widen(s.name);
  n.type = s.type;
  if (s.defaultText != nullptr) n.defaultText = std::wstring(s.defaultText);
  return n;
}

std::string knownList() {
  std::string out;
  for (const KnownSetting& s : kGlobalSettings) out += std::string(out.empty() ? "" : ", ") + s.name;
  return out + ", X:/enabled, X:/Name";
}

std::string hexBytes(const std::vector<BYTE>& data) {
  std::string out;
  for (BYTE b : data) out += fmt::format("{:02x}", b);
  return out;
}

}  // namespace

std::string SettingName::display() const { return (drive.empty() ? "" : drive + "/") + narrow(value); }

SettingName parseSettingName(const std::string& name) {
  size_t cut = name.find_first_of("/\\");
  if (cut == std::string::npos) {
    for (const KnownSetting& s : kGlobalSettings) {
      if (sameName(name, s.name)) return makeName("", s);
    }
  } else {
    std::string drive = name.substr(0, cut), rest = name.substr(cut + 1);
    char letter = drive.empty() ? '\0' : drive[0];
    if (letter >= 'a' && letter <= 'z') letter = static_cast<char>(letter - 'a' + 'A');
    if (drive.size() != 2 || drive[1] != ':' || letter < 'A' || letter > 'Z') {
      throw UsageError("\"" + name + "\" is not a setting: a drive's value is written like C:/enabled");
    }
    for (const KnownSetting& s : kDriveSettings) {
      if (sameName(rest, s.name)) return makeName(std::string(1, letter) + ":", s);
    }
  }
  throw UsageError("\"" + name + "\" is not a setting of the engine; known: " + knownList());
}

std::vector<SettingName> knownSettings() {
  std::vector<SettingName> out;
  for (const KnownSetting& s : kGlobalSettings) out.push_back(makeName("", s));
  return out;
}

RegistryValue parseSettingValue(const SettingName& name, const std::string& text) {
  RegistryValue v;
  v.type = name.type;
  if (name.type == REG_SZ) {
    std::u16string units = toUtf16(widen(text));
    for (char16_t u : units) {
      v.data.push_back(static_cast<BYTE>(u & 0xFF));
      v.data.push_back(static_cast<BYTE>(u >> 8));
    }
    v.data.push_back(0);
    v.data.push_back(0);
    return v;
  }
  bool hex = text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
  const char* digits = text.c_str() + (hex ? 2 : 0);
  char* end = nullptr;
  errno = 0;
  unsigned long long n = std::strtoull(digits, &end, hex ? 16 : 10);
  bool ok = !text.empty() && *digits != '\0' && *digits != '-' && *digits != '+' && *digits != ' ' &&
            end != nullptr && *end == '\0' && errno == 0 && n <= 0xFFFFFFFFull;
  if (!ok) {
    throw UsageError(name.display() + " takes a number from 0 to 4294967295 (or 0x0 to 0xFFFFFFFF), not \"" + text +
                    "\"");
  }
  for (int i = 0; i < 4; ++i) v.data.push_back(static_cast<BYTE>((n >> (8 * i)) & 0xFF));
  return v;
}

const char* typeName(DWORD type) {
  switch (type) {
    case REG_SZ: return "REG_SZ";
    case REG_BINARY: return "REG_BINARY";
    case REG_DWORD: return "REG_DWORD";
    case REG_QWORD: return "REG_QWORD";
    default: return "REG_?";
  }
}

std::string formatValue(const RegistryValue& value) {
  const std::vector<BYTE>& d = value.data;
  if (value.type == REG_DWORD && d.size() == 4) {
    return std::to_string(uint32_t{d[0]} | uint32_t{d[1]} << 8 | uint32_t{d[2]} << 16 | uint32_t{d[3]} << 24);
  }
  if (value.type == REG_QWORD && d.size() == 8) {
    uint64_t n = 0;
    for (int i = 7; i >= 0; --i) n = (n << 8) | d[i];
    return std::to_string(n);
  }
  if (value.type == REG_SZ && d.size() % 2 == 0) {
    std::u16string units;
    for (size_t i = 0; i + 1 < d.size(); i += 2) {
      char16_t u = static_cast<char16_t>(d[i] | (d[i + 1] << 8));
      if (u == 0) break;
      units.push_back(u);
    }
    return narrow(fromUtf16(units));
  }
  return fmt::format("({}, type {}, {} bytes: {})", typeName(value.type), value.type, d.size(), hexBytes(d));
}

std::unique_ptr<HostRegistry> HostRegistry::open(const std::string& installDir, bool create) {
  std::string path = registryLocation(installDir);
  if (!create && !registryExists(installDir)) {
    throw HostError("no registry database at " + path + " (nothing has run in that install directory)");
  }
  if (create) prepareDirectory(installDir);
  std::unique_ptr<HostRegistry> registry(new HostRegistry(path));
  Env::current()->setInstallDirectory(widen(installDir));
  std::string error;
  if (!RegistryBackend::openSystem(&error)) {
    RegistryBackend::closeSystem();
    throw HostError("cannot open the registry database " + path + ": " + error);
  }
  registry->backend_ = RegistryBackend::system();
  return registry;
}

HostRegistry::~HostRegistry() {
  backend_.reset();
  RegistryBackend::closeSystem();
}

std::string HostRegistry::userKey(const std::string& subkey) {
  std::string key = kDefaultRegistryKeyPath;
  return subkey.empty() ? key : key + "\\" + subkey;
}

std::optional<RegistryValue> HostRegistry::get(const std::string& keyPath, const std::wstring& name, HKEY root) {
  OpenKey key(*backend_);
  if (openPath(*backend_, root, keyPath, false, KEY_READ, &key) != ERROR_SUCCESS) return std::nullopt;
  RegistryValue v;
  if (backend_->queryValue(key.get(), name, &v.type, &v.data) != ERROR_SUCCESS) return std::nullopt;
  return v;
}

void HostRegistry::set(const std::string& keyPath, const std::wstring& name, const RegistryValue& value) {
  OpenKey key(*backend_);
  LONG rc = openPath(*backend_, HKEY_CURRENT_USER, keyPath, true, KEY_ALL_ACCESS, &key);
  if (rc == ERROR_SUCCESS) {
    rc = backend_->setValue(key.get(), name, value.type, value.data.data(), static_cast<DWORD>(value.data.size()));
  }
  if (rc != ERROR_SUCCESS) {
    throw HostError(fmt::format("cannot write {} in {} (error {})", narrow(name), path_, rc));
  }
}

std::vector<std::string> HostRegistry::subkeys(const std::string& keyPath) {
  std::vector<std::string> out;
  OpenKey key(*backend_);
  if (openPath(*backend_, HKEY_CURRENT_USER, keyPath, false, KEY_READ, &key) != ERROR_SUCCESS) return out;
  std::string name;
  for (DWORD i = 0; backend_->enumKey(key.get(), i, &name) == ERROR_SUCCESS; ++i) out.push_back(name);
  return out;
}

std::vector<std::wstring> HostRegistry::values(const std::string& keyPath, HKEY root) {
  std::vector<std::wstring> out;
  OpenKey key(*backend_);
  if (openPath(*backend_, root, keyPath, false, KEY_READ, &key) != ERROR_SUCCESS) return out;
  std::wstring name;
  for (DWORD i = 0; backend_->enumValue(key.get(), i, &name) == ERROR_SUCCESS; ++i) out.push_back(name);
  return out;
}

}  // namespace glidewell
