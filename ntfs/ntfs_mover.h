// NtfsMover: moves clusters of a file's unnamed data stream to a free place,
// keeping every byte of the file readable at every instant.
//
// Order of work:
//   1. mark the target clusters used in $Bitmap;
//   2. copy the clusters there; flush the device (steps 1 and 2);
//   3. rewrite the runlist (the mapping pairs, in every record of an
//      attribute list), write the file's MFT records and flush;
//   4. free the old clusters in $Bitmap (flushed with the next move).
// Killed anywhere, the file reads its old clusters (before 3) or its new ones
// (after 3), which hold the same bytes; the worst case is clusters marked used
// that no file owns, which ntfsfix or chkdsk reclaim.
//
// The caller holds the volume's lock; the mover is used for one move.
#ifndef GLIDEWELL_NTFS_NTFS_MOVER_H_
#define GLIDEWELL_NTFS_NTFS_MOVER_H_

#include <cstdint>

struct _ntfs_volume;

namespace glidewell {

class NtfsMover {
 public:
  explicit NtfsMover(_ntfs_volume* vol) : vol_(vol) {}

  // Moves VCNs [vcn, vcn + count) of file mftNo (clipped to the stream's
  // end) so that their stored clusters lie in order from lcn. Returns
  // kNtfsOk, or kNtfsInvalidParameter with nothing changed when the range is
  // not inside the stream, the target is not all free or not on the volume,
  // or a compressed stream is not moved in whole compression units; the
  // stream must be non-resident. I/O failures give kNtfsReadFault or
  // kNtfsWriteFault after undoing what can be undone.
  uint32_t move(uint64_t mftNo, int64_t vcn, int64_t lcn, uint32_t count);

 private:
  // Sets (used) or clears clusters [lcn, lcn + count) in $Bitmap.
  bool markClusters(int64_t lcn, int64_t count, bool used);
  // True when every cluster of [lcn, lcn + count) is free.
  bool allFree(int64_t lcn, int64_t count, bool* ioError);
  bool copyClusters(int64_t from, int64_t to, int64_t count, uint32_t* error);
  bool flush();

  _ntfs_volume* vol_;
};

}  // namespace glidewell

#endif  // GLIDEWELL_NTFS_NTFS_MOVER_H_
