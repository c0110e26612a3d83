#include "faulty_device_file.h"

#include <errno.h>
#include <unistd.h>

namespace glidewell {
namespace ntfstest {

bool FaultyDeviceFile::count() {
  ++done_;
  if (operations_ != nullptr) ++*operations_;
  if (done_ != faultAt_) return true;
  if (fault_ == Fault::kOperationFails) {
    errno = EIO;
    return false;
  }
  if (fault_ == Fault::kMachineDies && !unflushed_.empty()) {
    // Undo every unflushed write, newest first, then keep the last one.
    for (auto it = unflushed_.rbegin(); it != unflushed_.rend(); ++it) {
      file_->write(it->before.data(), static_cast<int64_t>(it->before.size()), it->offset);
    }
    const Unflushed& last = unflushed_.back();
    file_->write(last.after.data(), static_cast<int64_t>(last.after.size()), last.offset);
  }
  ::_exit(0);
}

int64_t FaultyDeviceFile::write(const void* buffer, int64_t count, int64_t offset) {
  if (!this->count()) return -1;
  if (fault_ == Fault::kMachineDies && faultAt_ != 0) {
    Unflushed u{offset, std::vector<uint8_t>(static_cast<size_t>(count)),
                std::vector<uint8_t>(static_cast<const uint8_t*>(buffer), static_cast<const uint8_t*>(buffer) + count)};
    int64_t n = file_->read(u.before.data(), count, offset);
    u.before.resize(static_cast<size_t>(n < 0 ? 0 : n));  // past the end of the file: nothing to undo
    unflushed_.push_back(std::move(u));
  }
  return file_->write(buffer, count, offset);
}

int FaultyDeviceFile::sync() {
  if (!count()) return -1;
  unflushed_.clear();
  return file_->sync();
}

}  // namespace ntfstest
}  // namespace glidewell
