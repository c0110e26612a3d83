#include "sim/sim_allocator.h"

#include <algorithm>

namespace glidewell {

namespace {
// How many free runs past the pointer a request looks at for one that holds it
// whole, before it settles for pieces. Bounded so that a full, fragmented
// volume does not make every allocation scan the whole bitmap.
constexpr int kFitSearchRuns = 64;
}  // namespace

void SimAllocator::setReservedZone(uint64_t start, uint64_t end) {
  zoneStart_ = std::min(start, bitmap_.size());
  zoneEnd_ = std::min(std::max(end, zoneStart_), bitmap_.size());
}

void SimAllocator::forEachFreeRun(bool allowZone, uint64_t need,
                                  const std::function<bool(uint64_t, uint64_t)>& fn) const {
  const uint64_t size = bitmap_.size();
  const uint64_t origin = pointer_ < size ? pointer_ : 0;
  const bool zone = !allowZone && zoneEnd_ > zoneStart_;
  uint64_t cur = origin;
  bool wrapped = false;
  for (;;) {
    uint64_t limit = wrapped ? origin : size;
    uint64_t s = cur < limit ? bitmap_.nextFree(cur) : limit;
    if (s >= limit) {
      if (wrapped || origin == 0) return;
      wrapped = true;
      cur = 0;
      continue;
    }
    if (zone && s >= zoneStart_ && s < zoneEnd_) {
      cur = zoneEnd_;
      continue;
    }
    uint64_t stop = std::min(limit, s + need);
    if (zone && s < zoneStart_) stop = std::min(stop, zoneStart_);
    uint64_t e = bitmap_.nextUsed(s, stop);
    cur = e;
    if (!fn(s, e)) return;
  }
}

void SimAllocator::take(uint64_t lcn, uint64_t length, std::vector<SimPiece>* pieces) {
  bitmap_.set(lcn, length);
  if (!pieces->empty() && pieces->back().lcn + pieces->back().length == lcn) {
    pieces->back().length += length;
  } else {
    pieces->push_back({lcn, length});
  }
  pointer_ = lcn + length < bitmap_.size() ? lcn + length : 0;
}

bool SimAllocator::allocate(uint64_t count, uint64_t hint, std::vector<SimPiece>* pieces) {
  if (count == 0) return true;
  if (bitmap_.freeCount() < count) return false;
  uint64_t remaining = count;
  if (hint < bitmap_.size() && !bitmap_.test(hint)) {
    uint64_t end = bitmap_.nextUsed(hint, hint + remaining);
    take(hint, end - hint, pieces);
    remaining -= end - hint;
  }
  if (remaining > 0) {
    int looked = 0;
    uint64_t fit = ~uint64_t{0};
    forEachFreeRun(false, remaining, [&](uint64_t s, uint64_t e) {
      if (e - s >= remaining) fit = s;
      return fit == ~uint64_t{0} && ++looked < kFitSearchRuns;
    });
    if (fit != ~uint64_t{0}) {
      take(fit, remaining, pieces);
      remaining = 0;
    }
  }
  for (bool allowZone : {false, true}) {
    if (remaining == 0) break;
    // take() moves the pointer, so collect the runs first.
    std::vector<SimPiece> runs;
    uint64_t found = 0;
    forEachFreeRun(allowZone, remaining, [&](uint64_t s, uint64_t e) {
      uint64_t n = std::min(e - s, remaining - found);
      runs.push_back({s, n});
      found += n;
      return found < remaining;
    });
    for (const SimPiece& r : runs) take(r.lcn, r.length, pieces);
    remaining -= found;
  }
  return remaining == 0;
}

}  // namespace glidewell

