// FaultyDeviceFile: a DeviceFile that counts writes and flushes and fails
// the Nth of them, for a forked child that works on a copy of a volume:
//
//   kProcessDies: the process ends there; every write made so far is in
//     the file.
//   kMachineDies: the process ends there, and of the writes since the last
//     flush only the latest stays -- a disk may keep unflushed writes in any
//     order, and keeping a later write while losing those before it is what
//     exposes a missing flush between them.
//   kOperationFails: that write or flush reports EIO without doing anything;
//     the process goes on.
#ifndef GLIDEWELL_TESTS_NTFS_FAULTY_DEVICE_FILE_H_
#define GLIDEWELL_TESTS_NTFS_FAULTY_DEVICE_FILE_H_

#include <cstdint>
#include <memory>
#include <vector>

#include "ntfs/device_file.h"

namespace glidewell {
namespace ntfstest {

enum class Fault { kProcessDies, kMachineDies, kOperationFails };

class FaultyDeviceFile : public DeviceFile {
 public:
  // faultAt 0 never fails; *operations (if given) counts every write and flush.
  FaultyDeviceFile(std::unique_ptr<DeviceFile> file, uint64_t faultAt, Fault fault, uint64_t* operations)
      : file_(std::move(file)), faultAt_(faultAt), fault_(fault), operations_(operations) {}

  int64_t read(void* buffer, int64_t count, int64_t offset) override { return file_->read(buffer, count, offset); }
  int64_t write(const void* buffer, int64_t count, int64_t offset) override;
  int sync() override;
  int stat(struct stat* st) override { return file_->stat(st); }
  int ioctl(unsigned long request, void* argument) override { return file_->ioctl(request, argument); }

 private:
  struct Unflushed {
    int64_t offset;
    std::vector<uint8_t> before, after;
  };
  // Counts an operation; false when it is to fail (the process may end here).
  bool count();

  std::unique_ptr<DeviceFile> file_;
  uint64_t faultAt_;
  Fault fault_;
  uint64_t* operations_;
  uint64_t done_ = 0;
  std::vector<Unflushed> unflushed_;
};

}  // namespace ntfstest
}  // namespace glidewell

#endif  // GLIDEWELL_TESTS_NTFS_FAULTY_DEVICE_FILE_H_
