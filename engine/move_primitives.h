// The primitives the movers share: moving a file's clusters through the
// file system's move control, and small queries over a file's extent list and
// over the free-space snapshot.
#ifndef GLIDEWELL_ENGINE_MOVE_PRIMITIVES_H_
#define GLIDEWELL_ENGINE_MOVE_PRIMITIVES_H_

#include <cstdint>

#include "engine/error_codes.h"
#include "volume/dfrg_file.h"
#include "volume/extent.h"
#include "volume/extent_snapshot.h"

namespace glidewell {

class CVolumeContext;

// --- Over a file's extents ---
// The file's size in clusters, virtual clusters included.
uint64_t getTotalVcnClusters(const ExtentList& extents);
// The clusters the file occupies on disk.
uint64_t getTotalLcnClusters(const ExtentList& extents);
// The next point at or after vcn where a move may begin or end (the next
// compression-unit boundary for compressed and sparse files).
bool findMoveBoundary(const ExtentList& extents, uint64_t vcn, uint64_t* boundaryVcn, uint64_t* boundaryLcn);
// Clusters stored on disk for the VCNs [fromVcn, toVcn]; kNoCluster when a lookup fails.
uint64_t countStoredClusters(const ExtentList& extents, uint64_t fromVcn, uint64_t toVcn);
// kNoCluster for an empty list.
uint64_t getLowestLcnStart(const ExtentList& extents);
uint64_t getHighestLcnEnd(const ExtentList& extents);
// The largest compression unit on disk, at least 1.
uint64_t getLargestSubRunInList(const ExtentList& extents);

// --- Over the free runs ---
// A list with an index (a snapshot's own list) is searched through it; any
// other list is walked. Both give the same answers (the index is tested
// against the walks below, which stay as the reference).
//
// The start of the smallest run of at least `needed` clusters that does not
// start at excludeStart: the first such run, replaced only by a strictly
// shorter one, the search ending at the first exact fit. kNoCluster when none.
uint64_t findBestFit(const FreeExtentList& runs, uint64_t needed, uint64_t excludeStart);
// The first run (by LCN) of at least `needed` clusters, or kNoCluster.
uint64_t findFirstFit(const FreeExtentList& runs, uint64_t needed);
// Length of the run that starts exactly at lcn, else 0.
uint64_t getFreeRunLengthAt(const FreeExtentList& runs, uint64_t lcn);
// Length of the run that ends at lcn - 1, else 0.
uint64_t getFreeRunLengthEndingAt(const FreeExtentList& runs, uint64_t lcn);
// Start of the run that ends at lcn - 1, or kNoCluster.
uint64_t findFreeRunBefore(const FreeExtentList& runs, uint64_t lcn);
// Sum of the free runs of the context's snapshot, -1 when it has none.
int64_t getTotalFreeClusters(CVolumeContext& ctx);

// The same searches as walks over the list, whatever index it has.
uint64_t findBestFitLinear(const FreeExtentList& runs, uint64_t needed, uint64_t excludeStart);
uint64_t findFirstFitLinear(const FreeExtentList& runs, uint64_t needed);
uint64_t getFreeRunLengthAtLinear(const FreeExtentList& runs, uint64_t lcn);
uint64_t getFreeRunLengthEndingAtLinear(const FreeExtentList& runs, uint64_t lcn);
uint64_t findFreeRunBeforeLinear(const FreeExtentList& runs, uint64_t lcn);
int64_t getTotalFreeClustersLinear(const FreeExtentList& runs);

// --- Moves --- (status: ErrorNone done, ErrorAccessDenied, ErrorInvalidParameter
// (the move control rejected its parameters), ErrorImpossible (the granularity
// is above MaxClusterMoveCount), ErrorInternal (a boundary or count not found),
// ErrorFailed (the map could not be read, or any other error of the control))
// Moves `count` VCNs from startVcn to consecutive clusters from targetLcn, in
// pieces of at most MaxClusterMoveCount clusters, checking for stop/pause
// between pieces.
ErrorCode moveClusters(CDfrgFile& file, uint64_t targetLcn, uint64_t count, uint64_t startVcn);
// Moves the whole file `distance` clusters towards LCN 0 into the free gap
// directly before it, in pieces no longer than the gap.
ErrorCode slideLeft(CDfrgFile& file, uint64_t distance);

// After a move: re-reads the bitmap over the clusters the file left (now
// free) and, from the file's new map, over the ones it took.
void refreshAfterMove(CVolumeContext& ctx, CDfrgFile& file, ExtentList& extents);

// MaxClusterMoveCount of the context's settings (the default without any).
uint32_t maxClusterMoveCountOf(CVolumeContext& ctx);

}  // namespace glidewell

#endif  // GLIDEWELL_ENGINE_MOVE_PRIMITIVES_H_
