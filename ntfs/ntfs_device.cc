#include "ntfs/ntfs_device.h"

#include <fcntl.h>
#include <unistd.h>

#include "ntfs/ntfs3g.h"

namespace glidewell {

namespace {

NtfsDevice* self(struct ntfs_device* dev) { return static_cast<NtfsDevice*>(dev->d_private); }

// The file is open already (so that its errors can be told apart from the
// library's); open and close only keep the flags the library checks.
int deviceOpen(struct ntfs_device* dev, int flags) {
  struct stat st;
  if (self(dev)->file().stat(&st) == 0 && S_ISBLK(st.st_mode)) NDevSetBlock(dev);
  if ((flags & O_ACCMODE) == O_RDONLY) NDevSetReadOnly(dev);
  NDevSetOpen(dev);
  return 0;
}

int deviceClose(struct ntfs_device* dev) {
  NDevClearOpen(dev);
  return 0;
}

s64 deviceSeek(struct ntfs_device* dev, s64 offset, int whence) {
  NtfsDevice* d = self(dev);
  struct stat st;
  switch (whence) {
    case SEEK_SET:
      d->position = offset;
      break;
    case SEEK_CUR:
      d->position += offset;
      break;
    case SEEK_END:
      if (d->file().stat(&st) != 0) return -1;
      d->position = static_cast<int64_t>(st.st_size) + offset;
      break;
    default:
      errno = EINVAL;
      return -1;
  }
  return d->position;
}

s64 devicePread(struct ntfs_device* dev, void* buffer, s64 count, s64 offset) {
  return self(dev)->file().read(buffer, count, offset);
}

s64 devicePwrite(struct ntfs_device* dev, const void* buffer, s64 count, s64 offset) {
  if (NDevReadOnly(dev)) {
    errno = EROFS;
    return -1;
  }
  NDevSetDirty(dev);
  return self(dev)->file().write(buffer, count, offset);
}

s64 deviceRead(struct ntfs_device* dev, void* buffer, s64 count) {
  s64 n = devicePread(dev, buffer, count, self(dev)->position);
  if (n > 0) self(dev)->position += n;
  return n;
}

s64 deviceWrite(struct ntfs_device* dev, const void* buffer, s64 count) {
  s64 n = devicePwrite(dev, buffer, count, self(dev)->position);
  if (n > 0) self(dev)->position += n;
  return n;
}

int deviceSync(struct ntfs_device* dev) {
  if (NDevReadOnly(dev)) return 0;
  int rc = self(dev)->file().sync();
  if (rc == 0) NDevClearDirty(dev);
  return rc;
}

int deviceStat(struct ntfs_device* dev, struct stat* st) { return self(dev)->file().stat(st); }

int deviceIoctl(struct ntfs_device* dev, unsigned long request, void* argument) {
  return self(dev)->file().ioctl(request, argument);
}

struct ntfs_device_operations operations = {deviceOpen,   deviceClose,  deviceSeek, deviceRead,
                                            deviceWrite,  devicePread,  devicePwrite, deviceSync,
                                            deviceStat,   deviceIoctl};

}  // namespace

ntfs_device* NtfsDevice::makeDevice(const std::string& name) {
  return ntfs_device_alloc(name.c_str(), 0, &operations, this);
}

}  // namespace glidewell
