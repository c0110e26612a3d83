// The allocation bitmap of a simulated disk: one bit per cluster (1 = in
// use), kept in 64-bit words so that whole regions are set, cleared, tested
// and searched a word at a time. Bits past the last cluster stay 0.
//
// Not thread safe; the disk that owns it guards it.
#ifndef GLIDEWELL_SIM_SIM_BITMAP_H_
#define GLIDEWELL_SIM_SIM_BITMAP_H_

#include <cstddef>
#include <cstdint>
#include <vector>

namespace glidewell {

class SimBitmap {
 public:
  explicit SimBitmap(uint64_t clusters = 0);

  uint64_t size() const { return clusters_; }
  uint64_t usedCount() const { return used_; }
  uint64_t freeCount() const { return clusters_ - used_; }

  bool test(uint64_t lcn) const { return (words_[lcn >> 6] >> (lcn & 63)) & 1; }
  // Marks [start, start + count) used / free. The range must lie inside the
  // volume; setting used bits or clearing free ones is allowed and counted right.
  void set(uint64_t start, uint64_t count);
  void clear(uint64_t start, uint64_t count);
  // True when every cluster of [start, start + count) is free / used; false
  // for ranges that leave the volume.
  bool allFree(uint64_t start, uint64_t count) const;
  bool allUsed(uint64_t start, uint64_t count) const;
  // The first free / used cluster at or after from; size() when there is none.
  uint64_t nextFree(uint64_t from) const;
  uint64_t nextUsed(uint64_t from) const { return nextUsed(from, clusters_); }
  // The first used cluster in [from, limit); limit when there is none.
  uint64_t nextUsed(uint64_t from, uint64_t limit) const;

  // Copies n bitmap bytes starting at byte firstByte (byte j holds clusters
  // 8j..8j+7, the lowest cluster in the lowest bit). Bytes past the end are 0.
  void copyBytes(uint64_t firstByte, uint8_t* out, size_t n) const;
  // Replaces the bits of whole bytes from the start with the given bytes.
  void loadBytes(const uint8_t* bytes, size_t n);

  const std::vector<uint64_t>& words() const { return words_; }
  bool operator==(const SimBitmap& other) const { return clusters_ == other.clusters_ && words_ == other.words_; }

 private:
  uint64_t clusters_;
  uint64_t used_ = 0;
  std::vector<uint64_t> words_;
};

}  // namespace glidewell

#endif  // GLIDEWELL_SIM_SIM_BITMAP_H_
