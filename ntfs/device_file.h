// DeviceFile: the image file or block device under an NTFS volume, the one
// place through which every byte of it is read, written and made durable --
// by libntfs-3g (see ntfs_device.h) and by the mover alike.
//
// It is a seam: tests wrap the real file to count its writes and flushes and
// to end the process at any one of them, as a crash would.
#ifndef GLIDEWELL_NTFS_DEVICE_FILE_H_
#define GLIDEWELL_NTFS_DEVICE_FILE_H_

#include <sys/stat.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace glidewell {

class DeviceFile {
 public:
  virtual ~DeviceFile() = default;
  // As pread(2) and pwrite(2): bytes transferred, or -1 with errno set.
  virtual int64_t read(void* buffer, int64_t count, int64_t offset) = 0;
  virtual int64_t write(const void* buffer, int64_t count, int64_t offset) = 0;
  // Makes every write before it durable; 0 or -1 with errno set.
  virtual int sync() = 0;
  virtual int stat(struct stat* st) = 0;
  // Block device queries (sizes, geometry) that libntfs-3g makes.
  virtual int ioctl(unsigned long request, void* argument) = 0;
};

// Opens path for reading and writing. A block device is opened exclusively
// (O_EXCL), so that the kernel cannot mount it while we work; an image file
// is locked with fcntl against another program that locks it the same way
// (as ntfs-3g does). Null with the reason in *error.
std::unique_ptr<DeviceFile> openDeviceFile(const std::string& path, std::string* error);

// Lets a caller put its own layer over the opened file (tests: fault injection).
using DeviceFileWrapper = std::function<std::unique_ptr<DeviceFile>(std::unique_ptr<DeviceFile>)>;

}  // namespace glidewell

#endif  // GLIDEWELL_NTFS_DEVICE_FILE_H_
