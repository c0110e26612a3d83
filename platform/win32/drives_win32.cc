// The drive list of the Windows environment, and opening a volume by letter.
#include <string>

#include "engine/dfrg_exception.h"
#include "platform/text.h"
#include "platform/win32/win32_env.h"
#include "volume/volume_system.h"

namespace glidewell {

namespace {

// Until the Windows volume implementation is part of the build: fail as an
// unopenable volume does, so the worker skips the drive.
std::unique_ptr<CVolumeSystem> openWinVolume(wchar_t driveLetter) {
  std::wstring device = L"\\\\.\\" + std::wstring(1, driveLetter) + L":";
  throw CDfrgException(-1, "Couldn't open Volume ! " + narrow(device));
}

}  // namespace

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

std::unique_ptr<CVolumeSystem> Win32Env::openVolume(wchar_t driveLetter) { return openWinVolume(driveLetter); }

}  // namespace glidewell
