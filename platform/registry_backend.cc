#include "platform/registry_backend.h"

#include <mutex>

#include "platform/registry_portable.h"

namespace glidewell {

namespace {

std::mutex& installedMutex() {
  static std::mutex m;
  return m;
}

std::shared_ptr<RegistryBackend>& installed() {
  static std::shared_ptr<RegistryBackend> backend;
  return backend;
}

// Upper case of one character for the scripts that registry names written by
// people are likely to use (Latin, Greek, Cyrillic); others stay as they are.
wchar_t upper(wchar_t wc) {
  uint32_t c = static_cast<uint32_t>(wc);
  if (c < 0x80) return (c >= 'a' && c <= 'z') ? static_cast<wchar_t>(c - 0x20) : wc;
  if (c >= 0xE0 && c <= 0xFE && c != 0xF7) return static_cast<wchar_t>(c - 0x20);
  if (c == 0xFF) return static_cast<wchar_t>(0x178);
  // Latin Extended-A: upper/lower pairs, the upper one first.
  if ((c >= 0x100 && c <= 0x137) || (c >= 0x14A && c <= 0x177)) return static_cast<wchar_t>(c & ~1u);
  if ((c >= 0x139 && c <= 0x148) || (c >= 0x179 && c <= 0x17E)) return (c & 1u) ? wc : static_cast<wchar_t>(c - 1);
  if (c >= 0x3B1 && c <= 0x3CB) return static_cast<wchar_t>(c == 0x3C2 ? 0x3A3 : c - 0x20);
  if (c >= 0x430 && c <= 0x44F) return static_cast<wchar_t>(c - 0x20);
  if (c >= 0x450 && c <= 0x45F) return static_cast<wchar_t>(c - 0x50);
  return wc;
}

}  // namespace

std::shared_ptr<RegistryBackend> RegistryBackend::current() {
  {
    std::lock_guard<std::mutex> g(installedMutex());
    if (installed()) return installed();
  }
  return system();
}

void RegistryBackend::setCurrent(std::shared_ptr<RegistryBackend> backend) {
  std::lock_guard<std::mutex> g(installedMutex());
  installed() = std::move(backend);
}

std::wstring foldRegistryName(const std::wstring& name) {
  std::wstring out(name);
  for (wchar_t& c : out) c = upper(c);
  return out;
}

namespace registry_portable {

const char* rootName(int index) {
  static const char* const kNames[kRootCount] = {"HKEY_CLASSES_ROOT", "HKEY_CURRENT_USER", "HKEY_LOCAL_MACHINE",
                                                 "HKEY_USERS"};
  return index >= 0 && index < kRootCount ? kNames[index] : "";
}

}  // namespace registry_portable

}  // namespace glidewell
