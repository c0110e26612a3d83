#include "ntfs/ntfs_volume_system.h"

#include <algorithm>
#include <cstring>

#include "engine/dfrg_exception.h"
#include "platform/text.h"

namespace glidewell {

static_assert(kNtfsFileNotFound == ERROR_FILE_NOT_FOUND && kNtfsPathNotFound == ERROR_PATH_NOT_FOUND &&
                  kNtfsAccessDenied == ERROR_ACCESS_DENIED && kNtfsSharingViolation == ERROR_SHARING_VIOLATION &&
                  kNtfsInvalidParameter == ERROR_INVALID_PARAMETER && kNtfsHandleEof == ERROR_HANDLE_EOF &&
                  kNtfsReadFault == ERROR_READ_FAULT && kNtfsWriteFault == ERROR_WRITE_FAULT,
              "the volume answers with Win32 error numbers");
static_assert(kNtfsAttrDirectory == FILE_ATTRIBUTE_DIRECTORY && kNtfsAttrCompressed == FILE_ATTRIBUTE_COMPRESSED &&
                  kNtfsAttrSparse == FILE_ATTRIBUTE_SPARSE_FILE && kNtfsAttrEncrypted == FILE_ATTRIBUTE_ENCRYPTED &&
                  kNtfsAttrReparse == FILE_ATTRIBUTE_REPARSE_POINT,
              "NTFS stores the Win32 attributes");

namespace {

constexpr DWORD kRetrievalHeader = 16;      // ExtentCount, padding, StartingVcn
constexpr DWORD kRetrievalEntry = 16;       // NextVcn, Lcn
// Case-sensitive search and preserved names, Unicode, ACLs, compression,
// quotas, sparse files, reparse points, object ids, encryption.
constexpr DWORD kNtfsVolumeFlags = 0x000300FF;
constexpr DWORD kDataAccess = GENERIC_READ | GENERIC_WRITE | FILE_READ_DATA | 0x0002 /* write */ | 0x0004 /* append */;

wchar_t upperLetter(wchar_t c) { return (c >= L'a' && c <= L'z') ? static_cast<wchar_t>(c - L'a' + L'A') : c; }

void put32(void* buffer, size_t offset, uint32_t v) { std::memcpy(static_cast<uint8_t*>(buffer) + offset, &v, 4); }
void put64(void* buffer, size_t offset, int64_t v) { std::memcpy(static_cast<uint8_t*>(buffer) + offset, &v, 8); }

bool copyText(const std::wstring& text, wchar_t* buffer, DWORD size) {
  if (buffer == nullptr) return true;
  if (text.size() + 1 > size) return false;
  std::copy(text.begin(), text.end(), buffer);
  buffer[text.size()] = L'\0';
  return true;
}

// FindFirstFile patterns on names already upper-cased: '*' and '?'; a
// trailing ".*" also matches a name without an extension.
bool glob(const std::u16string& name, const std::u16string& pat, size_t patLength) {
  size_t i = 0, j = 0, star = std::u16string::npos, mark = 0;
  while (i < name.size()) {
    if (j < patLength && (pat[j] == u'?' || pat[j] == name[i])) {
      ++i;
      ++j;
    } else if (j < patLength && pat[j] == u'*') {
      star = j++;
      mark = i;
    } else if (star != std::u16string::npos) {
      j = star + 1;
      i = ++mark;
    } else {
      return false;
    }
  }
  while (j < patLength && pat[j] == u'*') ++j;
  return j == patLength;
}

bool matches(const std::u16string& upperName, const std::u16string& upperPattern) {
  size_t n = upperPattern.size();
  if (glob(upperName, upperPattern, n)) return true;
  return n >= 2 && upperPattern[n - 2] == u'.' && upperPattern[n - 1] == u'*' && glob(upperName, upperPattern, n - 2);
}

WIN32_FIND_DATAW findData(const std::u16string& name, const NtfsFileInfo& info) {
  WIN32_FIND_DATAW data;
  std::memset(&data, 0, sizeof(data));
  data.dwFileAttributes = info.attributes;
  data.nFileSizeHigh = static_cast<DWORD>(info.size >> 32);
  data.nFileSizeLow = static_cast<DWORD>(info.size);
  std::wstring text = fromUtf16(name);
  size_t n = std::min<size_t>(text.size(), MAX_PATH - 1);
  std::copy(text.begin(), text.begin() + static_cast<std::ptrdiff_t>(n), data.cFileName);
  return data;
}

}  // namespace

NtfsVolumeSystem::NtfsVolumeSystem(std::shared_ptr<NtfsVolume> volume, wchar_t driveLetter)
    : volume_(std::move(volume)), letter_(driveLetter) {
  Open open;
  open.kind = Kind::kVolume;
  volumeHandle_ = addHandle(std::move(open));
}

NtfsVolumeSystem::~NtfsVolumeSystem() = default;

HANDLE NtfsVolumeSystem::addHandle(Open open) {
  std::lock_guard<std::mutex> guard(mutex_);
  uintptr_t value = nextHandle_;
  nextHandle_ += 4;  // handle values are multiples of four, as on Windows
  handles_.emplace(value, std::move(open));
  return reinterpret_cast<HANDLE>(value);
}

NtfsVolumeSystem::Open* NtfsVolumeSystem::find(HANDLE handle, Kind kind) {
  auto it = handles_.find(reinterpret_cast<uintptr_t>(handle));
  return (it != handles_.end() && it->second.kind == kind) ? &it->second : nullptr;
}

BOOL NtfsVolumeSystem::fail(DWORD error) {
  SetLastError(error);
  return FALSE;
}

bool NtfsVolumeSystem::isDevicePath(const std::wstring& path) const {
  return path.size() == 6 && path.compare(0, 4, L"\\\\.\\") == 0 && upperLetter(path[4]) == upperLetter(letter_) &&
         path[5] == L':';
}

bool NtfsVolumeSystem::components(const std::wstring& path, std::vector<std::u16string>* parts) const {
  std::wstring p = path.compare(0, 4, L"\\\\?\\") == 0 ? path.substr(4) : path;
  if (p.size() < 2 || p[1] != L':' || upperLetter(p[0]) != upperLetter(letter_)) return false;
  parts->clear();
  std::wstring current;
  for (size_t i = 2; i <= p.size(); ++i) {
    if (i == p.size() || p[i] == L'\\' || p[i] == L'/') {
      if (!current.empty()) parts->push_back(toUtf16(current));
      current.clear();
    } else {
      current += p[i];
    }
  }
  return true;
}

uint32_t NtfsVolumeSystem::resolve(const std::wstring& path, uint64_t* mftNo) {
  std::vector<std::u16string> parts;
  if (!components(path, &parts)) return ERROR_PATH_NOT_FOUND;
  return volume_->lookup(parts, mftNo);
}

std::wstring NtfsVolumeSystem::getVolumeName() { return fromUtf16(volume_->label()); }
uint64_t NtfsVolumeSystem::getTotalClusters() { return volume_->totalClusters(); }
uint32_t NtfsVolumeSystem::getBytesPerCluster() { return volume_->bytesPerCluster(); }
int32_t NtfsVolumeSystem::getFileSystemType() { return kFileSystemNtfs; }
wchar_t NtfsVolumeSystem::getDriveLetter() { return letter_; }

bool NtfsVolumeSystem::getVolumeBitmap(std::unique_ptr<uint8_t[]>* bitmap) { return readWholeBitmap(*this, bitmap); }

void NtfsVolumeSystem::getExtendedStatistics(uint64_t*, uint64_t*) { throw std::string("not Implemented"); }

BOOL NtfsVolumeSystem::getVolumeInformation(wchar_t* nameBuffer, DWORD nameSize, DWORD* serialNumber,
                                            DWORD* maxComponentLength, DWORD* flags, wchar_t* fileSystemNameBuffer,
                                            DWORD fileSystemNameSize) {
  if (!copyText(getVolumeName(), nameBuffer, nameSize) || !copyText(L"NTFS", fileSystemNameBuffer, fileSystemNameSize)) {
    return fail(ERROR_INSUFFICIENT_BUFFER);
  }
  if (serialNumber != nullptr) *serialNumber = volume_->serialNumber();
  if (maxComponentLength != nullptr) *maxComponentLength = 255;
  if (flags != nullptr) *flags = kNtfsVolumeFlags;
  return TRUE;
}

BOOL NtfsVolumeSystem::getDiskFreeSpace(DWORD* sectorsPerCluster, DWORD* bytesPerSector, DWORD* freeClusters,
                                        DWORD* totalClusters) {
  // Like GetDiskFreeSpaceW, counts past 32 bits are reported as the largest 32-bit value.
  auto clamp = [](uint64_t v) { return static_cast<DWORD>(std::min<uint64_t>(v, 0xFFFFFFFFu)); };
  if (sectorsPerCluster != nullptr) *sectorsPerCluster = volume_->bytesPerCluster() / volume_->bytesPerSector();
  if (bytesPerSector != nullptr) *bytesPerSector = volume_->bytesPerSector();
  if (freeClusters != nullptr) *freeClusters = clamp(volume_->freeClusters());
  if (totalClusters != nullptr) *totalClusters = clamp(volume_->totalClusters());
  return TRUE;
}

HANDLE NtfsVolumeSystem::createFile(const std::wstring& path, DWORD desiredAccess, DWORD shareMode,
                                    LPSECURITY_ATTRIBUTES, DWORD creationDisposition, DWORD flagsAndAttributes,
                                    HANDLE) {
  if (isDevicePath(path)) {
    Open open;
    open.kind = Kind::kVolume;
    return addHandle(std::move(open));
  }
  uint64_t mftNo = 0;
  DWORD error = resolve(path, &mftNo);
  NtfsFileInfo info;
  if (error == ERROR_SUCCESS) error = volume_->fileInfo(mftNo, &info);
  // Nothing is created or truncated through this volume.
  if (error == ERROR_SUCCESS && creationDisposition != OPEN_EXISTING && creationDisposition != OPEN_ALWAYS) {
    error = ERROR_ACCESS_DENIED;
  }
  if (error == ERROR_SUCCESS && info.directory && !(flagsAndAttributes & FILE_FLAG_BACKUP_SEMANTICS)) {
    error = ERROR_ACCESS_DENIED;
  }
  if (error != ERROR_SUCCESS) {
    SetLastError(error);
    return INVALID_HANDLE_VALUE;
  }
  // Sharing, as between the handles of this volume object: opens for data
  // must be allowed by every other open for data of the same file.
  {
    std::lock_guard<std::mutex> guard(mutex_);
    DWORD wants = desiredAccess & kDataAccess;
    for (const auto& h : handles_) {
      const Open& other = h.second;
      if (other.kind != Kind::kFile || other.mftNo != mftNo) continue;
      DWORD has = other.access & kDataAccess;
      bool readClash = ((wants & (GENERIC_READ | FILE_READ_DATA)) && !(other.share & FILE_SHARE_READ)) ||
                       ((has & (GENERIC_READ | FILE_READ_DATA)) && !(shareMode & FILE_SHARE_READ));
      bool writeClash = ((wants & ~(GENERIC_READ | FILE_READ_DATA)) && !(other.share & FILE_SHARE_WRITE)) ||
                        ((has & ~(GENERIC_READ | FILE_READ_DATA)) && !(shareMode & FILE_SHARE_WRITE));
      if (wants != 0 && has != 0 && (readClash || writeClash)) {
        SetLastError(ERROR_SHARING_VIOLATION);
        return INVALID_HANDLE_VALUE;
      }
    }
  }
  Open open;
  open.kind = Kind::kFile;
  open.mftNo = mftNo;
  open.access = desiredAccess;
  open.share = shareMode;
  open.attributes = info.attributes;
  return addHandle(std::move(open));
}

BOOL NtfsVolumeSystem::closeHandle(HANDLE handle) {
  std::lock_guard<std::mutex> guard(mutex_);
  auto it = handles_.find(reinterpret_cast<uintptr_t>(handle));
  if (it == handles_.end() || it->second.kind == Kind::kFind) return fail(ERROR_INVALID_HANDLE);
  handles_.erase(it);
  return TRUE;
}

BOOL NtfsVolumeSystem::getFileSize(HANDLE handle, int64_t* size) {
  uint64_t mftNo;
  {
    std::lock_guard<std::mutex> guard(mutex_);
    if (find(handle, Kind::kVolume) != nullptr) {
      *size = static_cast<int64_t>(volume_->totalClusters() * volume_->bytesPerCluster());
      return TRUE;
    }
    Open* open = find(handle, Kind::kFile);
    if (open == nullptr) return fail(ERROR_INVALID_HANDLE);
    mftNo = open->mftNo;
  }
  NtfsFileInfo info;
  DWORD error = volume_->fileInfo(mftNo, &info);
  if (error != ERROR_SUCCESS) return fail(error);
  *size = static_cast<int64_t>(info.size);
  return TRUE;
}

DWORD NtfsVolumeSystem::getFileAttributes(const std::wstring& path) {
  std::vector<std::u16string> parts;
  DWORD error = components(path, &parts) ? ERROR_SUCCESS : ERROR_PATH_NOT_FOUND;
  if (error == ERROR_SUCCESS && parts.empty()) {
    return FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM;
  }
  uint64_t mftNo = 0;
  NtfsFileInfo info;
  if (error == ERROR_SUCCESS) error = volume_->lookup(parts, &mftNo);
  if (error == ERROR_SUCCESS) error = volume_->fileInfo(mftNo, &info);
  if (error != ERROR_SUCCESS) {
    SetLastError(error);
    return INVALID_FILE_ATTRIBUTES;
  }
  return info.attributes;
}

BOOL NtfsVolumeSystem::getVolumeBitmapChunk(const int64_t* startingLcn, void* buffer, DWORD bufferSize,
                                            DWORD* bytesReturned) {
  *bytesReturned = 0;
  {
    std::lock_guard<std::mutex> guard(mutex_);
    if (find(volumeHandle_, Kind::kVolume) == nullptr) return fail(ERROR_INVALID_HANDLE);
  }
  uint64_t total = volume_->totalClusters();
  if (bufferSize < kBitmapReplyHeaderBytes) return fail(ERROR_INSUFFICIENT_BUFFER);
  if (*startingLcn < 0 || static_cast<uint64_t>(*startingLcn) >= total) return fail(ERROR_INVALID_PARAMETER);
  // The reply starts at a whole byte of the bitmap.
  uint64_t start = static_cast<uint64_t>(*startingLcn) & ~uint64_t{7};
  uint64_t clusters = total - start;
  uint64_t needed = (clusters + 7) / 8;
  uint64_t n = std::min<uint64_t>(needed, bufferSize - kBitmapReplyHeaderBytes);
  put64(buffer, 0, static_cast<int64_t>(start));
  put64(buffer, 8, static_cast<int64_t>(clusters));
  DWORD error = volume_->readBitmap(start / 8, static_cast<size_t>(n), static_cast<uint8_t*>(buffer) + kBitmapReplyHeaderBytes);
  if (error != ERROR_SUCCESS) return fail(error);
  *bytesReturned = static_cast<DWORD>(kBitmapReplyHeaderBytes + n);
  return n < needed ? fail(ERROR_MORE_DATA) : TRUE;
}

BOOL NtfsVolumeSystem::moveFile(const MOVE_FILE_DATA* move) {
  uint64_t mftNo;
  DWORD access;
  uint32_t attributes;
  {
    std::lock_guard<std::mutex> guard(mutex_);
    if (find(volumeHandle_, Kind::kVolume) == nullptr) return fail(ERROR_INVALID_HANDLE);
    Open* open = find(move->FileHandle, Kind::kFile);
    if (open == nullptr) return fail(ERROR_INVALID_HANDLE);
    mftNo = open->mftNo;
    access = open->access;
    attributes = open->attributes;
  }
  // An encrypted file moves only through a handle that may read its data.
  if ((attributes & FILE_ATTRIBUTE_ENCRYPTED) && !(access & (FILE_READ_DATA | GENERIC_READ))) {
    return fail(ERROR_ACCESS_DENIED);
  }
  DWORD error = volume_->moveClusters(mftNo, move->StartingVcn.QuadPart, move->StartingLcn.QuadPart,
                                      move->ClusterCount);
  return error == ERROR_SUCCESS ? TRUE : fail(error);
}

BOOL NtfsVolumeSystem::getRetrievalPointers(HANDLE file, const int64_t* startingVcn, void* buffer, DWORD bufferSize,
                                            DWORD* bytesReturned) {
  *bytesReturned = 0;
  uint64_t mftNo;
  {
    std::lock_guard<std::mutex> guard(mutex_);
    Open* open = find(file, Kind::kFile);
    if (open == nullptr) return fail(find(file, Kind::kVolume) != nullptr ? ERROR_INVALID_PARAMETER : ERROR_INVALID_HANDLE);
    mftNo = open->mftNo;
  }
  if (bufferSize < kRetrievalHeader + kRetrievalEntry) return fail(ERROR_INSUFFICIENT_BUFFER);
  if (*startingVcn < 0) return fail(ERROR_INVALID_PARAMETER);
  NtfsStreamMap map;
  DWORD error = volume_->streamMap(mftNo, &map);
  if (error != ERROR_SUCCESS) return fail(error);
  int64_t vcn = *startingVcn;
  // The first run that reaches past vcn; a resident stream or a VCN past the
  // end has no mapping.
  auto it = std::upper_bound(map.runs.begin(), map.runs.end(), vcn,
                             [](int64_t v, const NtfsRun& r) { return v < r.vcn + r.length; });
  if (!map.nonResident || it == map.runs.end() || vcn < it->vcn) return fail(ERROR_HANDLE_EOF);
  size_t room = (bufferSize - kRetrievalHeader) / kRetrievalEntry;
  size_t n = 0;
  put64(buffer, 8, vcn);
  for (; n < room && it != map.runs.end(); ++it, ++n) {
    size_t at = kRetrievalHeader + n * kRetrievalEntry;
    put64(buffer, at, it->vcn + it->length);
    put64(buffer, at + 8, it->lcn < 0 ? -1 : it->lcn + (vcn - it->vcn));
    vcn = it->vcn + it->length;
  }
  put32(buffer, 0, static_cast<uint32_t>(n));
  put32(buffer, 4, 0);
  *bytesReturned = static_cast<DWORD>(kRetrievalHeader + n * kRetrievalEntry);
  return it != map.runs.end() ? fail(ERROR_MORE_DATA) : TRUE;
}

HANDLE NtfsVolumeSystem::findFirstFile(const std::wstring& pattern, WIN32_FIND_DATAW* data) {
  std::vector<std::u16string> parts;
  if (!components(pattern, &parts) || parts.empty()) {
    SetLastError(parts.empty() ? ERROR_FILE_NOT_FOUND : ERROR_PATH_NOT_FOUND);
    return INVALID_HANDLE_VALUE;
  }
  std::u16string wanted = volume_->upcase(parts.back());
  parts.pop_back();
  uint64_t dir = NtfsVolume::kRootMft;
  DWORD error = parts.empty() ? ERROR_SUCCESS : volume_->lookup(parts, &dir);
  std::vector<NtfsName> names;
  if (error == ERROR_SUCCESS) error = volume_->listNames(dir, &names);
  if (error != ERROR_SUCCESS) {
    SetLastError(ERROR_PATH_NOT_FOUND);
    return INVALID_HANDLE_VALUE;
  }
  Open open;
  open.kind = Kind::kFind;
  if (dir != NtfsVolume::kRootMft) {
    // NTFS lists "." and ".." first in every directory but the root.
    NtfsFileInfo dot;
    dot.directory = true;
    dot.attributes = FILE_ATTRIBUTE_DIRECTORY;
    for (const char16_t* name : {u".", u".."}) {
      if (matches(name, wanted)) open.entries.push_back(findData(name, dot));
    }
  }
  for (const NtfsName& n : names) {
    NtfsFileInfo info;
    if (!matches(volume_->upcase(n.name), wanted) || volume_->fileInfo(n.mftNo, &info) != ERROR_SUCCESS) continue;
    open.entries.push_back(findData(n.name, info));
  }
  if (open.entries.empty()) {
    SetLastError(ERROR_FILE_NOT_FOUND);
    return INVALID_HANDLE_VALUE;
  }
  *data = open.entries[0];
  open.next = 1;
  return addHandle(std::move(open));
}

BOOL NtfsVolumeSystem::findNextFile(HANDLE find, WIN32_FIND_DATAW* data) {
  std::lock_guard<std::mutex> guard(mutex_);
  Open* open = this->find(find, Kind::kFind);
  if (open == nullptr) return fail(ERROR_INVALID_HANDLE);
  if (open->next >= open->entries.size()) return fail(ERROR_NO_MORE_FILES);
  *data = open->entries[open->next++];
  return TRUE;
}

BOOL NtfsVolumeSystem::findClose(HANDLE find) {
  std::lock_guard<std::mutex> guard(mutex_);
  auto it = handles_.find(reinterpret_cast<uintptr_t>(find));
  if (it == handles_.end() || it->second.kind != Kind::kFind) return fail(ERROR_INVALID_HANDLE);
  handles_.erase(it);
  return TRUE;
}

}  // namespace glidewell
