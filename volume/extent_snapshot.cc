#include "volume/extent_snapshot.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <memory>
#include <new>
#include <optional>
#include <vector>

#include "config/dfrg_config.h"
#include "volume/volume_context.h"
#include "logging/logger.h"
#include "platform/env.h"
#include "volume/volume_system.h"

namespace glidewell {

namespace {

using Run = FreeExtentList::iterator;

// The longest updateSnapshotExt so far, process-wide.
std::atomic<uint32_t> longestUpdateMs{0};

uint64_t maxExtentListSize(CVolumeContext& ctx) {
  CDfrgConfig* config = ctx.config() != nullptr ? ctx.config() : CDfrgConfig::current();
  return config != nullptr ? config->maxExtentListSize() : CDfrgConfig::kDefaultMaxExtentListSize;
}

// Every change to the list goes through these four, so that the index (when
// the snapshot has one) describes the list at all times.
Run insertRun(CExtentSnapshot& snap, Run before, const ClusterRange& range) {
  Run run;
  if (snap.spareRuns.empty()) {
    run = snap.freeExtents.insert(before, range);
  } else {
    snap.freeExtents.splice(before, snap.spareRuns, snap.spareRuns.begin());
    run = std::prev(before);
    *run = range;
  }
  if (FreeRunIndex* index = snap.liveIndex()) index->insert(run);
  return run;
}

// An index that lost track of a run (which the tests say cannot happen) is
// set aside until the next full scan rebuilds it; the searches walk the list
// meanwhile, so the answers stay right.
void unindex(CExtentSnapshot& snap, Run run) {
  FreeRunIndex* index = snap.liveIndex();
  if (index != nullptr && !index->erase(run)) snap.suspendIndex();
}

Run eraseRun(CExtentSnapshot& snap, Run run) {
  unindex(snap, run);
  return snap.freeExtents.erase(run);
}

// Changes a run in place; its position in the list stays.
void setRun(CExtentSnapshot& snap, Run run, uint64_t start, uint64_t end) {
  unindex(snap, run);
  run->start = start;
  run->end = end;
  if (FreeRunIndex* index = snap.liveIndex()) index->insert(run);
}

// With an index, the cleared runs' nodes are kept for the full scan that
// follows every clearing (see spareRuns). Without one they are freed: the
// searches walk the list, and a list allocated afresh in LCN order walks
// faster than one whose nodes lie where earlier runs left them.
void clearRuns(CExtentSnapshot& snap) {
  if (snap.hasIndex()) {
    snap.spareRuns.splice(snap.spareRuns.end(), snap.freeExtents);
  } else {
    snap.freeExtents.clear();
  }
  snap.suspendIndex();
}

CExtentSnapshot& ensureSnapshot(CVolumeContext& ctx) {
  if (!ctx.snapshot) ctx.snapshot = std::make_unique<CExtentSnapshot>();
  return *ctx.snapshot;
}

void clearSnapshot(CVolumeContext& ctx) {
  CExtentSnapshot& snap = ensureSnapshot(ctx);
  clearRuns(snap);
  snap.evictionCandidate = snap.freeExtents.end();
}

// The shortest run (the first of equal ones) becomes the eviction candidate.
void chooseShortestCandidate(CExtentSnapshot& snap) {
  FreeExtentList& list = snap.freeExtents;
  if (FreeRunIndex* index = snap.liveIndex()) {
    snap.evictionCandidate = index->shortest(list.end());
    return;
  }
  Run best = list.end();
  for (Run it = list.begin(); it != list.end(); ++it) {
    if (best == list.end() || it->length() < best->length()) best = it;
  }
  snap.evictionCandidate = best;
}

void offerAsCandidate(CExtentSnapshot& snap, Run run) {
  if (snap.evictionCandidate != snap.freeExtents.end() && run->length() < snap.evictionCandidate->length()) {
    snap.evictionCandidate = run;
  }
}

// Merges run a with its successor when they are equal, touch, contain one
// another or overlap. On a merge, a is left on the surviving run. A run that
// grew can no longer be assumed the shortest, so it stops being the candidate.
bool mergeWithSuccessor(CExtentSnapshot& snap, Run& a) {
  FreeExtentList& list = snap.freeExtents;
  Run& candidate = snap.evictionCandidate;
  Run b = std::next(a);
  if (b == list.end()) return false;
  if (*a == *b) {
    if (candidate == a) candidate = list.end();
    eraseRun(snap, a);
    a = b;
    return true;
  }
  if (b->end + 1 == a->start) {
    setRun(snap, b, b->start, b->end + a->length());
    if (candidate == a || candidate == b) candidate = list.end();
    eraseRun(snap, a);
    a = b;
    return true;
  }
  if (a->end + 1 == b->start) {
    setRun(snap, a, a->start, a->end + b->length());
    if (candidate == a || candidate == b) candidate = list.end();
    eraseRun(snap, b);
    return true;
  }
  if (b->start <= a->start && a->end <= b->end) {
    if (candidate == a) candidate = list.end();
    eraseRun(snap, a);
    a = b;
    return true;
  }
  if (a->start <= b->start && b->end <= a->end) {
    if (candidate == b) candidate = list.end();
    eraseRun(snap, b);
    return true;
  }
  if (a->start <= b->end && b->start <= a->end) {
    if (candidate == a || candidate == b) candidate = list.end();
    if (a->start <= b->start) {
      setRun(snap, a, a->start, b->end);
      eraseRun(snap, b);
    } else {
      setRun(snap, b, b->start, a->end);
      eraseRun(snap, a);
      a = b;
    }
    return true;
  }
  return false;
}

uint64_t load64(const uint8_t* p) {
  uint64_t v;
  std::memcpy(&v, p, sizeof v);
  return v;
}
uint32_t load32(const uint8_t* p) {
  uint32_t v;
  std::memcpy(&v, p, sizeof v);
  return v;
}
uint16_t load16(const uint8_t* p) {
  uint16_t v;
  std::memcpy(&v, p, sizeof v);
  return v;
}

// The end of a full scan, also when a stop request ends it early: the spare
// nodes are freed and the index is built from the list. Without memory for
// the index it stays aside, and the searches walk the list.
class FullScanEnd {
 public:
  explicit FullScanEnd(CVolumeContext& ctx) : ctx_(ctx) {}
  ~FullScanEnd() {
    ScopedLock guard(ctx_.lock);
    if (!ctx_.snapshot) return;
    ctx_.snapshot->spareRuns.clear();
    try {
      ctx_.snapshot->resumeIndex();
    } catch (const std::bad_alloc&) {
    }
  }
  FullScanEnd(const FullScanEnd&) = delete;
  FullScanEnd& operator=(const FullScanEnd&) = delete;

 private:
  CVolumeContext& ctx_;
};

// The two open runs of a bitmap walk and what closing them does to the list.
class BitmapWalk {
 public:
  BitmapWalk(CVolumeContext& ctx, bool incremental) : ctx_(ctx), incremental_(incremental) {}

  void freeStep(uint64_t lcn) {
    if (usedStart != kNoCluster) {
      if (incremental_) removeUsedRange(ctx_, ClusterRange(usedStart, lcn - 1));
      usedStart = kNoCluster;
    }
    if (freeStart == kNoCluster) freeStart = lcn;
  }
  void usedStep(uint64_t lcn) {
    if (usedStart == kNoCluster) usedStart = lcn;
    if (freeStart != kNoCluster) {
      addFreeExtent(ctx_, ClusterRange(freeStart, lcn - 1), incremental_);
      freeStart = kNoCluster;
    }
  }
  void step(bool used, uint64_t lcn) { used ? usedStep(lcn) : freeStep(lcn); }

  // Walks the bits [first, last] (indices into bits, whose bit 0 is cluster
  // base). Words that are wholly free or wholly used are taken 64, 32, 16 or
  // 8 clusters at a time, but only at byte boundaries, only while more than
  // 128 clusters remain on the volume and never past last.
  void walk(const uint8_t* bits, uint64_t base, uint64_t first, uint64_t last, uint64_t totalClusters) {
    uint64_t fastEnd = totalClusters - base > 128 ? totalClusters - base - 128 : 0;  // word steps start below
    uint64_t i = first;
    while (i <= last) {
      if ((i & 7) == 0 && i < fastEnd) {
        const uint8_t* p = bits + (i >> 3);
        if (i + 63 <= last) {
          uint64_t w = load64(p);
          if (w == 0 || w == ~uint64_t{0}) {
            bool used = w != 0;
            step(used, base + i);
            i += 64;
            // Further words of the same state change nothing: skip them.
            while (i + 63 <= last && i < fastEnd && load64(bits + (i >> 3)) == w) i += 64;
            continue;
          }
        }
        if (i + 31 <= last) {
          uint32_t w = load32(p);
          if (w == 0 || w == ~uint32_t{0}) {
            step(w != 0, base + i);
            i += 32;
            continue;
          }
        }
        if (i + 15 <= last) {
          uint16_t w = load16(p);
          if (w == 0 || w == 0xFFFF) {
            step(w != 0, base + i);
            i += 16;
            continue;
          }
        }
        if (i + 7 <= last && (*p == 0 || *p == 0xFF)) {
          step(*p != 0, base + i);
          i += 8;
          continue;
        }
      }
      step(((bits[i >> 3] >> (i & 7)) & 1) != 0, base + i);
      ++i;
    }
  }

  uint64_t usedStart = kNoCluster;
  uint64_t freeStart = kNoCluster;

 private:
  CVolumeContext& ctx_;
  bool incremental_;
};

}  // namespace

CExtentSnapshot::CExtentSnapshot() : evictionCandidate(freeExtents.end()) {
  if (freeRunIndexEnabled()) {
    index_ = std::make_unique<FreeRunIndex>();
    freeExtents.index_ = index_.get();
  }
}

void CExtentSnapshot::resumeIndex() {
  if (index_ == nullptr || freeExtents.index_ == index_.get()) return;
  index_->rebuild(freeExtents);
  freeExtents.index_ = index_.get();
}

bool getSnapshot(CVolumeContext& ctx, const FreeExtentList** list) {
  ScopedLock guard(ctx.lock);
  if (!ctx.snapshot) {
    *list = nullptr;
    return false;
  }
  *list = &ctx.snapshot->freeExtents;
  return true;
}

void addFreeExtent(CVolumeContext& ctx, const ClusterRange& range, bool incremental) {
  ScopedLock guard(ctx.lock);
  CExtentSnapshot& snap = ensureSnapshot(ctx);
  FreeExtentList& list = snap.freeExtents;
  uint64_t maxSize = maxExtentListSize(ctx);
  if (list.size() >= maxSize) {
    // A full list keeps longer runs in preference to shorter ones.
    if (maxSize == 0) return;
    if (snap.evictionCandidate == list.end()) chooseShortestCandidate(snap);
    if (range.length() <= snap.evictionCandidate->length()) return;
    eraseRun(snap, snap.evictionCandidate);
    snap.evictionCandidate = list.end();
  }

  Run pos;
  if (!incremental) {
    pos = insertRun(snap, list.end(), range);  // a full scan delivers runs in LCN order
  } else {
    // Before the first run that starts at or after the new one.
    FreeRunIndex* index = snap.liveIndex();
    Run at = index != nullptr ? index->firstStartingAtOrAfter(range.start, list.end())
                              : std::find_if(list.begin(), list.end(),
                                             [&](const ClusterRange& r) { return r.start >= range.start; });
    pos = insertRun(snap, at, range);
  }
  if (snap.evictionCandidate == list.end() || list.size() == 1) {
    snap.evictionCandidate = pos;
  } else {
    offerAsCandidate(snap, pos);
  }

  if (!incremental || list.size() <= 1) return;
  // Merge around the new run: from its predecessor on for as long as runs
  // merge. When the predecessor does not touch it, the new run may still
  // touch its successor, so the walk goes on from the new run itself.
  Run a = pos == list.begin() ? pos : std::prev(pos);
  bool pastNew = a == pos;
  for (;;) {
    if (mergeWithSuccessor(snap, a)) {
      pastNew = true;
      continue;
    }
    if (pastNew) break;
    ++a;  // a's successor is the new run
    pastNew = true;
  }
  if (snap.evictionCandidate == list.end()) chooseShortestCandidate(snap);
}

void removeUsedRange(CVolumeContext& ctx, const ClusterRange& range) {
  ScopedLock guard(ctx.lock);
  CExtentSnapshot& snap = ensureSnapshot(ctx);
  FreeExtentList& list = snap.freeExtents;
  const uint64_t a = range.start;
  const uint64_t b = range.end;
  bool changed = false;
  // Runs that end before a are kept; the index skips them at once.
  FreeRunIndex* index = snap.liveIndex();
  Run first = index != nullptr ? index->firstEndingAtOrAfter(a, list.end()) : list.begin();
  for (Run it = first; it != list.end() && it->start <= b;) {
    if (it->end < a) {
      ++it;
      continue;
    }
    changed = true;
    bool keepLeft = it->start < a;
    bool keepRight = it->end > b;
    if (!keepLeft && !keepRight) {
      if (snap.evictionCandidate == it) snap.evictionCandidate = list.end();
      it = eraseRun(snap, it);
      continue;
    }
    if (keepLeft && keepRight) {
      // The run is cut in two. A full list takes the second piece only as it
      // takes any new run: in place of a shorter eviction candidate.
      ClusterRange rightPiece(b + 1, it->end);
      setRun(snap, it, it->start, a - 1);
      offerAsCandidate(snap, it);
      Run after = std::next(it);
      if (list.size() >= maxExtentListSize(ctx)) {
        if (snap.evictionCandidate == list.end()) chooseShortestCandidate(snap);
        if (rightPiece.length() <= snap.evictionCandidate->length()) break;
        Run following = eraseRun(snap, snap.evictionCandidate);
        if (snap.evictionCandidate == after) after = following;
        snap.evictionCandidate = list.end();
      }
      Run right = insertRun(snap, after, rightPiece);
      offerAsCandidate(snap, right);
      break;  // runs are disjoint: nothing further can overlap [a, b]
    }
    if (keepLeft) {
      setRun(snap, it, it->start, a - 1);
    } else {
      setRun(snap, it, b + 1, it->end);
    }
    offerAsCandidate(snap, it);
    ++it;
  }
  if (changed && snap.evictionCandidate == list.end()) chooseShortestCandidate(snap);
}

bool scanBitmap(CVolumeContext& ctx, uint64_t start, uint64_t end, bool incremental) {
  CVolumeSystem& volume = ctx.volume();
  const uint64_t totalClusters = volume.getTotalClusters();
  const bool ranged = end != kNoCluster;
  if (!incremental) {
    ScopedLock guard(ctx.lock);
    clearSnapshot(ctx);
  }
  std::optional<FullScanEnd> fullScanEnd;
  if (!incremental) fullScanEnd.emplace(ctx);
  if (totalClusters == 0 || start >= totalClusters || (ranged && start > end)) return true;

  // In a ranged scan [start, end] with start < end the bit of end itself is
  // not examined: a free run that reaches it is taken up to end inclusive and
  // a used run is closed at end. The movers update exactly the ranges of whole
  // extents, whose last cluster shares the state of the one before it.
  const bool endBitInherited = ranged && start != end;
  uint64_t lastExamined = !ranged ? totalClusters - 1 : (endBitInherited ? end - 1 : end);
  lastExamined = std::min(lastExamined, totalClusters - 1);
  const bool needEndBit = endBitInherited && end < totalClusters;

  // 8-byte aligned, and not cleared: only the bytes a reply returns are read.
  std::unique_ptr<uint64_t[]> storage(new uint64_t[kBitmapReplyBytes / 8]);
  uint8_t* buffer = reinterpret_cast<uint8_t*>(storage.get());
  BitmapWalk walk(ctx, incremental);
  uint64_t next = start;  // the next cluster to examine
  bool reachedEnd = false;
  for (;;) {
    int64_t startingLcn = static_cast<int64_t>(next);
    DWORD returned = 0;
    BOOL ok = volume.getVolumeBitmapChunk(&startingLcn, buffer, kBitmapReplyBytes, &returned);
    if (!ok && GetLastError() != ERROR_MORE_DATA) break;
    if (returned < kBitmapReplyHeaderBytes) break;
    uint64_t base = load64(buffer);
    uint64_t bitmapSize = load64(buffer + 8);
    uint64_t bits = std::min<uint64_t>(8ull * (std::min(returned, kBitmapReplyBytes) - kBitmapReplyHeaderBytes), bitmapSize);
    const uint64_t before = next;
    // The file system rounds the starting LCN down to a multiple of 8, so the
    // bits below the next cluster to examine were seen already.
    if (bits > 0 && base <= lastExamined && base + bits > next) {
      uint64_t from = std::max(next, base);
      uint64_t to = std::min(base + bits - 1, lastExamined);
      if (from <= to) {
        walk.walk(buffer + kBitmapReplyHeaderBytes, base, from - base, to - base, totalClusters);
        next = to + 1;
      }
    }
    if (needEndBit && next == end && base <= end && end - base < bits) {
      if (walk.freeStart != kNoCluster) {
        addFreeExtent(ctx, ClusterRange(walk.freeStart, end), incremental);
        walk.freeStart = kNoCluster;
      }
      reachedEnd = true;
    }
    ctx.checkState();
    bool done = reachedEnd || (next > lastExamined && !needEndBit);
    if (done || ok || next == before) break;
  }

  // Close the open runs, never past end: at end when its bit was reached,
  // otherwise at the last cluster examined.
  uint64_t closeAt = reachedEnd ? end : next - 1;
  if (walk.usedStart != kNoCluster && incremental) removeUsedRange(ctx, ClusterRange(walk.usedStart, closeAt));
  if (walk.freeStart != kNoCluster) addFreeExtent(ctx, ClusterRange(walk.freeStart, closeAt), incremental);
  return true;
}

bool makeExtentSnapshot(CVolumeContext& ctx) {
  Env* env = Env::current();
  uint32_t t0 = env->timeGetTime();
  {
    ScopedLock guard(ctx.lock);
    ctx.snapshot = std::make_unique<CExtentSnapshot>();
  }
  bool result = scanBitmap(ctx, 0, kNoCluster, false);
  uint32_t took = env->timeGetTime() - t0;
  {
    ScopedLock guard(ctx.lock);
    ensureSnapshot(ctx).buildTimeMs = took;
  }
  Logger log("makeExtentSnapshot");
  log.log(kLogInformal) << "Time for make Extent" << LogProperty("Time", took);
  return result;
}

bool updateSnapshotRange(CVolumeContext& ctx, uint64_t start, uint64_t end) {
  if (start == 0 && end == kNoCluster) {
    ScopedLock guard(ctx.lock);
    clearSnapshot(ctx);
    return scanBitmap(ctx, 0, kNoCluster, false);
  }
  uint64_t total = ctx.volume().getTotalClusters();
  if (end > total) end = total;
  return scanBitmap(ctx, start, end, true);
}

bool updateSnapshotExt(CVolumeContext& ctx, const ExtentList& extents) {
  Env* env = Env::current();
  uint32_t t0 = env->timeGetTime();
  const size_t n = extents.size();
  for (size_t i = 0; i < n; ++i) {
    const ClusterRange& lcn = extents[i].lcn;
    if (lcn.isSet() && !updateSnapshotRange(ctx, lcn.start, lcn.end)) return false;
    // Incremental updates that already took longer than a full build, with
    // less than half of the extents done: a full rebuild is cheaper.
    uint32_t buildTime = ctx.snapshot ? ctx.snapshot->buildTimeMs : 0;
    if (env->timeGetTime() - t0 > buildTime && (100 * i) / n < 50) {
      updateSnapshotRange(ctx, 0, kNoCluster);
      break;
    }
  }
  uint32_t elapsed = env->timeGetTime() - t0;
  uint32_t longest = longestUpdateMs.load();
  if (elapsed > longest) {
    longestUpdateMs.store(elapsed);
    Logger log("updateSnapshotExt");
    log.log(kLogInformal) << "New longest Snapshot" << LogProperty("Time (ms)", elapsed);
  }
  return true;
}

}  // namespace glidewell
