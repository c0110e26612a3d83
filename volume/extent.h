// A file's cluster map: inclusive cluster ranges, extents with their
// compression sub-runs, and the ordered list of a file's extents.
#ifndef GLIDEWELL_VOLUME_EXTENT_H_
#define GLIDEWELL_VOLUME_EXTENT_H_

#include <cstdint>
#include <vector>

namespace glidewell {

// All bits set: "no cluster", "no range", "unknown".
constexpr uint64_t kNoCluster = ~uint64_t{0};

// An inclusive range of clusters [start, end]. The default range is "none".
struct ClusterRange {
  uint64_t start = kNoCluster;
  uint64_t end = kNoCluster;

  ClusterRange() = default;
  // Throws CDfrgException(87, "Error, Extent Start is after End !") when start > end.
  ClusterRange(uint64_t start, uint64_t end);

  bool isSet() const { return start != kNoCluster && end != kNoCluster; }
  // end - start + 1, or kNoCluster for a range that is not set.
  uint64_t length() const { return isSet() ? end - start + 1 : kNoCluster; }
  bool operator==(const ClusterRange& o) const { return start == o.start && end == o.end; }
  bool operator!=(const ClusterRange& o) const { return !(*this == o); }
};

// vcnCount clusters of the file, of which the first lcnCount are stored.
struct SubRun {
  uint64_t vcnCount;
  uint64_t lcnCount;
  bool operator==(const SubRun& o) const { return vcnCount == o.vcnCount && lcnCount == o.lcnCount; }
};

// One run of a file: its VCN range, the LCN range that holds it and, for
// compressed and sparse files, the compression sub-runs in VCN order.
class Extent {
 public:
  Extent() = default;
  Extent(ClusterRange vcn, ClusterRange lcn) : vcn(vcn), lcn(lcn) {}

  ClusterRange vcn;
  ClusterRange lcn;

  bool hasSubRuns() const { return hasSubRuns_; }
  const std::vector<SubRun>& subRuns() const { return subRuns_; }

  // Creates the sub-run list when absent (largest 1), appends the pair and
  // raises the largest stored count.
  void addSubRun(uint64_t vcnCount, uint64_t lcnCount);
  // Adds to the counts of the last sub-run.
  void growLastSubRun(uint64_t vcnAdd, uint64_t lcnAdd);
  void growVcnEnd(uint64_t n) { vcn.end += n; }
  void growBoth(uint64_t n) {
    vcn.end += n;
    lcn.end += n;
  }
  // The largest stored count of a sub-run (the size of the largest compression
  // unit on disk), 1 for an extent without sub-runs.
  uint64_t getLargestSubRun() const { return hasSubRuns_ ? largestLcnCount_ : 1; }
  // The first point at or after vcn where a move may begin or end, with the
  // LCN that holds it. False when vcn lies more than one past the extent.
  bool locateVcn(uint64_t vcn, uint64_t* boundaryVcn, uint64_t* boundaryLcn) const;

 private:
  bool hasSubRuns_ = false;
  std::vector<SubRun> subRuns_;
  uint64_t largestLcnCount_ = 1;
};

// A file's extents in increasing VCN order.
using ExtentList = std::vector<Extent>;

}  // namespace glidewell

#endif  // GLIDEWELL_VOLUME_EXTENT_H_
