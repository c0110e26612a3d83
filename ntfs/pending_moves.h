// PendingMoves: the moves that the volume shows as made but that the disk
// does not hold yet -- the runs each moved file has now, the clusters the
// moves left (free to the engine, still owned on disk) and data waiting in
// memory.
//
// A move reaches the disk in three steps, each durable before the next
// starts: its data (with the marks of its new clusters in $Bitmap), its file
// record, the freeing of the clusters it left. Flushes between the steps are
// what a move costs, so moves share them in batches. A move joins the lowest
// open batch (the base), unless its new clusters overlap clusters a pending
// move left: on disk those still belong to the other file until that file's
// record is durable, so the move joins the batch after that move's, and its
// data waits in memory until the batch before it is committed. Committing
// the base (NtfsMover) writes its records, frees what it left and lets the
// next batch's data out.
#ifndef GLIDEWELL_NTFS_PENDING_MOVES_H_
#define GLIDEWELL_NTFS_PENDING_MOVES_H_

#include <cstddef>
#include <cstdint>
#include <map>
#include <vector>

#include "ntfs/cluster_set.h"
#include "ntfs/ntfs_volume.h"

namespace glidewell {

class PendingMoves {
 public:
  struct Extent {
    int64_t lcn;
    int64_t length;
  };
  // Data of a move above the base, for clusters [lcn, lcn + bytes / cluster size).
  struct Held {
    uint64_t batch;
    int64_t lcn;
    std::vector<uint8_t> bytes;
  };

  uint64_t base() const { return base_; }
  bool empty() const { return files_.empty() && left_.empty() && held_.empty(); }
  size_t records() const { return records_; }  // file records waiting to be written
  size_t heldBytes() const { return heldBytes_; }
  size_t leftExtents() const { return left_.size(); }

  // The runs of the file's unnamed stream as its pending moves left them, or null.
  const std::vector<NtfsRun>* runsOf(uint64_t mftNo) const;
  // True when the cluster was left by a pending move.
  bool isLeft(int64_t lcn) const;
  // The batch a move of the file onto [lcn, lcn + count) joins: the file's
  // own moves keep their order, and clusters left by a batch are written
  // only after it.
  uint64_t batchFor(uint64_t mftNo, int64_t lcn, int64_t count) const;
  // Records a move of batch: the file's runs after it, its new clusters
  // [lcn, lcn + count) (no longer left, if they were) and the extents it left.
  void add(uint64_t mftNo, uint64_t batch, std::vector<NtfsRun> runs, int64_t lcn, int64_t count,
           const std::vector<Extent>& left);
  void hold(Held held);

  // The engine's view of $Bitmap: clears the bits of left clusters in count
  // bytes of it starting at byte firstByte.
  void clearLeft(uint64_t firstByte, size_t count, uint8_t* bytes) const;
  // Lays held data over clusters [lcn, lcn + count) read from disk into bytes.
  void overlayHeld(int64_t lcn, int64_t count, uint32_t clusterBytes, uint8_t* bytes) const;

  // A commit of the base takes, in this order: the latest runs of every file
  // moved in it; the extents it left; then, opening the next batch as the
  // base, that batch's held data.
  std::map<uint64_t, std::vector<NtfsRun>> takeRecords();
  std::vector<Extent> takeLeft();  // in cluster order
  std::vector<Held> advance();
  // Forgets every pending move (after a commit failed: nothing more is written).
  void clear();

 private:
  struct Left {
    int64_t length;
    uint64_t batch;
  };
  struct Version {
    uint64_t batch;
    std::vector<NtfsRun> runs;
  };
  // Removes [lcn, lcn + count) from left_.
  void take(int64_t lcn, int64_t count);

  uint64_t base_ = 0;
  std::map<int64_t, Left> left_;                   // by first cluster; disjoint
  ClusterSet leftSet_;                              // the same clusters, for lookups
  std::map<uint64_t, std::vector<Version>> files_;  // by MFT record; batches ascending
  std::vector<Held> held_;                          // in the order of the moves
  size_t heldBytes_ = 0;
  size_t records_ = 0;
};

}  // namespace glidewell

#endif  // GLIDEWELL_NTFS_PENDING_MOVES_H_
