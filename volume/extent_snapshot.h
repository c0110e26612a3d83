// The free-space snapshot of a volume: its free cluster runs, built from the
// volume bitmap and kept current while files move.
//
// The snapshot belongs to the volume's CDfrgContext and every change to it is
// made under the context's lock. The movers search the list they get from
// getSnapshot without the lock; they and every operation that changes the
// list run on the worker thread of the context.
#ifndef GLIDEWELL_VOLUME_EXTENT_SNAPSHOT_H_
#define GLIDEWELL_VOLUME_EXTENT_SNAPSHOT_H_

#include <cstdint>
#include <list>

#include "volume/extent.h"

namespace glidewell {

class CDfrgContext;

// Free runs, disjoint and ordered by start. A linked list, so positions stay
// valid while other runs are inserted or removed.
using FreeExtentList = std::list<ClusterRange>;

class CExtentSnapshot {
 public:
  CExtentSnapshot() : evictionCandidate(freeExtents.end()) {}
  CExtentSnapshot(const CExtentSnapshot&) = delete;
  CExtentSnapshot& operator=(const CExtentSnapshot&) = delete;

  FreeExtentList freeExtents;
  // The run dropped first when the list is full; freeExtents.end() for none.
  FreeExtentList::iterator evictionCandidate;
  // Milliseconds the last full build took.
  uint32_t buildTimeMs = 0;
};

// Replaces the context's snapshot with a fresh one from a full bitmap scan.
bool makeExtentSnapshot(CDfrgContext& ctx);
// Re-reads the bitmap over the LCN range of every extent of the list.
bool updateSnapshotExt(CDfrgContext& ctx, const ExtentList& extents);
// Re-reads the bitmap over [start, end]; (0, kNoCluster) is a full rebuild under the lock.
bool updateSnapshotRange(CDfrgContext& ctx, uint64_t start, uint64_t end);
// Under the lock: the free-run list, or false (and null) when none was built yet.
bool getSnapshot(CDfrgContext& ctx, const FreeExtentList** list);
// The bitmap scanner; end kNoCluster means up to the end of the volume. Always true.
bool scanBitmap(CDfrgContext& ctx, uint64_t start, uint64_t end, bool incremental);
// List maintenance, each under the lock.
void addFreeExtent(CDfrgContext& ctx, const ClusterRange& range, bool incremental);
void removeUsedRange(CDfrgContext& ctx, const ClusterRange& range);

}  // namespace glidewell

#endif  // GLIDEWELL_VOLUME_EXTENT_SNAPSHOT_H_
