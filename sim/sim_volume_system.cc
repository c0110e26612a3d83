#include "sim/sim_volume_system.h"

#include <algorithm>
#include <cstring>

#include "engine/dfrg_exception.h"
#include "platform/text.h"

namespace glidewell {

namespace {

// Case-sensitive search and preserved names, Unicode, ACLs, compression,
// quotas, sparse files, reparse points, object ids, encryption.
constexpr DWORD kNtfsVolumeFlags = 0x000300FF;
// 2020-01-01 00:00 UTC, the time every simulated file shows.
constexpr uint64_t kFileTime = 132223104000000000ull;

wchar_t upperLetter(wchar_t c) { return (c >= L'a' && c <= L'z') ? static_cast<wchar_t>(c - L'a' + L'A') : c; }

void fillFindData(const SimDirEntry& entry, WIN32_FIND_DATAW* data) {
  std::memset(data, 0, sizeof(*data));
  data->dwFileAttributes = entry.attributes;
  FILETIME t{static_cast<DWORD>(kFileTime), static_cast<DWORD>(kFileTime >> 32)};
  data->ftCreationTime = data->ftLastAccessTime = data->ftLastWriteTime = t;
  data->nFileSizeHigh = static_cast<DWORD>(entry.size >> 32);
  data->nFileSizeLow = static_cast<DWORD>(entry.size);
  std::wstring name = fromUtf16(entry.name);
  size_t n = std::min<size_t>(name.size(), MAX_PATH - 1);
  std::copy(name.begin(), name.begin() + static_cast<std::ptrdiff_t>(n), data->cFileName);
}

bool copyText(const std::wstring& text, wchar_t* buffer, DWORD size) {
  if (buffer == nullptr) return true;
  if (text.size() + 1 > size) return false;
  std::copy(text.begin(), text.end(), buffer);
  buffer[text.size()] = L'\0';
  return true;
}

}  // namespace

SimVolumeSystem::SimVolumeSystem(std::shared_ptr<SimDisk> disk, wchar_t driveLetter, std::shared_ptr<void> lease)
    : lease_(std::move(lease)),
      disk_(std::move(disk)),
      letter_(driveLetter),
      devicePath_(L"\\\\.\\" + std::wstring(1, driveLetter) + L":") {
  volumeHandle_ = createFile(devicePath_, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                             nullptr, OPEN_EXISTING, 0, nullptr);
  if (volumeHandle_ == INVALID_HANDLE_VALUE) {
    throw CDfrgException(ErrorVolumeUnavailable, "Couldn't open Volume ! " + narrow(devicePath_));
  }
}

SimVolumeSystem::~SimVolumeSystem() {
  std::lock_guard<std::mutex> guard(mutex_);
  handles_.clear();
}

size_t SimVolumeSystem::openHandles() const {
  std::lock_guard<std::mutex> guard(mutex_);
  return handles_.size();
}

HANDLE SimVolumeSystem::addHandle(Open open) {
  std::lock_guard<std::mutex> guard(mutex_);
  uintptr_t value = nextHandle_;
  nextHandle_ += 4;  // handle values are multiples of four, as on Windows
  handles_.emplace(value, std::move(open));
  return reinterpret_cast<HANDLE>(value);
}

SimVolumeSystem::Open* SimVolumeSystem::find(HANDLE handle, Kind kind) {
  auto it = handles_.find(reinterpret_cast<uintptr_t>(handle));
  return (it != handles_.end() && it->second.kind == kind) ? &it->second : nullptr;
}

BOOL SimVolumeSystem::fail(DWORD error) {
  SetLastError(error);
  return FALSE;
}

bool SimVolumeSystem::isDevicePath(const std::wstring& path) const {
  return path.size() == 6 && path.compare(0, 4, L"\\\\.\\") == 0 && upperLetter(path[4]) == upperLetter(letter_) &&
         path[5] == L':';
}

bool SimVolumeSystem::relativePath(const std::wstring& path, std::wstring* relative) const {
  std::wstring p = path.compare(0, 4, L"\\\\?\\") == 0 ? path.substr(4) : path;
  if (p.size() < 2 || p[1] != L':' || upperLetter(p[0]) != upperLetter(letter_)) return false;
  *relative = p.substr(2);
  return true;
}

std::wstring SimVolumeSystem::getVolumeName() { return disk_->geometry().label; }
uint64_t SimVolumeSystem::getTotalClusters() { return disk_->totalClusters(); }
uint32_t SimVolumeSystem::getBytesPerCluster() { return disk_->bytesPerCluster(); }
wchar_t SimVolumeSystem::getDriveLetter() { return letter_; }

int32_t SimVolumeSystem::getFileSystemType() {
  std::wstring name = disk_->geometry().fileSystemName;
  if (name.find(L"NTFS") != std::wstring::npos) return kFileSystemNtfs;
  if (name.find(L"FAT32") != std::wstring::npos) return kFileSystemFat32;
  if (name.find(L"FAT") != std::wstring::npos) return kFileSystemFat;
  return kFileSystemUnknown;
}

bool SimVolumeSystem::getVolumeBitmap(std::unique_ptr<uint8_t[]>* bitmap) { return readWholeBitmap(*this, bitmap); }

void SimVolumeSystem::getExtendedStatistics(uint64_t* first, uint64_t* second) {
  SimStats stats = disk_->stats();
  *first = stats.files;
  *second = stats.fragmentedFiles;
}

BOOL SimVolumeSystem::getVolumeInformation(wchar_t* nameBuffer, DWORD nameSize, DWORD* serialNumber,
                                           DWORD* maxComponentLength, DWORD* flags, wchar_t* fileSystemNameBuffer,
                                           DWORD fileSystemNameSize) {
  if (disk_->vanished()) return fail(ERROR_PATH_NOT_FOUND);
  SimGeometry g = disk_->geometry();
  if (!copyText(g.label, nameBuffer, nameSize) || !copyText(g.fileSystemName, fileSystemNameBuffer, fileSystemNameSize)) {
    return fail(ERROR_INSUFFICIENT_BUFFER);
  }
  if (serialNumber != nullptr) *serialNumber = g.serialNumber;
  if (maxComponentLength != nullptr) *maxComponentLength = 255;
  if (flags != nullptr) *flags = kNtfsVolumeFlags;
  return TRUE;
}

BOOL SimVolumeSystem::getDiskFreeSpace(DWORD* sectorsPerCluster, DWORD* bytesPerSector, DWORD* freeClusters,
                                       DWORD* totalClusters) {
  if (disk_->vanished()) return fail(ERROR_PATH_NOT_FOUND);
  // Like GetDiskFreeSpaceW, counts past 32 bits are reported as the largest 32-bit value.
  auto clamp = [](uint64_t v) { return static_cast<DWORD>(std::min<uint64_t>(v, 0xFFFFFFFFu)); };
  if (sectorsPerCluster != nullptr) *sectorsPerCluster = disk_->bytesPerCluster() / 512;
  if (bytesPerSector != nullptr) *bytesPerSector = 512;
  if (freeClusters != nullptr) *freeClusters = clamp(disk_->freeClusters());
  if (totalClusters != nullptr) *totalClusters = clamp(disk_->totalClusters());
  return TRUE;
}

HANDLE SimVolumeSystem::createFile(const std::wstring& path, DWORD desiredAccess, DWORD shareMode,
                                   LPSECURITY_ATTRIBUTES security, DWORD creationDisposition,
                                   DWORD flagsAndAttributes, HANDLE templateFile) {
  if (isDevicePath(path)) {
    if (disk_->vanished()) {
      SetLastError(ERROR_FILE_NOT_FOUND);
      return INVALID_HANDLE_VALUE;
    }
    return addHandle(Open(Kind::kVolume));
  }
  std::wstring relative;
  if (!relativePath(path, &relative)) {
    SetLastError(ERROR_PATH_NOT_FOUND);
    return INVALID_HANDLE_VALUE;
  }
  // The engine only opens what exists; the simulated volume is not written through handles.
  if (creationDisposition != OPEN_EXISTING) {
    SetLastError(ERROR_ACCESS_DENIED);
    return INVALID_HANDLE_VALUE;
  }
  Open open(Kind::kFile);
  open.access = desiredAccess;
  DWORD error = disk_->openNode(relative, (flagsAndAttributes & FILE_FLAG_BACKUP_SEMANTICS) != 0, &open.node);
  if (error != ERROR_SUCCESS) {
    SetLastError(error);
    return INVALID_HANDLE_VALUE;
  }
  return addHandle(std::move(open));
}

BOOL SimVolumeSystem::closeHandle(HANDLE handle) {
  std::lock_guard<std::mutex> guard(mutex_);
  auto it = handles_.find(reinterpret_cast<uintptr_t>(handle));
  if (it == handles_.end() || it->second.kind == Kind::kFind) return fail(ERROR_INVALID_HANDLE);
  handles_.erase(it);
  return TRUE;
}

BOOL SimVolumeSystem::getFileSize(HANDLE handle, int64_t* size) {
  std::shared_ptr<SimNode> node;
  {
    std::lock_guard<std::mutex> guard(mutex_);
    if (find(handle, Kind::kVolume) != nullptr) {
      *size = static_cast<int64_t>(disk_->totalClusters() * disk_->bytesPerCluster());
      return TRUE;
    }
    Open* open = find(handle, Kind::kFile);
    if (open == nullptr) return fail(ERROR_INVALID_HANDLE);
    node = open->node;
  }
  DWORD error = disk_->sizeOf(*node, size);
  return error == ERROR_SUCCESS ? TRUE : fail(error);
}

DWORD SimVolumeSystem::getFileAttributes(const std::wstring& path) {
  std::wstring relative;
  DWORD attributes = INVALID_FILE_ATTRIBUTES;
  DWORD error = relativePath(path, &relative) ? disk_->attributesOf(relative, &attributes) : ERROR_PATH_NOT_FOUND;
  if (error != ERROR_SUCCESS) {
    SetLastError(error);
    return INVALID_FILE_ATTRIBUTES;
  }
  return attributes;
}

BOOL SimVolumeSystem::getVolumeBitmapChunk(const int64_t* startingLcn, void* buffer, DWORD bufferSize,
                                           DWORD* bytesReturned) {
  {
    std::lock_guard<std::mutex> guard(mutex_);
    if (find(volumeHandle_, Kind::kVolume) == nullptr) return fail(ERROR_INVALID_HANDLE);
  }
  DWORD error = disk_->readBitmap(*startingLcn, buffer, bufferSize, bytesReturned);
  return error == ERROR_SUCCESS ? TRUE : fail(error);
}

BOOL SimVolumeSystem::moveFile(const MOVE_FILE_DATA* move) {
  std::shared_ptr<SimNode> node;
  DWORD access;
  {
    std::lock_guard<std::mutex> guard(mutex_);
    if (find(volumeHandle_, Kind::kVolume) == nullptr) return fail(ERROR_INVALID_HANDLE);
    Open* open = find(move->FileHandle, Kind::kFile);
    if (open == nullptr) return fail(ERROR_INVALID_HANDLE);
    node = open->node;
    access = open->access;
  }
  bool mayReadData = (access & (FILE_READ_DATA | GENERIC_READ)) != 0;
  DWORD error = disk_->moveClusters(*node, mayReadData, move->StartingVcn.QuadPart, move->StartingLcn.QuadPart,
                                    move->ClusterCount);
  return error == ERROR_SUCCESS ? TRUE : fail(error);
}

BOOL SimVolumeSystem::getRetrievalPointers(HANDLE file, const int64_t* startingVcn, void* buffer, DWORD bufferSize,
                                           DWORD* bytesReturned) {
  std::shared_ptr<SimNode> node;
  {
    std::lock_guard<std::mutex> guard(mutex_);
    Open* open = find(file, Kind::kFile);
    if (open == nullptr) return fail(find(file, Kind::kVolume) != nullptr ? ERROR_INVALID_PARAMETER : ERROR_INVALID_HANDLE);
    node = open->node;
  }
  DWORD error = disk_->readRetrievalPointers(*node, *startingVcn, buffer, bufferSize, bytesReturned);
  return error == ERROR_SUCCESS ? TRUE : fail(error);
}

HANDLE SimVolumeSystem::findFirstFile(const std::wstring& pattern, WIN32_FIND_DATAW* data) {
  std::wstring relative;
  if (!relativePath(pattern, &relative)) {
    SetLastError(ERROR_PATH_NOT_FOUND);
    return INVALID_HANDLE_VALUE;
  }
  size_t cut = relative.find_last_of(L"\\/");
  std::wstring dir = cut == std::wstring::npos ? L"" : relative.substr(0, cut);
  std::wstring name = cut == std::wstring::npos ? relative : relative.substr(cut + 1);
  Open open(Kind::kFind);
  DWORD error = name.empty() ? ERROR_FILE_NOT_FOUND : disk_->listDirectory(dir, toUtf16(name), &open.entries);
  if (error != ERROR_SUCCESS) {
    SetLastError(error);
    return INVALID_HANDLE_VALUE;
  }
  fillFindData(open.entries[0], data);
  open.next = 1;
  return addHandle(std::move(open));
}

BOOL SimVolumeSystem::findNextFile(HANDLE find, WIN32_FIND_DATAW* data) {
  std::lock_guard<std::mutex> guard(mutex_);
  Open* open = this->find(find, Kind::kFind);
  if (open == nullptr) return fail(ERROR_INVALID_HANDLE);
  if (open->next >= open->entries.size()) return fail(ERROR_NO_MORE_FILES);
  fillFindData(open->entries[open->next++], data);
  return TRUE;
}

BOOL SimVolumeSystem::findClose(HANDLE find) {
  std::lock_guard<std::mutex> guard(mutex_);
  auto it = handles_.find(reinterpret_cast<uintptr_t>(find));
  if (it == handles_.end() || it->second.kind != Kind::kFind) return fail(ERROR_INVALID_HANDLE);
  handles_.erase(it);
  return TRUE;
}

}  // namespace glidewell
