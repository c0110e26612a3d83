// Small helpers shared by the registry tests: a temporary directory, and
// direct reads and writes of a backend that bypass the typed store.
#ifndef GLIDEWELL_TESTS_SUPPORT_REGISTRY_TEST_UTIL_H_
#define GLIDEWELL_TESTS_SUPPORT_REGISTRY_TEST_UTIL_H_

#include <stdlib.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "platform/registry_backend.h"

namespace glidewell {
namespace test {

// A fresh directory below $TMPDIR, removed with its contents at the end.
class TempDir {
 public:
  TempDir() {
    const char* base = std::getenv("TMPDIR");
    std::string tmpl = std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/glidewell-reg-XXXXXX";
    std::vector<char> buf(tmpl.begin(), tmpl.end());
    buf.push_back('\0');
    path_ = mkdtemp(buf.data()) != nullptr ? std::string(buf.data()) : std::string();
  }
  ~TempDir() {
    if (!path_.empty()) std::system(("rm -rf '" + path_ + "'").c_str());
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

// Opens a whole "a\b\c" path below `root`, creating it when asked. Null on failure.
inline HKEY openPath(RegistryBackend& r, HKEY root, const std::string& path, bool create,
                     REGSAM access = KEY_ALL_ACCESS) {
  HKEY current = root;
  size_t start = 0;
  for (;;) {
    size_t end = path.find('\\', start);
    std::string part = path.substr(start, end == std::string::npos ? std::string::npos : end - start);
    HKEY next = nullptr;
    LONG rc = create ? r.createKey(current, part, access, &next, nullptr) : r.openKey(current, part, access, &next);
    if (current != root) r.closeKey(current);
    if (rc != ERROR_SUCCESS) return nullptr;
    current = next;
    if (end == std::string::npos) return current;
    start = end + 1;
  }
}

inline std::vector<BYTE> dwordBytes(DWORD v) {
  return {static_cast<BYTE>(v), static_cast<BYTE>(v >> 8), static_cast<BYTE>(v >> 16), static_cast<BYTE>(v >> 24)};
}

inline std::vector<BYTE> qwordBytes(uint64_t v) {
  std::vector<BYTE> b(8);
  for (int i = 0; i < 8; ++i) b[i] = static_cast<BYTE>(v >> (8 * i));
  return b;
}

inline std::vector<BYTE> utf16Bytes(const std::wstring& s, bool terminated = true) {
  std::vector<BYTE> b;
  for (wchar_t c : s) {
    b.push_back(static_cast<BYTE>(c));
    b.push_back(static_cast<BYTE>(c >> 8));
  }
  if (terminated) b.insert(b.end(), {0, 0});
  return b;
}

inline LONG put(RegistryBackend& r, HKEY key, const std::wstring& name, DWORD type, const std::vector<BYTE>& data) {
  return r.setValue(key, name, type, data.data(), static_cast<DWORD>(data.size()));
}

struct RawValue {
  LONG result = ERROR_FILE_NOT_FOUND;
  DWORD type = REG_NONE;
  std::vector<BYTE> data;
};

inline RawValue get(RegistryBackend& r, HKEY key, const std::wstring& name) {
  RawValue v;
  v.result = r.queryValue(key, name, &v.type, &v.data);
  return v;
}

// The value of `name` in the key at `path` (closed again afterwards).
inline RawValue getAt(RegistryBackend& r, HKEY root, const std::string& path, const std::wstring& name) {
  HKEY key = openPath(r, root, path, false);
  if (key == nullptr) return RawValue();
  RawValue v = get(r, key, name);
  r.closeKey(key);
  return v;
}

inline std::vector<std::string> subkeyNames(RegistryBackend& r, HKEY key) {
  std::vector<std::string> names;
  std::string name;
  for (DWORD i = 0; r.enumKey(key, i, &name) == ERROR_SUCCESS; ++i) names.push_back(name);
  return names;
}

inline std::vector<std::wstring> valueNames(RegistryBackend& r, HKEY key) {
  std::vector<std::wstring> names;
  std::wstring name;
  for (DWORD i = 0; r.enumValue(key, i, &name) == ERROR_SUCCESS; ++i) names.push_back(name);
  return names;
}

}  // namespace test
}  // namespace glidewell

#endif  // GLIDEWELL_TESTS_SUPPORT_REGISTRY_TEST_UTIL_H_
