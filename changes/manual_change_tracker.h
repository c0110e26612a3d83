// CManualChangeTracker: a volume's change tracker. While tracking runs, a
// watcher thread of its own collects every file created or resized anywhere
// on the volume into an ordered set of pending changes; the smart driver
// takes them one by one in react mode. The state file (statePath) lets
// tracking and its pending changes survive an engine restart.
//
// Threads: the worker calls the interface; the watcher only adds changes
// (collect) under `lock_`. The worker holds the lock for a whole react step,
// so the watcher waits meanwhile.
#ifndef GLIDEWELL_CHANGES_MANUAL_CHANGE_TRACKER_H_
#define GLIDEWELL_CHANGES_MANUAL_CHANGE_TRACKER_H_

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "changes/change_tracker.h"
#include "platform/change_source.h"
#include "platform/sync.h"

namespace glidewell {

class CManualChangeTracker : public CChangeTracker {
 public:
  // More pending paths than this invalidate tracking.
  static constexpr size_t kMaxPendingChanges = 20000;
  // The watcher gathers notifications at most this often.
  static constexpr uint32_t kCollectIntervalMs = 1000;

  // statePathBase: the state directory + "changeTrack_" + letter; the file
  // itself gets "_manual" appended.
  CManualChangeTracker(wchar_t driveLetter, const std::wstring& statePathBase);
  // Saves the state file while still watching, so pending changes survive.
  ~CManualChangeTracker() override;
  CManualChangeTracker(const CManualChangeTracker&) = delete;
  CManualChangeTracker& operator=(const CManualChangeTracker&) = delete;

  // Restarts the watcher with an empty set and writes the state file.
  void startTracking() override;
  // True when watching (again): at once if the watcher runs, else from the
  // state file.
  bool resumeTracking() override;
  // Stops the watcher, forgets every change and writes the state file.
  void stopTracking() override;
  void lock() override { lock_.lock(); }
  void unlock() override { lock_.unlock(); }
  // 0 with the current change (full path), 1 when none is current, 2 when
  // tracking was invalidated.
  int getCurrentChange(ChangeEntry& out) override;
  // Drops the current change and moves to the next (to the first after a
  // complete round). 0 when a change is current, 1 when none is pending, 2
  // when tracking was invalidated.
  int nextChange() override;

  bool isWatching();
  // Throws CDfrgException -15 (cannot create) or -16 (incomplete write).
  void saveState();
  // *resumed: tracking runs again with the saved changes. A file that is
  // damaged is replaced by one saying tracking is not running; a missing one
  // or one saying so is left alone.
  void loadState(bool* resumed);

  const std::wstring& statePath() const { return statePath_; }
  size_t pendingCount();

 private:
  // Paths relative to the root, ordered by UTF-16 code units; value = isNew.
  using ChangeSet = std::map<std::u16string, int>;

  void startWatcher();
  void stopWatcher();
  void watch(ChangeSource* source);
  // Adds the records of a batch; false when too many paths are pending.
  bool collect(const std::vector<uint8_t>& records);

  RecursiveLock lock_;
  std::wstring statePath_;
  std::wstring rootPath_;
  wchar_t driveLetter_;
  ChangeSet changes_;
  ChangeSet::iterator cursor_;
  std::unique_ptr<ChangeSource> source_;  // owned here, read by the watcher
  std::unique_ptr<Thread> watcher_;
  Event stopEvent_{true, false};
  // Set by the watcher once its first read is under way (or has failed).
  Event firstReadStarted_{true, false};
  bool suppressStateWrite_ = false;

  friend class ManualChangeTrackerTestPeer;
};

}  // namespace glidewell

#endif  // GLIDEWELL_CHANGES_MANUAL_CHANGE_TRACKER_H_
