#include "sim/sim_notify.h"

namespace glidewell {

namespace {

void putDword(std::vector<uint8_t>& out, size_t at, DWORD v) {
  for (int i = 0; i < 4; ++i) out[at + i] = static_cast<uint8_t>(v >> (8 * i));
}

}  // namespace

std::vector<uint8_t> encodeNotifyRecords(const std::vector<SimChange>& changes) {
  std::vector<uint8_t> out;
  size_t previous = 0;
  for (size_t i = 0; i < changes.size(); ++i) {
    size_t at = out.size();
    if (i > 0) putDword(out, previous, static_cast<DWORD>(at - previous));
    const std::u16string& name = changes[i].path;
    size_t length = 12 + 2 * name.size();
    out.resize(at + ((length + 3) & ~size_t{3}), 0);
    putDword(out, at + 4, changes[i].action);
    putDword(out, at + 8, static_cast<DWORD>(2 * name.size()));
    for (size_t k = 0; k < name.size(); ++k) {
      out[at + 12 + 2 * k] = static_cast<uint8_t>(name[k]);
      out[at + 13 + 2 * k] = static_cast<uint8_t>(name[k] >> 8);
    }
    previous = at;
  }
  return out;
}

uint64_t SimNotifier::addWatcher(DWORD filter, ChangeWatcher watcher) {
  std::lock_guard<std::recursive_mutex> delivery(deliveryMutex_);
  std::lock_guard<std::mutex> guard(queueMutex_);
  uint64_t id = nextId_++;
  watchers_[id] = Entry{filter, std::move(watcher)};
  count_.store(static_cast<int>(watchers_.size()), std::memory_order_release);
  return id;
}

void SimNotifier::removeWatcher(uint64_t id) {
  // Taking the delivery lock waits for a callback in progress on another thread.
  std::lock_guard<std::recursive_mutex> delivery(deliveryMutex_);
  std::lock_guard<std::mutex> guard(queueMutex_);
  watchers_.erase(id);
  count_.store(static_cast<int>(watchers_.size()), std::memory_order_release);
}

void SimNotifier::queue(bool isDirectory, std::vector<SimChange> changes) {
  if (!hasWatchers() || changes.empty()) return;
  DWORD bit = changes.front().action == FILE_ACTION_MODIFIED ? kNotifySize
                                                             : (isDirectory ? kNotifyDirName : kNotifyFileName);
  std::lock_guard<std::mutex> guard(queueMutex_);
  queue_.push_back(Pending{bit, std::move(changes)});
}

void SimNotifier::deliver() {
  if (!hasWatchers()) return;
  std::lock_guard<std::recursive_mutex> delivery(deliveryMutex_);
  for (;;) {
    Pending next;
    std::vector<ChangeWatcher> targets;
    {
      std::lock_guard<std::mutex> guard(queueMutex_);
      if (queue_.empty()) return;
      next = std::move(queue_.front());
      queue_.pop_front();
      for (auto& w : watchers_) {
        if (w.second.filter & next.filterBit) targets.push_back(w.second.watcher);
      }
    }
    if (targets.empty()) continue;
    std::vector<uint8_t> records = encodeNotifyRecords(next.changes);
    for (auto& target : targets) target(records);
  }
}

}  // namespace glidewell
