#include "volume/win32/win_drive_provider.h"

#include <windows.h>

#include "platform/win32/directory_change_source.h"
#include "volume/win32/win_volume_system.h"

namespace glidewell {

namespace {
std::wstring rootOf(wchar_t letter) { return std::wstring(1, letter) + L":\\"; }
}  // namespace

std::shared_ptr<WinDriveProvider> WinDriveProvider::instance() {
  static std::shared_ptr<WinDriveProvider> provider = std::make_shared<WinDriveProvider>();
  return provider;
}

DWORD WinDriveProvider::drives() { return ::GetLogicalDrives(); }

UINT WinDriveProvider::driveType(wchar_t letter) { return ::GetDriveTypeW(rootOf(letter).c_str()); }

bool WinDriveProvider::volumeLabel(wchar_t letter, std::wstring* label) {
  wchar_t name[MAX_PATH + 1] = {};
  if (!::GetVolumeInformationW(rootOf(letter).c_str(), name, MAX_PATH + 1, nullptr, nullptr, nullptr, nullptr, 0)) {
    return false;
  }
  *label = name;
  return true;
}

std::unique_ptr<CVolumeSystem> WinDriveProvider::openVolume(wchar_t letter) {
  return std::make_unique<CWinVolumeSystem>(letter);
}

std::unique_ptr<ChangeSource> WinDriveProvider::openChangeSource(wchar_t letter) {
  return openDirectoryChangeSource(rootOf(letter));
}

}  // namespace glidewell
