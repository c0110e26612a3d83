// The drive list on POSIX systems: every image <install dir>/volumes/<letter>.vdf
// is a fixed drive of that letter.
#include <sys/stat.h>

#include "engine/dfrg_exception.h"
#include "platform/posix/posix_env.h"
#include "platform/text.h"
#include "volume/volume_system.h"

namespace glidewell {

std::string PosixEnv::imagePath(wchar_t driveLetter) {
  std::wstring dir = installDirectory();
  if (!dir.empty() && dir.back() != L'\\' && dir.back() != L'/') dir += L'\\';
  wchar_t upper = (driveLetter >= L'a' && driveLetter <= L'z') ? driveLetter - L'a' + L'A' : driveLetter;
  return posixPath(dir + L"volumes\\" + std::wstring(1, upper) + L".vdf");
}

DWORD PosixEnv::logicalDrives() {
  DWORD mask = 0;
  for (int i = 0; i < 26; ++i) {
    struct stat st;
    if (::stat(imagePath(static_cast<wchar_t>(L'A' + i)).c_str(), &st) == 0 && S_ISREG(st.st_mode)) {
      mask |= 1u << i;
    }
  }
  return mask;
}

UINT PosixEnv::driveType(const std::wstring& rootPath) {
  if (rootPath.size() < 2 || rootPath[1] != L':') return DRIVE_NO_ROOT_DIR;
  struct stat st;
  return ::stat(imagePath(rootPath[0]).c_str(), &st) == 0 ? DRIVE_FIXED : DRIVE_NO_ROOT_DIR;
}

bool PosixEnv::volumeLabel(const std::wstring& rootPath, std::wstring* label) {
  // Filled in with the simulated disk: the label stored in the image.
  return false;
}

std::unique_ptr<CVolumeSystem> PosixEnv::openVolume(wchar_t driveLetter) {
  // Filled in with the simulated disk.
  std::wstring device = L"\\\\.\\" + std::wstring(1, driveLetter) + L":";
  throw CDfrgException(-1, "Couldn't open Volume ! " + narrow(device));
}

}  // namespace glidewell
