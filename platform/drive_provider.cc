#include "platform/drive_provider.h"

#include <algorithm>
#include <mutex>
#include <vector>

#include "platform/change_source.h"

namespace glidewell {

namespace {

struct DriveList {
  std::mutex mutex;
  std::vector<std::shared_ptr<DriveProvider>> providers;
};

DriveList& driveList() {
  static DriveList* list = new DriveList;  // lives as long as the process: drives are asked for at exit too
  return *list;
}

wchar_t upper(wchar_t c) { return (c >= L'a' && c <= L'z') ? static_cast<wchar_t>(c - L'a' + L'A') : c; }

}  // namespace

void addDriveProvider(std::shared_ptr<DriveProvider> provider, bool first) {
  if (!provider) return;
  DriveList& list = driveList();
  std::lock_guard<std::mutex> guard(list.mutex);
  if (std::find(list.providers.begin(), list.providers.end(), provider) != list.providers.end()) return;
  list.providers.insert(first ? list.providers.begin() : list.providers.end(), std::move(provider));
}

void removeDriveProvider(const DriveProvider* provider) {
  DriveList& list = driveList();
  std::lock_guard<std::mutex> guard(list.mutex);
  list.providers.erase(std::remove_if(list.providers.begin(), list.providers.end(),
                                      [provider](const std::shared_ptr<DriveProvider>& p) { return p.get() == provider; }),
                       list.providers.end());
}

std::shared_ptr<DriveProvider> driveProviderFor(wchar_t letter) {
  wchar_t l = upper(letter);
  if (l < L'A' || l > L'Z') return nullptr;
  std::vector<std::shared_ptr<DriveProvider>> providers;
  {
    DriveList& list = driveList();
    std::lock_guard<std::mutex> guard(list.mutex);
    providers = list.providers;
  }
  // Asked outside the list's lock: a provider may look at the disk.
  for (const auto& p : providers) {
    if (p->drives() & (1u << (l - L'A'))) return p;
  }
  return nullptr;
}

DWORD providedDrives() {
  std::vector<std::shared_ptr<DriveProvider>> providers;
  {
    DriveList& list = driveList();
    std::lock_guard<std::mutex> guard(list.mutex);
    providers = list.providers;
  }
  DWORD mask = 0;
  for (const auto& p : providers) mask |= p->drives();
  return mask;
}

std::unique_ptr<ChangeSource> openChangeSource(wchar_t driveLetter) {
  std::shared_ptr<DriveProvider> provider = driveProviderFor(driveLetter);
  if (!provider) return nullptr;
  return provider->openChangeSource(driveLetter);
}

}  // namespace glidewell
