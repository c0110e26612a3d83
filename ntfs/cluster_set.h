// ClusterSet: a set of clusters, one bit each, in pages allocated on first
// use and dropped when empty. The engine reads the whole volume bitmap after
// every move; with the clusters pending moves left kept here, laying them
// over each read costs a pass over bytes, not a walk of every extent.
#ifndef GLIDEWELL_NTFS_CLUSTER_SET_H_
#define GLIDEWELL_NTFS_CLUSTER_SET_H_

#include <cstddef>
#include <cstdint>
#include <map>
#include <vector>

namespace glidewell {

class ClusterSet {
 public:
  void insert(int64_t lcn, int64_t count) { update(lcn, count, true); }
  void erase(int64_t lcn, int64_t count) { update(lcn, count, false); }
  bool contains(int64_t lcn) const;
  // Clears, in count bytes of a volume bitmap starting at byte firstByte,
  // the bits of the clusters in the set.
  void clearIn(uint64_t firstByte, size_t count, uint8_t* bytes) const;
  void clear() { pages_.clear(); }

 private:
  static constexpr int kPageBits = 16;  // 65536 clusters, 8 KiB a page
  static constexpr int64_t kPageBytes = (int64_t{1} << kPageBits) / 8;
  struct Page {
    std::vector<uint8_t> bits = std::vector<uint8_t>(static_cast<size_t>(kPageBytes));
    int64_t members = 0;
  };
  void update(int64_t lcn, int64_t count, bool member);

  std::map<int64_t, Page> pages_;  // by page number
};

}  // namespace glidewell

#endif  // GLIDEWELL_NTFS_CLUSTER_SET_H_
