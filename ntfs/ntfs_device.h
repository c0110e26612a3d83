// NtfsDevice: lends a DeviceFile to libntfs-3g as the device of a volume, so
// that the library's reads and writes and the mover's own go through one
// file (and one fault-injection seam in tests).
#ifndef GLIDEWELL_NTFS_NTFS_DEVICE_H_
#define GLIDEWELL_NTFS_NTFS_DEVICE_H_

#include <cstdint>
#include <memory>
#include <string>

#include "ntfs/device_file.h"

struct ntfs_device;

namespace glidewell {

class NtfsDevice {
 public:
  explicit NtfsDevice(std::unique_ptr<DeviceFile> file) : file_(std::move(file)) {}
  NtfsDevice(const NtfsDevice&) = delete;
  NtfsDevice& operator=(const NtfsDevice&) = delete;

  // A new library device over the file, for ntfs_device_mount. ntfs_umount
  // frees it; this object must outlive it.
  ntfs_device* makeDevice(const std::string& name);

  DeviceFile& file() { return *file_; }
  // The library's read, write and seek calls without an offset use this.
  int64_t position = 0;

 private:
  std::unique_ptr<DeviceFile> file_;
};

}  // namespace glidewell

#endif  // GLIDEWELL_NTFS_NTFS_DEVICE_H_
