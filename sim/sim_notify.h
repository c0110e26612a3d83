// Change notification of the simulated disk: what ReadDirectoryChangesW on
// the volume root, watching the whole tree, would report. Each change reaches
// every registered watcher whose filter asks for it as a buffer of chained
// FILE_NOTIFY_INFORMATION records (paths relative to the root, UTF-16LE).
//
// Changes are queued under the disk's lock, so they keep the order in which
// they happened, and delivered after the disk's lock is released, so a watcher
// may call the disk. A watcher must not add or remove watchers from inside
// its callback. After removeWatcher returns, that watcher is not called again.
#ifndef GLIDEWELL_SIM_SIM_NOTIFY_H_
#define GLIDEWELL_SIM_SIM_NOTIFY_H_

#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "platform/wintypes.h"

namespace glidewell {

// Filter bits (FILE_NOTIFY_CHANGE_*): file names, directory names, sizes.
constexpr DWORD kNotifyFileName = 0x1;
constexpr DWORD kNotifyDirName = 0x2;
constexpr DWORD kNotifySize = 0x8;

struct SimChange {
  DWORD action;          // FILE_ACTION_*
  std::u16string path;   // relative to the volume root
};

// Encodes changes as chained FILE_NOTIFY_INFORMATION records: next-entry
// offset (DWORD aligned, 0 on the last), action, name length in bytes, name.
std::vector<uint8_t> encodeNotifyRecords(const std::vector<SimChange>& changes);

using ChangeWatcher = std::function<void(const std::vector<uint8_t>& records)>;

class SimNotifier {
 public:
  uint64_t addWatcher(DWORD filter, ChangeWatcher watcher);
  void removeWatcher(uint64_t id);
  bool hasWatchers() const { return count_.load(std::memory_order_acquire) > 0; }

  // Queues one change (a rename queues old and new name together). isDirectory
  // chooses the filter bit of name changes; modifications need kNotifySize.
  void queue(bool isDirectory, std::vector<SimChange> changes);
  // Delivers everything queued so far, in order.
  void deliver();

 private:
  struct Pending {
    DWORD filterBit;
    std::vector<SimChange> changes;
  };
  struct Entry {
    DWORD filter;
    ChangeWatcher watcher;
  };

  std::recursive_mutex deliveryMutex_;  // held while callbacks run
  std::mutex queueMutex_;               // guards queue_ and watchers_
  std::deque<Pending> queue_;
  std::map<uint64_t, Entry> watchers_;
  uint64_t nextId_ = 1;
  std::atomic<int> count_{0};
};

}  // namespace glidewell

#endif  // GLIDEWELL_SIM_SIM_NOTIFY_H_
