// NtfsMover: moves clusters of a file's unnamed data stream to a free place,
// keeping every byte of every file readable at every instant.
//
// A move is made at once in the volume's view (runs, bitmap) and reaches the
// disk in three steps, each durable before the next starts:
//   1. the new clusters are marked used in $Bitmap and the data copied there;
//   2. the file's records point at them (writeStreamRuns);
//   3. the old clusters are freed in $Bitmap.
// Killed anywhere, a file reads its old clusters (before 2) or its new ones
// (after 2), which hold the same bytes; the worst case is clusters marked
// used that no file owns, which ntfsfix or chkdsk reclaim.
//
// A flush between the steps costs far more than the copy of a small file, so
// moves share them in batches (PendingMoves): a commit flushes the data of a
// whole batch, writes its records, flushes again and frees what it left.
// The volume commits when held data, pending records or left extents pass
// their limits (NtfsCommitLimits), and before it is unmounted; a crash
// before a commit loses only moves, and every file stays where it was.
//
// Used under the volume's lock.
#ifndef GLIDEWELL_NTFS_NTFS_MOVER_H_
#define GLIDEWELL_NTFS_NTFS_MOVER_H_

#include <cstdint>
#include <vector>

#include "ntfs/ntfs_volume.h"
#include "ntfs/pending_moves.h"

struct _ntfs_volume;

namespace glidewell {

class NtfsMover {
 public:
  NtfsMover(_ntfs_volume* vol, const NtfsCommitLimits& limits) : vol_(vol), limits_(limits) {}

  // Moves VCNs [vcn, vcn + count) of file mftNo (clipped to the stream's
  // end) so that their stored clusters lie in order from lcn. Returns
  // kNtfsOk, or kNtfsInvalidParameter with nothing changed when the range is
  // not inside the stream, the target is not all free or not on the volume,
  // or a compressed stream is not moved in whole compression units; the
  // stream must be non-resident. I/O failures give kNtfsReadFault or
  // kNtfsWriteFault; after a failed commit every later move fails too.
  uint32_t move(uint64_t mftNo, int64_t vcn, int64_t lcn, uint32_t count);
  // Commits every pending move; false when that failed.
  bool commitAll();

  // The volume's view of what is pending.
  const std::vector<NtfsRun>* pendingRuns(uint64_t mftNo) const { return pending_.runsOf(mftNo); }
  void clearLeft(uint64_t firstByte, size_t count, uint8_t* bytes) const {
    pending_.clearLeft(firstByte, count, bytes);
  }

 private:
  // Commits the base batch: flush, records, flush, frees, next batch's data.
  bool commit();
  bool readBitmap(int64_t lcn, int64_t count, int64_t* firstByte, std::vector<uint8_t>* bytes);
  bool writeBitmap(int64_t firstByte, const std::vector<uint8_t>& bytes);
  // Frees extents given in cluster order.
  bool freeClusters(const std::vector<PendingMoves::Extent>& extents);
  // Reads clusters as the volume shows them (held data over the disk's).
  bool readClusters(int64_t lcn, int64_t count, uint8_t* out);
  bool writeClusters(int64_t lcn, const std::vector<uint8_t>& bytes);
  bool copyClusters(const std::vector<PendingMoves::Extent>& from, int64_t to, uint32_t* error);
  bool sync();
  bool fail();

  _ntfs_volume* vol_;
  NtfsCommitLimits limits_;
  PendingMoves pending_;
  bool failed_ = false;
};

}  // namespace glidewell

#endif  // GLIDEWELL_NTFS_NTFS_MOVER_H_
