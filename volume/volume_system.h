// CVolumeSystem: every access of the engine to a volume, to the files on it and
// to the file system's defragmentation controls goes through this interface.
//
// CWinVolumeSystem implements it over the Windows volume API; the simulated
// disk (sim/) implements it over an in-memory NTFS-like volume. The wrappers
// pass BOOL results back unchanged and set the calling thread's last error on
// failure, so callers read GetLastError() themselves, exactly as with the
// Windows calls. The bitmap, retrieval-pointer and move operations take and
// return the byte layouts of the Windows controls.
//
// An instance is used by one thread at a time (the worker of its volume).
#ifndef GLIDEWELL_VOLUME_VOLUME_SYSTEM_H_
#define GLIDEWELL_VOLUME_VOLUME_SYSTEM_H_

#include <cstdint>
#include <memory>
#include <string>

#include "platform/wintypes.h"

namespace glidewell {

// One FSCTL_GET_VOLUME_BITMAP reply as the engine asks for it: the 16-byte
// VOLUME_BITMAP_BUFFER header and 9000 bitmap bytes, the bits of 72000
// clusters.
constexpr DWORD kBitmapReplyHeaderBytes = 16;
constexpr DWORD kBitmapReplyBytes = kBitmapReplyHeaderBytes + 9000;
constexpr uint64_t kBitmapReplyClusters = 72000;

// File-system type codes of getFileSystemType.
enum FileSystemType : int32_t {
  kFileSystemUnknown = -1,
  kFileSystemNtfs = 1,
  kFileSystemFat = 2,
  kFileSystemFat32 = 3,
};

// "NTFS", "FAT 16", "FAT 32" or "unknown", as log records show the type.
std::string fileSystemName(int32_t type);

class CVolumeSystem;
// getVolumeBitmap built on the volume's getVolumeBitmapChunk: reply after
// reply of kBitmapReplyBytes until the last; a failing reply ends the read
// with the rest left free. Always true.
bool readWholeBitmap(CVolumeSystem& volume, std::unique_ptr<uint8_t[]>* bitmap);

class CVolumeSystem {
 public:
  virtual ~CVolumeSystem() = default;

  virtual std::wstring getVolumeName() = 0;
  virtual uint64_t getTotalClusters() = 0;
  virtual uint32_t getBytesPerCluster() = 0;
  virtual int32_t getFileSystemType() = 0;
  virtual wchar_t getDriveLetter() = 0;
  // Reads the whole volume bitmap into a new buffer of ceil(totalClusters / 8)
  // bytes. Bit k of byte j: cluster 8j + k in use. A reply that fails part
  // way leaves the rest of the buffer zero (free), as Windows leaves it.
  virtual bool getVolumeBitmap(std::unique_ptr<uint8_t[]>* bitmap) = 0;
  // Not provided by the Windows implementation (throws std::string "not Implemented").
  virtual void getExtendedStatistics(uint64_t* first, uint64_t* second) = 0;
  virtual BOOL getVolumeInformation(wchar_t* nameBuffer, DWORD nameSize, DWORD* serialNumber,
                                    DWORD* maxComponentLength, DWORD* flags, wchar_t* fileSystemNameBuffer,
                                    DWORD fileSystemNameSize) = 0;
  virtual BOOL getDiskFreeSpace(DWORD* sectorsPerCluster, DWORD* bytesPerSector, DWORD* freeClusters,
                                DWORD* totalClusters) = 0;
  // CreateFileW with the same seven arguments; INVALID_HANDLE_VALUE on failure.
  virtual HANDLE createFile(const std::wstring& path, DWORD desiredAccess, DWORD shareMode,
                            LPSECURITY_ATTRIBUTES security, DWORD creationDisposition, DWORD flagsAndAttributes,
                            HANDLE templateFile) = 0;
  virtual BOOL closeHandle(HANDLE handle) = 0;
  virtual BOOL getFileSize(HANDLE handle, int64_t* size) = 0;
  // INVALID_FILE_ATTRIBUTES when they cannot be read.
  virtual DWORD getFileAttributes(const std::wstring& path) = 0;
  // FSCTL_GET_VOLUME_BITMAP from *startingLcn into a VOLUME_BITMAP_BUFFER.
  virtual BOOL getVolumeBitmapChunk(const int64_t* startingLcn, void* buffer, DWORD bufferSize,
                                    DWORD* bytesReturned) = 0;
  // FSCTL_MOVE_FILE with the 32-byte MOVE_FILE_DATA.
  virtual BOOL moveFile(const MOVE_FILE_DATA* move) = 0;
  // FSCTL_GET_RETRIEVAL_POINTERS of a file from *startingVcn into a RETRIEVAL_POINTERS_BUFFER.
  virtual BOOL getRetrievalPointers(HANDLE file, const int64_t* startingVcn, void* buffer, DWORD bufferSize,
                                    DWORD* bytesReturned) = 0;
  virtual HANDLE findFirstFile(const std::wstring& pattern, WIN32_FIND_DATAW* data) = 0;
  virtual BOOL findNextFile(HANDLE find, WIN32_FIND_DATAW* data) = 0;
  virtual BOOL findClose(HANDLE find) = 0;
};

}  // namespace glidewell

#endif  // GLIDEWELL_VOLUME_VOLUME_SYSTEM_H_
