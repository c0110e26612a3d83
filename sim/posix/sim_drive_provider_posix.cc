// The simulated drives of a Linux install (see sim_drive_provider.h).
#include "sim/posix/sim_drive_provider.h"

#include <errno.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <memory>

#include "engine/dfrg_exception.h"
#include "platform/env.h"
#include "platform/posix/posix_env.h"
#include "platform/text.h"
#include "sim/sim_change_source.h"
#include "sim/sim_drives.h"
#include "sim/sim_image.h"
#include "volume/volume_system.h"

namespace glidewell {

namespace {

using FilePtr = std::unique_ptr<std::FILE, int (*)(std::FILE*)>;

bool isImage(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

bool isLetter(wchar_t c) { return (c >= L'A' && c <= L'Z') || (c >= L'a' && c <= L'z'); }

// Writes the disk to path + ".tmp", flushes it to the device, then renames it
// over the image.
bool writeImageAtomically(const SimDisk& disk, wchar_t letter, const std::string& path, std::string* error) {
  std::string temp = path + ".tmp";
  std::FILE* raw = std::fopen(temp.c_str(), "wb");
  if (raw == nullptr) {
    *error = "cannot create " + temp + ": " + std::strerror(errno);
    return false;
  }
  FilePtr file(raw, &std::fclose);
  bool ok = saveSimImage(disk, letter, file.get(), error);
  if (ok && ::fsync(::fileno(file.get())) != 0) {
    *error = "cannot flush " + temp + ": " + std::strerror(errno);
    ok = false;
  }
  if (std::fclose(file.release()) != 0 && ok) {
    *error = "cannot close " + temp + ": " + std::strerror(errno);
    ok = false;
  }
  if (ok && std::rename(temp.c_str(), path.c_str()) != 0) {
    *error = "cannot replace " + path + ": " + std::strerror(errno);
    ok = false;
  }
  if (!ok) std::remove(temp.c_str());
  return ok;
}

}  // namespace

std::shared_ptr<SimDriveProvider> SimDriveProvider::instance() {
  static std::shared_ptr<SimDriveProvider> provider = std::make_shared<SimDriveProvider>();
  return provider;
}

std::string SimDriveProvider::imagePath(wchar_t driveLetter) {
  std::wstring dir = Env::current()->installDirectory();
  if (!dir.empty() && dir.back() != L'\\' && dir.back() != L'/') dir += L'\\';
  wchar_t upper = (driveLetter >= L'a' && driveLetter <= L'z') ? driveLetter - L'a' + L'A' : driveLetter;
  return posixPath(dir + L"volumes\\" + std::wstring(1, upper) + L".vdf");
}

DWORD SimDriveProvider::drives() {
  DWORD mask = SimDrives::instance().pluggedDrives();
  for (int i = 0; i < 26; ++i) {
    if (isImage(imagePath(static_cast<wchar_t>(L'A' + i)))) mask |= 1u << i;
  }
  return mask;
}

UINT SimDriveProvider::driveType(wchar_t letter) {
  if (!isLetter(letter)) return DRIVE_NO_ROOT_DIR;
  bool exists = SimDrives::instance().disk(letter) != nullptr || isImage(imagePath(letter));
  return exists ? DRIVE_FIXED : DRIVE_NO_ROOT_DIR;
}

bool SimDriveProvider::volumeLabel(wchar_t letter, std::wstring* label) {
  if (!isLetter(letter)) return false;
  if (std::shared_ptr<SimDisk> disk = SimDrives::instance().disk(letter)) {
    *label = disk->geometry().label;
    return true;
  }
  std::FILE* raw = std::fopen(imagePath(letter).c_str(), "rb");
  if (raw == nullptr) return false;
  FilePtr file(raw, &std::fclose);
  return readSimImageLabel(file.get(), label);
}

std::unique_ptr<CVolumeSystem> SimDriveProvider::openVolume(wchar_t driveLetter) {
  if (!isLetter(driveLetter)) {
    throw CDfrgException(ErrorVolumeUnavailable,
                         "Couldn't open Volume ! " + narrow(L"\\\\.\\" + std::wstring(1, driveLetter) + L":"));
  }
  std::string path = imagePath(driveLetter);
  // The letter the image records is kept when the disk is written back.
  auto recorded = std::make_shared<wchar_t>(driveLetter);
  auto load = [path, recorded](std::string* error) -> std::unique_ptr<SimDisk> {
    std::FILE* raw = std::fopen(path.c_str(), "rb");
    if (raw == nullptr) {
      *error = "cannot open " + path + ": " + std::strerror(errno);
      return nullptr;
    }
    FilePtr file(raw, &std::fclose);
    return loadSimImage(file.get(), error, recorded.get());
  };
  auto save = [path, recorded](const SimDisk& disk, std::string* error) {
    return writeImageAtomically(disk, *recorded, path, error);
  };
  return SimDrives::instance().open(driveLetter, load, save);
}

std::unique_ptr<ChangeSource> SimDriveProvider::openChangeSource(wchar_t letter) { return openSimChangeSource(letter); }

}  // namespace glidewell
