// SimVolumeSystem: a CVolumeSystem handle onto a simulated disk, answering
// the volume, file and control calls the way NTFS does: the same byte layouts,
// the same BOOL results, and the calling thread's last error on failure.
//
// Several may be open on one disk at once (each has its own handle table,
// like two processes); the disk itself is shared and thread safe. One
// instance is used by one thread at a time, as the interface requires, but
// its handle table is guarded all the same.
#ifndef GLIDEWELL_SIM_SIM_VOLUME_SYSTEM_H_
#define GLIDEWELL_SIM_SIM_VOLUME_SYSTEM_H_

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "sim/sim_disk.h"
#include "volume/volume_system.h"

namespace glidewell {

class SimVolumeSystem : public CVolumeSystem {
 public:
  // Opens the disk as drive driveLetter (used as given, as on Windows). lease
  // is kept until this object is destroyed, after every handle is closed (the
  // drive registry writes the disk back to its image then). Throws
  // CDfrgException(-1, "Couldn't open Volume ! \\.\X:") when the volume has
  // vanished.
  SimVolumeSystem(std::shared_ptr<SimDisk> disk, wchar_t driveLetter, std::shared_ptr<void> lease = nullptr);
  ~SimVolumeSystem() override;
  SimVolumeSystem(const SimVolumeSystem&) = delete;
  SimVolumeSystem& operator=(const SimVolumeSystem&) = delete;

  SimDisk& disk() const { return *disk_; }
  const std::shared_ptr<SimDisk>& sharedDisk() const { return disk_; }

  std::wstring getVolumeName() override;
  uint64_t getTotalClusters() override;
  uint32_t getBytesPerCluster() override;
  int32_t getFileSystemType() override;
  wchar_t getDriveLetter() override;
  bool getVolumeBitmap(std::unique_ptr<uint8_t[]>* bitmap) override;
  // first: the number of files; second: how many of them are fragmented.
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

  // The number of handles open on this object (its own volume handle included).
  size_t openHandles() const;

 private:
  enum class Kind { kVolume, kFile, kFind };
  struct Open {
    explicit Open(Kind kind) : kind(kind) {}
    Kind kind;
    std::shared_ptr<SimNode> node;     // kFile
    DWORD access = 0;                  // kFile
    std::vector<SimDirEntry> entries;  // kFind
    size_t next = 0;                   // kFind
  };

  HANDLE addHandle(Open open);
  // The open object of a handle of that kind, or null (the caller holds mutex_).
  Open* find(HANDLE handle, Kind kind);
  bool isDevicePath(const std::wstring& path) const;
  // "X:\dir\file" -> "dir\file"; false when the path is not on this drive.
  bool relativePath(const std::wstring& path, std::wstring* relative) const;
  BOOL fail(DWORD error);

  std::shared_ptr<void> lease_;  // first member: released after everything else
  std::shared_ptr<SimDisk> disk_;
  wchar_t letter_;
  std::wstring devicePath_;
  mutable std::mutex mutex_;
  std::map<uintptr_t, Open> handles_;
  uintptr_t nextHandle_ = 0x104;
  HANDLE volumeHandle_ = INVALID_HANDLE_VALUE;
};

}  // namespace glidewell

#endif  // GLIDEWELL_SIM_SIM_VOLUME_SYSTEM_H_
