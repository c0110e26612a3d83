// FaultyDeviceFile: a DeviceFile that counts writes and flushes and ends the
// process at the Nth of them (before making it), as a crash would. Made for
// a forked child that works on a copy of a volume.
//
//   kProcess: the process dies; every write made so far is in the file.
//   kMachine: the machine dies; what was flushed stays, and of the writes
//     since the last flush only the latest -- a disk may keep unflushed
//     writes in any order, and keeping a later write while losing the ones
//     before it is what exposes a missing flush between them.
#ifndef GLIDEWELL_TESTS_NTFS_FAULTY_DEVICE_FILE_H_
#define GLIDEWELL_TESTS_NTFS_FAULTY_DEVICE_FILE_H_

#include <cstdint>
#include <memory>
#include <vector>

#include "ntfs/device_file.h"

namespace glidewell {
namespace ntfstest {

enum class Crash { kProcess, kMachine };

class FaultyDeviceFile : public DeviceFile {
 public:
  // crashAt 0 never crashes; *operations (if given) counts every write and flush.
  FaultyDeviceFile(std::unique_ptr<DeviceFile> file, uint64_t crashAt, Crash crash, uint64_t* operations)
      : file_(std::move(file)), crashAt_(crashAt), crash_(crash), operations_(operations) {}

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
  void count();  // ends the process when this operation is the one to crash at

  std::unique_ptr<DeviceFile> file_;
  uint64_t crashAt_;
  Crash crash_;
  uint64_t* operations_;
  uint64_t done_ = 0;
  std::vector<Unflushed> unflushed_;
};

}  // namespace ntfstest
}  // namespace glidewell

#endif  // GLIDEWELL_TESTS_NTFS_FAULTY_DEVICE_FILE_H_
