// The registry backend on Windows: the registry itself, through advapi32.
// Handles are real HKEYs; the predefined roots are the system's own.
#include "platform/registry_backend.h"

namespace glidewell {

namespace {

class Win32Registry : public RegistryBackend {
 public:
  LONG openKey(HKEY parent, const std::string& name, REGSAM access, HKEY* result) override {
    return RegOpenKeyExA(parent, name.c_str(), 0, access, result);
  }

  LONG createKey(HKEY parent, const std::string& name, REGSAM access, HKEY* result, bool* created) override {
    DWORD disposition = 0;
    LONG r = RegCreateKeyExA(parent, name.c_str(), 0, nullptr, REG_OPTION_NON_VOLATILE, access, nullptr, result,
                             &disposition);
    if (created != nullptr) *created = r == ERROR_SUCCESS && disposition == REG_CREATED_NEW_KEY;
    return r;
  }

  LONG closeKey(HKEY key) override { return RegCloseKey(key); }

  LONG queryValue(HKEY key, const std::wstring& name, DWORD* type, std::vector<BYTE>* data) override {
    // Size first, then the data; a value that grew in between is asked again.
    for (;;) {
      DWORD size = 0;
      LONG r = RegQueryValueExW(key, name.c_str(), nullptr, type, nullptr, &size);
      if (r != ERROR_SUCCESS) return r;
      data->assign(size, 0);
      r = RegQueryValueExW(key, name.c_str(), nullptr, type, size != 0 ? data->data() : nullptr, &size);
      if (r == ERROR_MORE_DATA) continue;
      if (r == ERROR_SUCCESS) data->resize(size);
      return r;
    }
  }

  LONG setValue(HKEY key, const std::wstring& name, DWORD type, const BYTE* data, DWORD size) override {
    return RegSetValueExW(key, name.c_str(), 0, type, data, size);
  }

  LONG enumKey(HKEY key, DWORD index, std::string* name) override {
    // The name buffer starts at 4 bytes and doubles while the name does not fit.
    std::vector<char> buffer(4);
    for (;;) {
      DWORD length = static_cast<DWORD>(buffer.size());
      LONG r = RegEnumKeyExA(key, index, buffer.data(), &length, nullptr, nullptr, nullptr, nullptr);
      if (r == ERROR_MORE_DATA && buffer.size() < (1u << 16)) {
        buffer.resize(buffer.size() * 2);
        continue;
      }
      if (r == ERROR_SUCCESS) name->assign(buffer.data(), length);
      return r;
    }
  }

  LONG enumValue(HKEY key, DWORD index, std::wstring* name) override {
    // 16383 characters is the longest value name the registry allows.
    std::vector<wchar_t> buffer(16384, L'\0');
    DWORD length = static_cast<DWORD>(buffer.size());
    LONG r = RegEnumValueW(key, index, buffer.data(), &length, nullptr, nullptr, nullptr, nullptr);
    if (r == ERROR_SUCCESS) name->assign(buffer.data(), length);
    return r;
  }

  LONG deleteValue(HKEY key, const std::wstring& name) override { return RegDeleteValueW(key, name.c_str()); }

  LONG deleteKey(HKEY parent, const std::string& name) override { return RegDeleteKeyA(parent, name.c_str()); }
};

}  // namespace

std::shared_ptr<RegistryBackend> RegistryBackend::system() {
  static std::shared_ptr<RegistryBackend> registry = std::make_shared<Win32Registry>();
  return registry;
}

// The registry of Windows needs no opening.
bool RegistryBackend::openSystem(std::string* error) { return true; }
void RegistryBackend::closeSystem() {}

}  // namespace glidewell
