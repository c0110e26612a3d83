// FreeRunIndex: ordered views of the free-space snapshot's runs, so that the
// movers' searches and the snapshot's own upkeep take logarithmic time
// instead of a walk over the whole list.
//
// The snapshot's linked list stays the source of truth; the snapshot tells
// the index about every run it inserts, removes or changes (erase before the
// change, insert after it), and the index keeps:
//   - the runs by start, with the list position of each and, per block, the
//     longest run: the run at, ending before or after an LCN, the first run
//     of a given length in LCN order (first fit), where a new run goes;
//   - the runs by (length, start): the smallest run of at least a length,
//     the first in LCN order among equal ones (best fit, the eviction
//     candidate's shortest run);
//   - the sum of the lengths.
// The answers are those of the linear searches over a list ordered by start
// with disjoint runs, which is what the snapshot keeps between operations.
//
// About 40 bytes per run at full blocks (a list node costs about 48).
// Not thread safe; the snapshot's owner serialises every call (the worker
// thread of the context, see extent_snapshot.h).
#ifndef GLIDEWELL_VOLUME_FREE_RUN_INDEX_H_
#define GLIDEWELL_VOLUME_FREE_RUN_INDEX_H_

#include <cstddef>
#include <cstdint>
#include <list>
#include <utility>
#include <vector>

#include "volume/extent.h"
#include "volume/sorted_blocks.h"

namespace glidewell {

class FreeRunIndex {
 public:
  using Run = std::list<ClusterRange>::iterator;

  FreeRunIndex() = default;
  FreeRunIndex(const FreeRunIndex&) = delete;
  FreeRunIndex& operator=(const FreeRunIndex&) = delete;

  // After the run is in the list with its values.
  void insert(Run run);
  // Before the run leaves the list or changes; its values must be the ones
  // it was inserted with. False for a run the index does not hold: then the
  // index no longer describes the list and must not be used until rebuilt.
  [[nodiscard]] bool erase(Run run);
  void clear();
  // Describes `runs` afresh (ordered by start): what a full scan, which
  // appends every run in order, calls once at its end instead of insert.
  void rebuild(std::list<ClusterRange>& runs);

  size_t size() const { return byStart_.size(); }
  uint64_t totalClusters() const { return total_; }
  size_t memoryBytes() const { return byStart_.memoryBytes() + bySize_.memoryBytes(); }

  // --- The movers' searches (kNoCluster / 0 when none) ---
  // The start of the smallest run of at least `needed` clusters not starting
  // at excludeStart, the first by LCN among equal lengths.
  uint64_t bestFit(uint64_t needed, uint64_t excludeStart) const;
  // The start of the first run by LCN of at least `needed` clusters.
  uint64_t firstFit(uint64_t needed) const;
  // The length of the run that starts at lcn.
  uint64_t lengthAt(uint64_t lcn) const;
  // The run that ends at lcn - 1, if any (false for lcn 0 and kNoCluster).
  bool runEndingBefore(uint64_t lcn, ClusterRange* run) const;

  // --- The snapshot's upkeep (`none` is returned when there is no such run) ---
  // The first run whose start is at or after lcn: where a run starting at lcn goes.
  Run firstStartingAtOrAfter(uint64_t lcn, Run none) const;
  // The first run whose end is at or after lcn.
  Run firstEndingAtOrAfter(uint64_t lcn, Run none) const;
  // The shortest run, the first by LCN among equal ones.
  Run shortest(Run none) const;

 private:
  struct StartEntry {
    uint64_t start;
    uint64_t length;
    Run run;
  };
  struct StartTraits {
    using Entry = StartEntry;
    using Key = uint64_t;
    static Key key(const Entry& e) { return e.start; }
  };
  struct SizeEntry {
    uint64_t length;
    uint64_t start;
  };
  struct SizeTraits {
    using Entry = SizeEntry;
    using Key = std::pair<uint64_t, uint64_t>;
    static Key key(const Entry& e) { return {e.length, e.start}; }
  };
  using ByStart = SortedBlocks<StartTraits, true>;
  using BySize = SortedBlocks<SizeTraits, false>;

  // The entry of the run in byStart (runs may share a start for a moment
  // while a new run is merged with its neighbours).
  ByStart::Cursor find(Run run) const;

  ByStart byStart_;
  BySize bySize_;
  uint64_t total_ = 0;
};

// Whether snapshots built from now on keep an index (on by default). Off,
// every search walks the list: the reference the index is measured against.
void setFreeRunIndexEnabled(bool enabled);
bool freeRunIndexEnabled();

}  // namespace glidewell

#endif  // GLIDEWELL_VOLUME_FREE_RUN_INDEX_H_
