// The free-space snapshot of a volume: its free cluster runs, built from the
// volume bitmap and kept current while files move.
//
// The snapshot belongs to the volume's CVolumeContext and every change to it is
// made under the context's lock. The movers search the list they get from
// getSnapshot without the lock; they and every operation that changes the
// list run on the worker thread of the context.
#ifndef GLIDEWELL_VOLUME_EXTENT_SNAPSHOT_H_
#define GLIDEWELL_VOLUME_EXTENT_SNAPSHOT_H_

#include <cstdint>
#include <list>
#include <memory>

#include "volume/extent.h"
#include "volume/free_run_index.h"

namespace glidewell {

class CVolumeContext;

// Free runs, disjoint and ordered by start. A linked list, so positions stay
// valid while other runs are inserted or removed.
//
// A snapshot's own list also points to the index the snapshot keeps in step
// with it, and the searches over the list (engine/move_primitives.h) use it.
// Any other list (a copy, a list a test builds) has none and is searched by
// walking it.
class FreeExtentList : public std::list<ClusterRange> {
 public:
  using std::list<ClusterRange>::list;
  FreeExtentList() = default;
  FreeExtentList(const FreeExtentList& other) : std::list<ClusterRange>(other) {}
  FreeExtentList(FreeExtentList&& other) noexcept : std::list<ClusterRange>(std::move(other)) {}
  // Assigned contents are no longer what the index describes: it is dropped.
  FreeExtentList& operator=(const FreeExtentList& other) {
    std::list<ClusterRange>::operator=(other);
    index_ = nullptr;
    return *this;
  }
  FreeExtentList& operator=(FreeExtentList&& other) noexcept {
    std::list<ClusterRange>::operator=(std::move(other));
    index_ = nullptr;
    return *this;
  }

  // The index that follows this list, or null.
  const FreeRunIndex* index() const { return index_; }

 private:
  friend class CExtentSnapshot;
  const FreeRunIndex* index_ = nullptr;
};

class CExtentSnapshot {
 public:
  // With an index when freeRunIndexEnabled() (volume/free_run_index.h).
  CExtentSnapshot();
  CExtentSnapshot(const CExtentSnapshot&) = delete;
  CExtentSnapshot& operator=(const CExtentSnapshot&) = delete;

  // The index kept in step with freeExtents, or null (when the list no
  // longer points to it, it is not used either).
  FreeRunIndex* liveIndex() { return index_ != nullptr && freeExtents.index() == index_.get() ? index_.get() : nullptr; }
  // Whether this snapshot was built to keep an index.
  bool hasIndex() const { return index_ != nullptr; }
  // Clearing the list sets the index aside (searches then walk the list);
  // the full scan that follows every clearing appends the runs in order and
  // builds the index once from the list when it ends.
  void suspendIndex() { freeExtents.index_ = nullptr; }
  void resumeIndex();

  FreeExtentList freeExtents;
  // The run dropped first when the list is full; freeExtents.end() for none.
  FreeExtentList::iterator evictionCandidate;
  // Milliseconds the last full build took.
  uint32_t buildTimeMs = 0;
  // From a clearing to the end of the full scan after it: the cleared runs'
  // list nodes, reused for the runs the scan appends rather than freed and
  // allocated again (what is left is freed when the scan ends).
  std::list<ClusterRange> spareRuns;

 private:
  std::unique_ptr<FreeRunIndex> index_;
};

// Replaces the context's snapshot with a fresh one from a full bitmap scan.
bool makeExtentSnapshot(CVolumeContext& ctx);
// Re-reads the bitmap over the LCN range of every extent of the list.
bool updateSnapshotExt(CVolumeContext& ctx, const ExtentList& extents);
// Re-reads the bitmap over [start, end]; (0, kNoCluster) is a full rebuild under the lock.
bool updateSnapshotRange(CVolumeContext& ctx, uint64_t start, uint64_t end);
// Under the lock: the free-run list, or false (and null) when none was built yet.
bool getSnapshot(CVolumeContext& ctx, const FreeExtentList** list);
// The bitmap scanner; end kNoCluster means up to the end of the volume. Always true.
bool scanBitmap(CVolumeContext& ctx, uint64_t start, uint64_t end, bool incremental);
// List maintenance, each under the lock.
void addFreeExtent(CVolumeContext& ctx, const ClusterRange& range, bool incremental);
void removeUsedRange(CVolumeContext& ctx, const ClusterRange& range);

}  // namespace glidewell

#endif  // GLIDEWELL_VOLUME_EXTENT_SNAPSHOT_H_
