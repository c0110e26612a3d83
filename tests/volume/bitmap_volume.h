// A small in-memory CVolumeSystem for the volume tests and the snapshot
// benchmark: a bitmap answered in NTFS-shaped replies, and files whose cluster
// maps the test sets run by run. The simulated disk (sim/) is the full
// stand-in for a volume; this one lets a test set any bitmap and script each
// reply, including replies no file system would give.
#ifndef GLIDEWELL_TESTS_VOLUME_BITMAP_VOLUME_H_
#define GLIDEWELL_TESTS_VOLUME_BITMAP_VOLUME_H_

#include <algorithm>
#include <cstring>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "volume/extent.h"
#include "volume/volume_system.h"

namespace glidewell {
namespace testing {

class BitmapVolume : public CVolumeSystem {
 public:
  // One mapping pair of a file: the run ends before nextVcn and is stored at
  // lcn (kNoCluster for a virtual run).
  struct Run {
    uint64_t nextVcn;
    uint64_t lcn;
  };
  struct FakeFile {
    DWORD attributes = FILE_ATTRIBUTE_NORMAL;
    std::vector<Run> runs;  // empty: the data lives in the file record
    DWORD openError = 0;    // non-zero: createFile fails with it
  };

  explicit BitmapVolume(uint64_t totalClusters, wchar_t letter = L'T')
      : bitmap((totalClusters + 7) / 8), total_(totalClusters), letter_(letter) {}

  void setUsed(uint64_t first, uint64_t last, bool used) {
    for (uint64_t c = first; c <= last; ++c) {
      if (used) {
        bitmap[c / 8] |= static_cast<uint8_t>(1u << (c % 8));
      } else {
        bitmap[c / 8] &= static_cast<uint8_t>(~(1u << (c % 8)));
      }
    }
  }
  bool isUsed(uint64_t lcn) const { return (bitmap[lcn / 8] >> (lcn % 8)) & 1; }

  // A file or directory by its full path ("T:\dir\name"); not listed by find.
  FakeFile& addFile(const std::wstring& path, DWORD attributes = FILE_ATTRIBUTE_NORMAL) {
    FakeFile& f = files[path];
    f.attributes = attributes;
    return f;
  }

  std::vector<uint8_t> bitmap;
  std::map<std::wstring, FakeFile> files;
  std::wstring label = L"Fake";
  int32_t fileSystemType = kFileSystemNtfs;
  uint32_t bytesPerCluster = 4096;
  // Bitmap requests from this LCN on fail with ERROR_READ_FAULT.
  uint64_t failBitmapFrom = kNoCluster;
  // Every bitmap request's starting LCN, and what the last createFile asked for.
  std::vector<int64_t> bitmapRequests;
  std::vector<int64_t> retrievalRequests;
  DWORD lastAccess = 0, lastShare = 0, lastDisposition = 0, lastFlags = 0;
  std::wstring lastOpened;
  // Replaces the retrieval-pointer replies when set.
  std::function<BOOL(const int64_t*, void*, DWORD, DWORD*)> retrievalOverride;
  int openHandles = 0;

  std::wstring getVolumeName() override { return label; }
  uint64_t getTotalClusters() override { return total_; }
  uint32_t getBytesPerCluster() override { return bytesPerCluster; }
  int32_t getFileSystemType() override { return fileSystemType; }
  wchar_t getDriveLetter() override { return letter_; }
  bool getVolumeBitmap(uint8_t** out) override {
    *out = new uint8_t[bitmap.size()];
    std::memcpy(*out, bitmap.data(), bitmap.size());
    return true;
  }
  void getExtendedStatistics(uint64_t*, uint64_t*) override { throw std::string("not Implemented"); }
  BOOL getVolumeInformation(wchar_t*, DWORD, DWORD*, DWORD*, DWORD*, wchar_t*, DWORD) override { return fail(50); }
  BOOL getDiskFreeSpace(DWORD*, DWORD*, DWORD*, DWORD*) override { return fail(50); }

  HANDLE createFile(const std::wstring& path, DWORD access, DWORD share, LPSECURITY_ATTRIBUTES, DWORD disposition,
                    DWORD flags, HANDLE) override {
    lastOpened = path;
    lastAccess = access;
    lastShare = share;
    lastDisposition = disposition;
    lastFlags = flags;
    auto it = files.find(path);
    if (it == files.end()) return failHandle(ERROR_FILE_NOT_FOUND);
    if (it->second.openError != 0) return failHandle(it->second.openError);
    handles_.push_back(path);
    ++openHandles;
    return reinterpret_cast<HANDLE>(static_cast<intptr_t>(handles_.size()));
  }
  BOOL closeHandle(HANDLE) override {
    --openHandles;
    return TRUE;
  }
  BOOL getFileSize(HANDLE, int64_t*) override { return fail(50); }
  DWORD getFileAttributes(const std::wstring& path) override {
    auto it = files.find(path);
    if (it == files.end()) {
      SetLastError(ERROR_FILE_NOT_FOUND);
      return INVALID_FILE_ATTRIBUTES;
    }
    return it->second.attributes;
  }

  BOOL getVolumeBitmapChunk(const int64_t* startingLcn, void* buffer, DWORD size, DWORD* returned) override {
    bitmapRequests.push_back(*startingLcn);
    uint64_t start = static_cast<uint64_t>(*startingLcn) & ~uint64_t{7};
    if (start >= total_ || size < 16) return fail(ERROR_INVALID_PARAMETER);
    if (start >= failBitmapFrom) return fail(ERROR_READ_FAULT);
    uint64_t clusters = total_ - start;
    uint64_t bytes = std::min<uint64_t>((clusters + 7) / 8, size - 16);
    auto* out = static_cast<uint8_t*>(buffer);
    std::memcpy(out, &start, 8);
    std::memcpy(out + 8, &clusters, 8);
    std::memcpy(out + 16, bitmap.data() + start / 8, bytes);
    *returned = static_cast<DWORD>(16 + bytes);
    return bytes * 8 < clusters ? fail(ERROR_MORE_DATA) : TRUE;
  }
  BOOL moveFile(const MOVE_FILE_DATA*) override { return fail(ERROR_NOT_SUPPORTED); }

  // Answers as NTFS does: from the run holding startingVcn, as many pairs as
  // fit, ERROR_MORE_DATA when some are left, ERROR_HANDLE_EOF past the end.
  BOOL getRetrievalPointers(HANDLE file, const int64_t* startingVcn, void* buffer, DWORD size,
                            DWORD* returned) override {
    retrievalRequests.push_back(*startingVcn);
    if (retrievalOverride) return retrievalOverride(startingVcn, buffer, size, returned);
    const std::vector<Run>& runs = files[handles_.at(reinterpret_cast<intptr_t>(file) - 1)].runs;
    auto vcn = static_cast<uint64_t>(*startingVcn);
    size_t first = 0;
    uint64_t runStart = 0;
    while (first < runs.size() && runs[first].nextVcn <= vcn) runStart = runs[first++].nextVcn;
    if (first == runs.size()) return fail(ERROR_HANDLE_EOF);
    size_t room = (size - 16) / 16;
    size_t n = std::min(room, runs.size() - first);
    auto* out = static_cast<uint8_t*>(buffer);
    uint32_t count = static_cast<uint32_t>(n);
    std::memset(out, 0, 16);
    std::memcpy(out, &count, 4);
    std::memcpy(out + 8, &runStart, 8);
    for (size_t k = 0; k < n; ++k) {
      std::memcpy(out + 16 + 16 * k, &runs[first + k].nextVcn, 8);
      std::memcpy(out + 24 + 16 * k, &runs[first + k].lcn, 8);
    }
    *returned = static_cast<DWORD>(16 + 16 * n);
    return first + n < runs.size() ? fail(ERROR_MORE_DATA) : TRUE;
  }

  HANDLE findFirstFile(const std::wstring&, WIN32_FIND_DATAW*) override { return failHandle(ERROR_NOT_SUPPORTED); }
  BOOL findNextFile(HANDLE, WIN32_FIND_DATAW*) override { return fail(ERROR_NOT_SUPPORTED); }
  BOOL findClose(HANDLE) override { return TRUE; }

 private:
  static BOOL fail(DWORD error) {
    SetLastError(error);
    return FALSE;
  }
  static HANDLE failHandle(DWORD error) {
    SetLastError(error);
    return INVALID_HANDLE_VALUE;
  }

  uint64_t total_;
  wchar_t letter_;
  std::vector<std::wstring> handles_;
};

}  // namespace testing
}  // namespace glidewell

#endif  // GLIDEWELL_TESTS_VOLUME_BITMAP_VOLUME_H_
