#include "platform/env.h"

#include <atomic>

#include "platform/drive_provider.h"

namespace glidewell {

namespace {
std::atomic<Env*> installed{nullptr};
}

Env* Env::current() {
  Env* env = installed.load(std::memory_order_acquire);
  return env != nullptr ? env : system();
}

void Env::setCurrent(Env* env) { installed.store(env, std::memory_order_release); }

namespace {
// The letter of a root path such as "C:\\", or 0.
wchar_t rootLetter(const std::wstring& rootPath) {
  if (rootPath.size() < 2 || rootPath[1] != L':') return 0;
  wchar_t c = rootPath[0];
  return ((c >= L'A' && c <= L'Z') || (c >= L'a' && c <= L'z')) ? c : 0;
}
}  // namespace

DWORD Env::logicalDrives() { return providedDrives(); }

UINT Env::driveType(const std::wstring& rootPath) {
  std::shared_ptr<DriveProvider> provider = driveProviderFor(rootLetter(rootPath));
  return provider ? provider->driveType(rootPath[0]) : DRIVE_NO_ROOT_DIR;
}

bool Env::volumeLabel(const std::wstring& rootPath, std::wstring* label) {
  std::shared_ptr<DriveProvider> provider = driveProviderFor(rootLetter(rootPath));
  return provider && provider->volumeLabel(rootPath[0], label);
}

}  // namespace glidewell
