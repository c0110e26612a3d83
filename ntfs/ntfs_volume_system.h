// NtfsVolumeSystem: a CVolumeSystem over a real NTFS volume (NtfsVolume),
// answering the volume, file and control calls as Windows answers them on
// NTFS: the same reply layouts and sizes, the same BOOL results and the
// calling thread's last error on failure.
//
// Several may share one NtfsVolume (the volume serialises them). Each has its
// own handle table; an instance is used by one thread at a time, but its
// table is guarded all the same.
#ifndef GLIDEWELL_NTFS_NTFS_VOLUME_SYSTEM_H_
#define GLIDEWELL_NTFS_NTFS_VOLUME_SYSTEM_H_

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "ntfs/ntfs_volume.h"
#include "volume/volume_system.h"

namespace glidewell {

class NtfsVolumeSystem : public CVolumeSystem {
 public:
  // Serves volume as drive driveLetter (used as given, as on Windows).
  NtfsVolumeSystem(std::shared_ptr<NtfsVolume> volume, wchar_t driveLetter);
  ~NtfsVolumeSystem() override;
  NtfsVolumeSystem(const NtfsVolumeSystem&) = delete;
  NtfsVolumeSystem& operator=(const NtfsVolumeSystem&) = delete;

  NtfsVolume& volume() const { return *volume_; }

  std::wstring getVolumeName() override;
  uint64_t getTotalClusters() override;
  uint32_t getBytesPerCluster() override;
  int32_t getFileSystemType() override;
  wchar_t getDriveLetter() override;
  bool getVolumeBitmap(std::unique_ptr<uint8_t[]>* bitmap) override;
  // As on Windows: throws std::string "not Implemented".
  void getExtendedStatistics(uint64_t* first, uint64_t* second) override;
  BOOL getVolumeInformation(wchar_t* nameBuffer, DWORD nameSize, DWORD* serialNumber, DWORD* maxComponentLength,
                            DWORD* flags, wchar_t* fileSystemNameBuffer, DWORD fileSystemNameSize) override;
  BOOL getDiskFreeSpace(DWORD* sectorsPerCluster, DWORD* bytesPerSector, DWORD* freeClusters,
                        DWORD* totalClusters) override;
  HANDLE createFile(const std::wstring& path, DWORD desiredAccess, DWORD shareMode, LPSECURITY_ATTRIBUTES security,
                    DWORD creationDisposition, DWORD flagsAndAttributes, HANDLE templateFile) override;
  BOOL closeHandle(HANDLE handle) override;
  BOOL getFileSize(HANDLE handle, int64_t* size) override;
  DWORD getFileAttributes(const std::wstring& path) override;
  BOOL getVolumeBitmapChunk(const int64_t* startingLcn, void* buffer, DWORD bufferSize,
                            DWORD* bytesReturned) override;
  BOOL moveFile(const MOVE_FILE_DATA* move) override;
  BOOL getRetrievalPointers(HANDLE file, const int64_t* startingVcn, void* buffer, DWORD bufferSize,
                            DWORD* bytesReturned) override;
  HANDLE findFirstFile(const std::wstring& pattern, WIN32_FIND_DATAW* data) override;
  BOOL findNextFile(HANDLE find, WIN32_FIND_DATAW* data) override;
  BOOL findClose(HANDLE find) override;

 private:
  enum class Kind { kVolume, kFile, kFind };
  struct Open {
    Kind kind = Kind::kFile;
    uint64_t mftNo = 0;          // kFile
    DWORD access = 0;            // kFile
    DWORD share = 0;             // kFile
    uint32_t attributes = 0;     // kFile
    std::vector<WIN32_FIND_DATAW> entries;  // kFind
    size_t next = 0;             // kFind
  };

  HANDLE addHandle(Open open);
  Open* find(HANDLE handle, Kind kind);  // the caller holds mutex_
  bool isDevicePath(const std::wstring& path) const;
  // "X:\dir\file" -> {"dir", "file"}; false when the path is not on this drive.
  bool components(const std::wstring& path, std::vector<std::u16string>* parts) const;
  uint32_t resolve(const std::wstring& path, uint64_t* mftNo);
  BOOL fail(DWORD error);

  std::shared_ptr<NtfsVolume> volume_;
  wchar_t letter_;
  std::mutex mutex_;
  std::map<uintptr_t, Open> handles_;
  uintptr_t nextHandle_ = 0x104;
  HANDLE volumeHandle_ = INVALID_HANDLE_VALUE;
};

}  // namespace glidewell

#endif  // GLIDEWELL_NTFS_NTFS_VOLUME_SYSTEM_H_
