#include "ntfs/device_file.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cstring>

namespace glidewell {

namespace {

class PosixDeviceFile : public DeviceFile {
 public:
  explicit PosixDeviceFile(int fd) : fd_(fd) {}
  ~PosixDeviceFile() override { ::close(fd_); }
  PosixDeviceFile(const PosixDeviceFile&) = delete;
  PosixDeviceFile& operator=(const PosixDeviceFile&) = delete;

  int64_t read(void* buffer, int64_t count, int64_t offset) override {
    return ::pread(fd_, buffer, static_cast<size_t>(count), static_cast<off_t>(offset));
  }
  int64_t write(const void* buffer, int64_t count, int64_t offset) override {
    return ::pwrite(fd_, buffer, static_cast<size_t>(count), static_cast<off_t>(offset));
  }
  // fdatasync: the image's size and blocks are all that reading it back
  // needs, so its times are not worth a journal commit of their own.
  int sync() override { return ::fdatasync(fd_); }
  int stat(struct stat* st) override { return ::fstat(fd_, st); }
  int ioctl(unsigned long request, void* argument) override { return ::ioctl(fd_, request, argument); }

 private:
  int fd_;
};

}  // namespace

std::unique_ptr<DeviceFile> openDeviceFile(const std::string& path, std::string* error) {
  struct stat st;
  bool blockDevice = ::stat(path.c_str(), &st) == 0 && S_ISBLK(st.st_mode);
  int fd = ::open(path.c_str(), O_RDWR | O_CLOEXEC | (blockDevice ? O_EXCL : 0));
  if (fd < 0) {
    *error = "cannot open " + path + " for writing: " + std::strerror(errno);
    return nullptr;
  }
  struct flock lock;
  std::memset(&lock, 0, sizeof(lock));
  lock.l_type = F_WRLCK;
  lock.l_whence = SEEK_SET;
  if (!blockDevice && ::fcntl(fd, F_SETLK, &lock) != 0) {
    *error = "cannot open " + path + " for writing: another program holds it";
    ::close(fd);
    return nullptr;
  }
  return std::make_unique<PosixDeviceFile>(fd);
}

}  // namespace glidewell
