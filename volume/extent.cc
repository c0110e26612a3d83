#include "volume/extent.h"

#include "engine/dfrg_exception.h"

namespace glidewell {

ClusterRange::ClusterRange(uint64_t start, uint64_t end) : start(start), end(end) {
  if (start > end) throw CDfrgException(ErrorInvalidParameter, "Error, Extent Start is after End !");
}

void Extent::addSubRun(uint64_t vcnCount, uint64_t lcnCount) {
  if (!hasSubRuns_) {
    hasSubRuns_ = true;
    largestLcnCount_ = 1;
  }
  subRuns_.push_back(SubRun{vcnCount, lcnCount});
  if (lcnCount > largestLcnCount_) largestLcnCount_ = lcnCount;
}

void Extent::growLastSubRun(uint64_t vcnAdd, uint64_t lcnAdd) {
  if (subRuns_.empty()) {
    addSubRun(vcnAdd, lcnAdd);
    return;
  }
  SubRun& last = subRuns_.back();
  last.vcnCount += vcnAdd;
  last.lcnCount += lcnAdd;
  if (last.lcnCount > largestLcnCount_) largestLcnCount_ = last.lcnCount;
}

bool Extent::locateVcn(uint64_t vcnWanted, uint64_t* boundaryVcn, uint64_t* boundaryLcn) const {
  if (!hasSubRuns_) {
    *boundaryVcn = vcnWanted;
    *boundaryLcn = lcn.start + (vcnWanted - vcn.start);
    return true;
  }
  if (vcnWanted > vcn.end + 1) return false;
  // Moves of compressed files begin and end on compression-unit boundaries
  // only, so walk the sub-run boundaries to the first one at or after vcnWanted.
  uint64_t v = vcn.start;
  uint64_t l = lcn.start;
  for (const SubRun& run : subRuns_) {
    if (v >= vcnWanted) {
      *boundaryVcn = v;
      *boundaryLcn = l;
      return true;
    }
    v += run.vcnCount;
    l += run.lcnCount;
  }
  if (v >= vcnWanted) {
    *boundaryVcn = v;
    *boundaryLcn = l;
    return true;
  }
  *boundaryVcn = vcn.end + 1;
  *boundaryLcn = lcn.end + 1;
  return true;
}

}  // namespace glidewell
