#include "support/endless_volume.h"

#include <cstring>
#include <string>

namespace glidewell {

namespace {

// 2^50 clusters: at 72000 clusters a reply the scan never finishes in a test.
constexpr uint64_t kClusters = uint64_t{1} << 50;

class EndlessVolume : public CVolumeSystem {
 public:
  EndlessVolume(wchar_t letter, std::shared_ptr<EndlessVolumeProbe> probe) : letter_(letter), probe_(std::move(probe)) {}

  std::wstring getVolumeName() override { return L"Endless"; }
  uint64_t getTotalClusters() override { return kClusters; }
  uint32_t getBytesPerCluster() override { return 4096; }
  int32_t getFileSystemType() override { return kFileSystemNtfs; }
  wchar_t getDriveLetter() override { return letter_; }
  bool getVolumeBitmap(std::unique_ptr<uint8_t[]>*) override { return false; }
  void getExtendedStatistics(uint64_t* a, uint64_t* b) override { *a = *b = 0; }
  BOOL getVolumeInformation(wchar_t*, DWORD, DWORD*, DWORD*, DWORD*, wchar_t*, DWORD) override { return FALSE; }
  BOOL getDiskFreeSpace(DWORD*, DWORD*, DWORD*, DWORD*) override { return FALSE; }
  HANDLE createFile(const std::wstring&, DWORD, DWORD, LPSECURITY_ATTRIBUTES, DWORD, DWORD, HANDLE) override {
    return reinterpret_cast<HANDLE>(static_cast<intptr_t>(0x77));
  }
  BOOL closeHandle(HANDLE) override { return TRUE; }
  BOOL getFileSize(HANDLE, int64_t* size) override {
    *size = 0;
    return TRUE;
  }
  DWORD getFileAttributes(const std::wstring&) override { return FILE_ATTRIBUTE_NORMAL; }

  BOOL getVolumeBitmapChunk(const int64_t* startingLcn, void* buffer, DWORD bufferSize,
                            DWORD* bytesReturned) override {
    probe_->bitmapReplies++;
    auto* reply = static_cast<VOLUME_BITMAP_BUFFER*>(buffer);
    int64_t start = *startingLcn & ~int64_t{7};
    DWORD room = bufferSize - 16;
    reply->StartingLcn.QuadPart = start;
    reply->BitmapSize.QuadPart = static_cast<int64_t>(kClusters) - start;
    std::memset(reply->Buffer, 0, room);  // all free
    *bytesReturned = bufferSize;
    SetLastError(ERROR_MORE_DATA);
    return FALSE;
  }
  BOOL moveFile(const MOVE_FILE_DATA*) override {
    SetLastError(ERROR_INVALID_PARAMETER);
    return FALSE;
  }
  BOOL getRetrievalPointers(HANDLE, const int64_t*, void*, DWORD, DWORD* bytesReturned) override {
    *bytesReturned = 0;
    SetLastError(ERROR_HANDLE_EOF);
    return FALSE;
  }
  HANDLE findFirstFile(const std::wstring& pattern, WIN32_FIND_DATAW* data) override {
    probe_->listings++;
    if (probe_->onListing) probe_->onListing();
    // Only the root has an entry.
    if (pattern != std::wstring(1, letter_) + L":\\*.*") {
      SetLastError(ERROR_FILE_NOT_FOUND);
      return INVALID_HANDLE_VALUE;
    }
    std::memset(data, 0, sizeof(*data));
    data->dwFileAttributes = FILE_ATTRIBUTE_NORMAL;
    std::wcscpy(data->cFileName, L"file.bin");
    return reinterpret_cast<HANDLE>(static_cast<intptr_t>(0x55));
  }
  BOOL findNextFile(HANDLE, WIN32_FIND_DATAW*) override {
    SetLastError(ERROR_NO_MORE_FILES);
    return FALSE;
  }
  BOOL findClose(HANDLE) override { return TRUE; }

 private:
  wchar_t letter_;
  std::shared_ptr<EndlessVolumeProbe> probe_;
};

}  // namespace

std::unique_ptr<CVolumeSystem> makeEndlessVolume(wchar_t letter, std::shared_ptr<EndlessVolumeProbe> probe) {
  return std::make_unique<EndlessVolume>(letter, std::move(probe));
}

}  // namespace glidewell
