#include "ntfs/ntfs_drive_provider.h"

#include <sys/stat.h>

#include "engine/dfrg_exception.h"
#include "ntfs/ntfs_volume_system.h"
#include "platform/change_source.h"
#include "platform/env.h"
#include "platform/text.h"

namespace glidewell {

namespace {

wchar_t upper(wchar_t c) { return (c >= L'a' && c <= L'z') ? static_cast<wchar_t>(c - L'a' + L'A') : c; }
bool isLetter(wchar_t c) { return c >= L'A' && c <= L'Z'; }

std::string defaultPath(wchar_t letter) {
  std::wstring dir = Env::current()->installDirectory();
  if (!dir.empty() && dir.back() != L'\\' && dir.back() != L'/') dir += L'/';
  std::string path = narrow(dir + L"volumes/" + std::wstring(1, letter) + L".ntfs");
  for (char& c : path) {
    if (c == '\\') c = '/';
  }
  return path;
}

}  // namespace

NtfsDriveProvider::NtfsDriveProvider(PathOf volumePath)
    : volumePath_(volumePath ? std::move(volumePath) : PathOf(defaultPath)) {}

std::string NtfsDriveProvider::pathOf(wchar_t letter) { return volumePath_(upper(letter)); }

DWORD NtfsDriveProvider::drives() {
  DWORD mask = 0;
  for (wchar_t l = L'A'; l <= L'Z'; ++l) {
    std::string path = pathOf(l);
    struct stat st;
    if (!path.empty() && ::stat(path.c_str(), &st) == 0 && (S_ISREG(st.st_mode) || S_ISBLK(st.st_mode))) {
      mask |= 1u << (l - L'A');
    }
  }
  return mask;
}

UINT NtfsDriveProvider::driveType(wchar_t letter) {
  wchar_t l = upper(letter);
  return isLetter(l) && (drives() & (1u << (l - L'A'))) ? DRIVE_FIXED : DRIVE_NO_ROOT_DIR;
}

bool NtfsDriveProvider::volumeLabel(wchar_t letter, std::wstring* label) {
  std::string error;
  std::shared_ptr<NtfsVolume> v = volume(letter, &error);
  if (!v) return false;
  *label = fromUtf16(v->label());
  return true;
}

std::shared_ptr<NtfsVolume> NtfsDriveProvider::volume(wchar_t letter, std::string* error) {
  wchar_t l = upper(letter);
  if (!isLetter(l)) {
    *error = "not a drive letter";
    return nullptr;
  }
  std::lock_guard<std::mutex> guard(mutex_);
  if (std::shared_ptr<NtfsVolume> v = open_[l].lock()) return v;
  std::shared_ptr<NtfsVolume> v = NtfsVolume::open(pathOf(l), error);
  if (v) open_[l] = v;
  return v;
}

std::unique_ptr<CVolumeSystem> NtfsDriveProvider::openVolume(wchar_t letter) {
  std::string error;
  std::shared_ptr<NtfsVolume> v = volume(letter, &error);
  if (!v) {
    throw CDfrgException(ErrorVolumeUnavailable,
                         "Couldn't open Volume ! " + narrow(L"\\\\.\\" + std::wstring(1, letter) + L":") + " " + error);
  }
  return std::make_unique<NtfsVolumeSystem>(std::move(v), letter);
}

std::unique_ptr<ChangeSource> NtfsDriveProvider::openChangeSource(wchar_t) { return nullptr; }

std::shared_ptr<DriveProvider> makeNtfsDriveProvider() { return std::make_shared<NtfsDriveProvider>(); }

}  // namespace glidewell
