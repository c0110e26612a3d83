#include "changes/manual_change_tracker.h"

#include "config/state_file.h"
#include "engine/dfrg_exception.h"
#include "logging/logger.h"
#include "platform/text.h"

namespace glidewell {

namespace {
const std::u16string kStateTag = u"VCHANGEMAN";
constexpr DWORD kActionAdded = 1;
constexpr DWORD kActionModified = 3;
constexpr uint32_t kRecordHeaderBytes = 12;

uint32_t dwordAt(const uint8_t* p) {
  return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 | static_cast<uint32_t>(p[2]) << 16 |
         static_cast<uint32_t>(p[3]) << 24;
}

// Sets a flag for a scope, clearing it also when an exception leaves it.
class FlagScope {
 public:
  explicit FlagScope(bool& flag) : flag_(flag) { flag_ = true; }
  ~FlagScope() { flag_ = false; }
  FlagScope(const FlagScope&) = delete;
  FlagScope& operator=(const FlagScope&) = delete;

 private:
  bool& flag_;
};
}  // namespace

CManualChangeTracker::CManualChangeTracker(wchar_t driveLetter, const std::wstring& statePathBase)
    : statePath_(statePathBase + L"_manual"),
      rootPath_(std::wstring(1, driveLetter) + L":\\"),
      driveLetter_(driveLetter),
      cursor_(changes_.end()) {}

CManualChangeTracker::~CManualChangeTracker() {
  try {
    if (isWatching()) saveState();
  } catch (const CDfrgException& e) {
    // The pending changes are lost; the next resume finds the older file and
    // either fails (a full scan follows) or misses these changes until the
    // weekly rescan.
    Logger log("CManualChangeTracker::~CManualChangeTracker");
    log.log(kLogAlert) << "Could not save the change tracking state." << LogProperty("ErrorCode", e.code)
                       << LogProperty("ErrorMessage", e.message);
  }
  stopWatcher();
}

void CManualChangeTracker::startTracking() {
  stopTracking();
  startWatcher();
  saveState();
}

bool CManualChangeTracker::resumeTracking() {
  if (isWatching()) return true;
  bool resumed = false;
  loadState(&resumed);
  return resumed;
}

void CManualChangeTracker::stopTracking() {
  stopWatcher();
  {
    ScopedLock guard(lock_);
    changes_.clear();
    cursor_ = changes_.end();
  }
  saveState();
}

int CManualChangeTracker::getCurrentChange(ChangeEntry& out) {
  ScopedLock guard(lock_);
  if (!isWatching()) return kTrackingInvalidated;
  if (cursor_ == changes_.end()) return kNoChangePending;
  out.isNew = cursor_->second;
  out.path = rootPath_ + fromUtf16(cursor_->first);
  return kChangeAvailable;
}

int CManualChangeTracker::nextChange() {
  ScopedLock guard(lock_);
  if (!isWatching()) return kTrackingInvalidated;
  if (cursor_ != changes_.end()) cursor_ = changes_.erase(cursor_);
  if (cursor_ == changes_.end()) cursor_ = changes_.begin();
  return changes_.empty() ? kNoChangePending : kChangeAvailable;
}

bool CManualChangeTracker::isWatching() {
  if (!watcher_) return false;
  if (watcher_->isAlive()) return true;
  watcher_->join();
  watcher_.reset();
  source_.reset();
  return false;
}

size_t CManualChangeTracker::pendingCount() {
  ScopedLock guard(lock_);
  return changes_.size();
}

void CManualChangeTracker::startWatcher() {
  stopWatcher();
  stopEvent_.reset();
  // Every change after startTracking returns must be seen, and a system may
  // record changes only from the first read on (Windows does): the watcher
  // is running its first read before this returns. A failed open leaves a
  // watcher that ends at once: tracking is then invalidated.
  source_ = openChangeSource(driveLetter_);
  ChangeSource* source = source_.get();
  firstReadStarted_.reset();
  watcher_ = Thread::start([this, source] { watch(source); });
  firstReadStarted_.wait(kWaitInfinite);
}

void CManualChangeTracker::stopWatcher() {
  if (!watcher_) return;
  stopEvent_.set();
  watcher_->join();
  watcher_.reset();
  source_.reset();
}

void CManualChangeTracker::watch(ChangeSource* source) {
  if (source == nullptr) {
    firstReadStarted_.set();
    return;
  }
  for (;;) {
    bool reading = source->startRead();
    firstReadStarted_.set();
    if (!reading) return;
    if (!source->waitForChanges(stopEvent_)) return;
    std::vector<std::vector<uint8_t>> batches;
    if (!source->takeChanges(&batches)) return;
    for (const auto& records : batches) {
      if (!collect(records)) return;
    }
    // The system goes on collecting on the open root meanwhile.
    if (stopEvent_.wait(kCollectIntervalMs) == WaitResult::kSignaled) return;
  }
}

bool CManualChangeTracker::collect(const std::vector<uint8_t>& records) {
  ScopedLock guard(lock_);
  const uint8_t* at = records.data();
  size_t remaining = records.size();
  while (remaining >= kRecordHeaderBytes) {
    uint32_t next = dwordAt(at);
    uint32_t action = dwordAt(at + 4);
    uint32_t nameBytes = dwordAt(at + 8);
    if (remaining < static_cast<uint64_t>(nameBytes) + kRecordHeaderBytes || remaining < next) break;
    if (action == kActionAdded || action == kActionModified) {
      std::u16string name(nameBytes / 2, u'\0');
      for (size_t i = 0; i < name.size(); ++i) {
        name[i] = static_cast<char16_t>(at[kRecordHeaderBytes + 2 * i] | at[kRecordHeaderBytes + 2 * i + 1] << 8);
      }
      // An existing entry keeps its place; only its kind changes.
      changes_[name] = action == kActionAdded ? 1 : 0;
      if (changes_.size() > kMaxPendingChanges) return false;
    }
    if (next == 0) break;
    at += next;
    remaining -= next;
  }
  return true;
}

void CManualChangeTracker::saveState() {
  if (suppressStateWrite_) return;
  StateFileWriter out(statePath_);
  if (!out.ok()) throw CDfrgException(ErrorOpenFile, "Couldn't open volume change tracking state file.");
  bool ok;
  {
    ScopedLock guard(lock_);
    ok = out.writeUtf16(kStateTag) && out.writeBool(isWatching());
    if (ok && isWatching()) {
      ok = out.writeInt32(static_cast<int32_t>(changes_.size()));
      for (auto it = changes_.begin(); ok && it != changes_.end(); ++it) {
        ok = out.writeUtf16(it->first) && out.writeInt32(it->second);
      }
    }
  }
  if (!ok) throw CDfrgException(ErrorWriteFile, "Error writing to volume change tracking state file.");
}

void CManualChangeTracker::loadState(bool* resumed) {
  {
    FlagScope quiet(suppressStateWrite_);
    stopTracking();
  }
  *resumed = false;
  bool valid = false;
  bool watching = false;
  {
    // Closed before an invalid file is replaced below.
    StateFileReader in(statePath_);
    if (!in.ok()) return;
    std::u16string tag;
    valid = in.readUtf16(&tag) && tag == kStateTag && in.readBool(&watching);
    if (valid && watching) {
      {
        FlagScope quiet(suppressStateWrite_);
        startTracking();
      }
      int32_t count = 0;
      // An entry takes at least its path count and its kind.
      valid = in.readCount(&count, 8);
      for (int32_t i = 0; valid && i < count; ++i) {
        std::u16string path;
        int32_t isNew = 0;
        valid = in.readUtf16(&path) && in.readInt32(&isNew);
        if (!valid) break;
        size_t nul = path.find(u'\0');
        if (nul != std::u16string::npos) path.resize(nul);
        ScopedLock guard(lock_);
        changes_[path] = isNew;
      }
    }
  }
  if (valid) {
    *resumed = watching;
    return;
  }
  stopTracking();
}

}  // namespace glidewell
