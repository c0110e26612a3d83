#include "volume/win32/win_volume_system.h"

#include <algorithm>
#include <cstring>
#include <vector>

#include "engine/dfrg_exception.h"
#include "platform/text.h"

namespace glidewell {

namespace {

constexpr int kOpenRetries = 10;     // after the first attempt
constexpr DWORD kOpenRetryMs = 100;  // wait between attempts while access is denied
constexpr DWORD kNameChars = 1024;

}  // namespace

CWinVolumeSystem::CWinVolumeSystem(wchar_t driveLetter)
    : driveLetter_(driveLetter),
      rootPath_(std::wstring(1, driveLetter) + L":\\"),
      devicePath_(L"\\\\.\\" + std::wstring(1, driveLetter) + L":") {
  openVolume();
  try {
    readGeometry();
  } catch (...) {
    // The destructor does not run for a half-built object.
    volumeHandle_.close();
    throw;
  }
}

CWinVolumeSystem::~CWinVolumeSystem() = default;

void CWinVolumeSystem::openVolume() {
  // Another process may hold the volume for a moment (a check disk, a
  // backup): access denied is retried for up to a second.
  for (int attempt = 0;; ++attempt) {
    volumeHandle_ = ScopedHandle(createFile(devicePath_, GENERIC_READ,
                                            FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                            OPEN_EXISTING, 0, nullptr));
    if (volumeHandle_.isValid()) return;
    if (GetLastError() != ERROR_ACCESS_DENIED || attempt == kOpenRetries) break;
    SleepEx(kOpenRetryMs, FALSE);
  }
  throw CDfrgException(ErrorVolumeUnavailable, "Couldn't open Volume ! " + narrow(devicePath_));
}

int32_t CWinVolumeSystem::detectFileSystem(const std::wstring& name) {
  if (name.find(L"NTFS") != std::wstring::npos) return kFileSystemNtfs;
  if (name.find(L"FAT32") != std::wstring::npos) return kFileSystemFat32;
  if (name.find(L"FAT") != std::wstring::npos) return kFileSystemFat;
  return kFileSystemUnknown;
}

void CWinVolumeSystem::readGeometry() {
  std::vector<wchar_t> label(kNameChars), fsName(kNameChars);
  if (!GetVolumeInformationW(rootPath_.c_str(), label.data(), kNameChars, nullptr, nullptr, nullptr, fsName.data(),
                             kNameChars)) {
    throw CDfrgException(ErrorVolumeUnavailable, "Couldn't get Volume Information " + narrow(rootPath_));
  }
  volumeName_ = label.data();
  fileSystemType_ = detectFileSystem(fsName.data());

  if (fileSystemType_ == kFileSystemNtfs) {
    NTFS_VOLUME_DATA_BUFFER data;
    DWORD returned = 0;
    if (!DeviceIoControl(volumeHandle_.get(), FSCTL_GET_NTFS_VOLUME_DATA, nullptr, 0, &data, sizeof data, &returned,
                         nullptr)) {
      throw CDfrgException(ErrorVolumeUnavailable, "Couldn't read Volume Information ! " + narrow(rootPath_));
    }
    totalClusters_ = static_cast<uint64_t>(data.TotalClusters.QuadPart);
    bytesPerCluster_ = data.BytesPerCluster;
    return;
  }
  DWORD sectorsPerCluster = 0, bytesPerSector = 0, freeClusters = 0, clusters = 0;
  // The rest of the engine needs a positive geometry: a volume that cannot
  // give one is as unavailable as one that cannot be opened.
  if (!GetDiskFreeSpaceW(rootPath_.c_str(), &sectorsPerCluster, &bytesPerSector, &freeClusters, &clusters) ||
      clusters == 0 || sectorsPerCluster * bytesPerSector == 0) {
    throw CDfrgException(ErrorVolumeUnavailable, "Couldn't read Volume Information ! " + narrow(rootPath_));
  }
  totalClusters_ = clusters;
  bytesPerCluster_ = sectorsPerCluster * bytesPerSector;
}

bool CWinVolumeSystem::getVolumeBitmap(std::unique_ptr<uint8_t[]>* bitmap) { return readWholeBitmap(*this, bitmap); }

void CWinVolumeSystem::getExtendedStatistics(uint64_t*, uint64_t*) { throw std::string("not Implemented"); }

BOOL CWinVolumeSystem::getVolumeInformation(wchar_t* nameBuffer, DWORD nameSize, DWORD* serialNumber,
                                            DWORD* maxComponentLength, DWORD* flags, wchar_t* fileSystemNameBuffer,
                                            DWORD fileSystemNameSize) {
  return GetVolumeInformationW(rootPath_.c_str(), nameBuffer, nameSize, serialNumber, maxComponentLength, flags,
                               fileSystemNameBuffer, fileSystemNameSize);
}

BOOL CWinVolumeSystem::getDiskFreeSpace(DWORD* sectorsPerCluster, DWORD* bytesPerSector, DWORD* freeClusters,
                                        DWORD* totalClusters) {
  return GetDiskFreeSpaceW(rootPath_.c_str(), sectorsPerCluster, bytesPerSector, freeClusters, totalClusters);
}

HANDLE CWinVolumeSystem::createFile(const std::wstring& path, DWORD desiredAccess, DWORD shareMode,
                                    LPSECURITY_ATTRIBUTES security, DWORD creationDisposition,
                                    DWORD flagsAndAttributes, HANDLE templateFile) {
  return CreateFileW(path.c_str(), desiredAccess, shareMode, security, creationDisposition, flagsAndAttributes,
                     templateFile);
}

BOOL CWinVolumeSystem::closeHandle(HANDLE handle) { return CloseHandle(handle); }

BOOL CWinVolumeSystem::getFileSize(HANDLE handle, int64_t* size) {
  LARGE_INTEGER value;
  BOOL ok = GetFileSizeEx(handle, &value);
  if (ok) *size = value.QuadPart;
  return ok;
}

DWORD CWinVolumeSystem::getFileAttributes(const std::wstring& path) { return GetFileAttributesW(path.c_str()); }

BOOL CWinVolumeSystem::getVolumeBitmapChunk(const int64_t* startingLcn, void* buffer, DWORD bufferSize,
                                            DWORD* bytesReturned) {
  return DeviceIoControl(volumeHandle_.get(), FSCTL_GET_VOLUME_BITMAP, const_cast<int64_t*>(startingLcn),
                         sizeof(int64_t), buffer, bufferSize, bytesReturned, nullptr);
}

BOOL CWinVolumeSystem::moveFile(const MOVE_FILE_DATA* move) {
  DWORD returned = 0;
  return DeviceIoControl(volumeHandle_.get(), FSCTL_MOVE_FILE, const_cast<MOVE_FILE_DATA*>(move), sizeof(MOVE_FILE_DATA),
                         nullptr, 0, &returned, nullptr);
}

BOOL CWinVolumeSystem::getRetrievalPointers(HANDLE file, const int64_t* startingVcn, void* buffer, DWORD bufferSize,
                                            DWORD* bytesReturned) {
  return DeviceIoControl(file, FSCTL_GET_RETRIEVAL_POINTERS, const_cast<int64_t*>(startingVcn), sizeof(int64_t),
                         buffer, bufferSize, bytesReturned, nullptr);
}

HANDLE CWinVolumeSystem::findFirstFile(const std::wstring& pattern, WIN32_FIND_DATAW* data) {
  return FindFirstFileW(pattern.c_str(), data);
}

BOOL CWinVolumeSystem::findNextFile(HANDLE find, WIN32_FIND_DATAW* data) { return FindNextFileW(find, data); }

BOOL CWinVolumeSystem::findClose(HANDLE find) { return FindClose(find); }

}  // namespace glidewell
