// The drive list of the Windows environment, and opening a volume by letter.
#include <string>

#include "platform/win32/win32_env.h"
#include "volume/win32/win_volume_system.h"

namespace glidewell {

DWORD Win32Env::logicalDrives() { return ::GetLogicalDrives(); }

UINT Win32Env::driveType(const std::wstring& rootPath) { return ::GetDriveTypeW(rootPath.c_str()); }

bool Win32Env::volumeLabel(const std::wstring& rootPath, std::wstring* label) {
  wchar_t name[MAX_PATH + 1] = {};
  if (!::GetVolumeInformationW(rootPath.c_str(), name, MAX_PATH + 1, nullptr, nullptr, nullptr, nullptr, 0)) {
    return false;
  }
  *label = name;
  return true;
}

// CWinVolumeSystem throws CDfrgException(-1) when the volume cannot be used.
std::unique_ptr<CVolumeSystem> Win32Env::openVolume(wchar_t driveLetter) {
  return std::make_unique<CWinVolumeSystem>(driveLetter);
}

}  // namespace glidewell
