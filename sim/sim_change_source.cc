// Change notification over the simulated disk of a drive letter: the disk
// delivers every change to its watchers at once, so this source keeps what
// arrives between two reads, as the system does on an open directory handle.
#include "sim/sim_change_source.h"

#include <mutex>

#include "sim/sim_disk.h"
#include "sim/sim_drives.h"

namespace glidewell {

namespace {

// Shared with the disk's watcher callback, which may still run while the
// source is being destroyed.
struct Pending {
  std::mutex mutex;
  std::vector<std::vector<uint8_t>> batches;
  size_t bytes = 0;
  bool overflowed = false;
  Event arrived{true, false};

  void add(const std::vector<uint8_t>& records) {
    std::lock_guard<std::mutex> g(mutex);
    if (bytes + records.size() > kChangeBufferBytes) {
      // Like a full system buffer: everything since the last read is lost.
      batches.clear();
      bytes = 0;
      overflowed = true;
    } else {
      batches.push_back(records);
      bytes += records.size();
    }
    arrived.set();
  }
};

class SimChangeSource : public ChangeSource {
 public:
  explicit SimChangeSource(std::shared_ptr<SimDisk> disk) : disk_(std::move(disk)), pending_(std::make_shared<Pending>()) {
    std::shared_ptr<Pending> p = pending_;
    id_ = disk_->addChangeWatcher(kChangeFilter, [p](const std::vector<uint8_t>& records) { p->add(records); });
  }
  ~SimChangeSource() override { disk_->removeChangeWatcher(id_); }

  bool startRead() override { return true; }

  bool waitForChanges(Event& stop) override {
    Event* events[2] = {&stop, &pending_->arrived};
    return Event::waitAny(events, 2, kWaitInfinite) == 1;
  }

  bool takeChanges(std::vector<std::vector<uint8_t>>* batches) override {
    std::lock_guard<std::mutex> g(pending_->mutex);
    for (auto& b : pending_->batches) batches->push_back(std::move(b));
    pending_->batches.clear();
    pending_->bytes = 0;
    pending_->overflowed = false;
    pending_->arrived.reset();
    return true;
  }

 private:
  std::shared_ptr<SimDisk> disk_;
  std::shared_ptr<Pending> pending_;
  uint64_t id_ = 0;
};

}  // namespace

std::unique_ptr<ChangeSource> openSimChangeSource(wchar_t driveLetter) {
  std::shared_ptr<SimDisk> disk = SimDrives::instance().disk(driveLetter);
  if (!disk || disk->vanished()) return nullptr;
  return std::make_unique<SimChangeSource>(std::move(disk));
}

}  // namespace glidewell
