// Helpers shared by the registry tests: direct reads and writes of a backend
// that bypass the typed store, and a fixture whose process registry is an
// in-memory one behind fault injection.
#ifndef GLIDEWELL_TESTS_SUPPORT_REGISTRY_TEST_UTIL_H_
#define GLIDEWELL_TESTS_SUPPORT_REGISTRY_TEST_UTIL_H_

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/registry_backend.h"
#include "support/registry_fault_injection.h"

namespace glidewell {
namespace test {

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

// The little-endian number a value holds when it is of `type`; -1 otherwise.
inline int64_t number(const RawValue& v, DWORD type) {
  if (v.result != ERROR_SUCCESS || v.type != type) return -1;
  uint64_t n = 0;
  for (size_t i = v.data.size(); i-- > 0;) n = n << 8 | v.data[i];
  return static_cast<int64_t>(n);
}

class RegistryTest : public ::testing::Test {
 protected:
  RegistryTest() : memory_(RegistryBackend::newMemory()), reg_(std::make_shared<FaultInjectingRegistry>(memory_)) {
    RegistryBackend::setCurrent(reg_);
  }
  ~RegistryTest() override { RegistryBackend::setCurrent(nullptr); }

  // Below HKEY_CURRENT_USER.
  RawValue value(const std::string& key, const std::wstring& name) {
    return getAt(*memory_, HKEY_CURRENT_USER, key, name);
  }
  void setRaw(const std::string& key, const std::wstring& name, DWORD type, const std::vector<BYTE>& data) {
    HKEY k = openPath(*memory_, HKEY_CURRENT_USER, key, true);
    ASSERT_EQ(ERROR_SUCCESS, put(*memory_, k, name, type, data));
    memory_->closeKey(k);
  }
  // The names of a key's subkeys or values; none when it does not exist.
  template <typename Name = std::string>
  std::vector<Name> names(const std::string& key) {
    HKEY k = openPath(*memory_, HKEY_CURRENT_USER, key, false);
    std::vector<Name> out;
    if (k == nullptr) return out;
    if constexpr (std::is_same<Name, std::string>::value) out = subkeyNames(*memory_, k);
    else out = valueNames(*memory_, k);
    memory_->closeKey(k);
    return out;
  }

  std::shared_ptr<RegistryBackend> memory_;
  std::shared_ptr<FaultInjectingRegistry> reg_;
};

}  // namespace test
}  // namespace glidewell

#endif  // GLIDEWELL_TESTS_SUPPORT_REGISTRY_TEST_UTIL_H_
