// CChangeTracker: records the files created or modified on a volume while the
// smart driver runs, so that react mode treats only those.
#ifndef GLIDEWELL_CHANGES_CHANGE_TRACKER_H_
#define GLIDEWELL_CHANGES_CHANGE_TRACKER_H_

#include <string>

namespace glidewell {

struct ChangeEntry {
  std::wstring path;
  int isNew = 0;
};

// Result codes of getCurrentChange and nextChange.
enum ChangeResult : int { kChangeAvailable = 0, kNoChangePending = 1, kTrackingInvalidated = 2 };

class CChangeTracker {
 public:
  virtual ~CChangeTracker() = default;
  virtual void startTracking() = 0;
  virtual bool resumeTracking() = 0;
  virtual void stopTracking() = 0;
  virtual void lock() = 0;
  virtual void unlock() = 0;
  virtual int getCurrentChange(ChangeEntry& out) = 0;
  virtual int nextChange() = 0;
};

}  // namespace glidewell

#endif  // GLIDEWELL_CHANGES_CHANGE_TRACKER_H_
