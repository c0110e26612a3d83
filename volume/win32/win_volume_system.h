// CWinVolumeSystem: CVolumeSystem over the Windows volume and file API.
//
// The constructor opens the volume ("\\.\C:"), identifies its file system and
// reads the geometry every later computation relies on; it either returns a
// fully initialised object or throws CDfrgException(-1). Every other
// operation is a thin wrapper that passes the system's result back unchanged
// and leaves the error in GetLastError().
//
// Used by the one worker thread of its volume; takes no lock itself.
#ifndef GLIDEWELL_VOLUME_WIN32_WIN_VOLUME_SYSTEM_H_
#define GLIDEWELL_VOLUME_WIN32_WIN_VOLUME_SYSTEM_H_

#include <string>

#include "platform/win32/scoped_handle.h"
#include "volume/volume_system.h"

namespace glidewell {

class CWinVolumeSystem : public CVolumeSystem {
 public:
  // driveLetter is used as given: 'c' and 'C' give device paths that differ
  // in the case of that letter.
  explicit CWinVolumeSystem(wchar_t driveLetter);
  ~CWinVolumeSystem() override;
  CWinVolumeSystem(const CWinVolumeSystem&) = delete;
  CWinVolumeSystem& operator=(const CWinVolumeSystem&) = delete;

  std::wstring getVolumeName() override { return volumeName_; }
  uint64_t getTotalClusters() override { return totalClusters_; }
  uint32_t getBytesPerCluster() override { return bytesPerCluster_; }
  int32_t getFileSystemType() override { return fileSystemType_; }
  wchar_t getDriveLetter() override { return driveLetter_; }
  bool getVolumeBitmap(std::unique_ptr<uint8_t[]>* bitmap) override;
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

  // The file-system type a file-system name stands for: "NTFS" -> 1,
  // "FAT32" -> 3, any other name containing "FAT" -> 2, else -1.
  static int32_t detectFileSystem(const std::wstring& fileSystemName);

 private:
  void openVolume();
  void readGeometry();

  wchar_t driveLetter_;
  std::wstring rootPath_;    // "C:\"
  std::wstring volumeName_;  // the label
  std::wstring devicePath_;  // "\\.\C:"
  int32_t fileSystemType_ = kFileSystemUnknown;
  uint64_t totalClusters_ = ~uint64_t{0};
  uint32_t bytesPerCluster_ = ~uint32_t{0};
  ScopedHandle volumeHandle_;
};

}  // namespace glidewell

#endif  // GLIDEWELL_VOLUME_WIN32_WIN_VOLUME_SYSTEM_H_
