// The cluster allocator of the simulated disk, shaped after NTFS's: next fit
// from a moving pointer. A growing file first takes the clusters right after
// its end; otherwise the allocator looks a bounded distance past the pointer
// for a free run that holds the whole request, and when it finds none it
// takes free runs in order from the pointer on. The reserved zone (the MFT
// zone) is used only when nothing else is left. Files written and deleted in
// turn therefore fragment the way they do on a real disk.
//
// Not thread safe; the disk that owns it guards it.
#ifndef GLIDEWELL_SIM_SIM_ALLOCATOR_H_
#define GLIDEWELL_SIM_SIM_ALLOCATOR_H_

#include <cstdint>
#include <functional>
#include <vector>

#include "sim/sim_bitmap.h"

namespace glidewell {

struct SimPiece {
  uint64_t lcn;
  uint64_t length;
};

class SimAllocator {
 public:
  explicit SimAllocator(SimBitmap& bitmap) : bitmap_(bitmap) {}
  SimAllocator(const SimAllocator&) = delete;
  SimAllocator& operator=(const SimAllocator&) = delete;
  // Takes over the pointer and the reserved zone (not the bitmap).
  void copyStateFrom(const SimAllocator& other) {
    pointer_ = other.pointer_;
    zoneStart_ = other.zoneStart_;
    zoneEnd_ = other.zoneEnd_;
  }

  void setReservedZone(uint64_t start, uint64_t end);
  uint64_t pointer() const { return pointer_; }
  void setPointer(uint64_t lcn) { pointer_ = lcn < bitmap_.size() ? lcn : 0; }

  // Allocates count clusters and marks them used; the pieces come in the order
  // the file will use them. hint is the cluster after the file's last one
  // (kNoCluster for none). False, with nothing allocated, when fewer than
  // count clusters are free.
  bool allocate(uint64_t count, uint64_t hint, std::vector<SimPiece>* pieces);

 private:
  // Calls fn(start, end) for the free runs from the pointer on, wrapping
  // once, outside the reserved zone unless allowZone; stops when fn returns
  // false. A run is reported at most need clusters long, so that a huge free
  // region is never scanned to its end.
  void forEachFreeRun(bool allowZone, uint64_t need, const std::function<bool(uint64_t, uint64_t)>& fn) const;
  void take(uint64_t lcn, uint64_t length, std::vector<SimPiece>* pieces);

  SimBitmap& bitmap_;
  uint64_t pointer_ = 0;
  uint64_t zoneStart_ = 0, zoneEnd_ = 0;
};

}  // namespace glidewell

#endif  // GLIDEWELL_SIM_SIM_ALLOCATOR_H_
