#include "ntfs/cluster_set.h"

#include <algorithm>
#include <cstring>

namespace glidewell {

void ClusterSet::update(int64_t lcn, int64_t count, bool member) {
  for (int64_t c = lcn; c < lcn + count;) {
    const int64_t number = c >> kPageBits;
    const int64_t pageEnd = std::min(lcn + count, (number + 1) << kPageBits);
    auto it = pages_.find(number);
    if (it == pages_.end()) {
      if (!member) {
        c = pageEnd;
        continue;
      }
      it = pages_.emplace(number, Page()).first;
    }
    Page& page = it->second;
    for (; c < pageEnd; ++c) {
      uint8_t& byte = page.bits[static_cast<size_t>((c >> 3) & (kPageBytes - 1))];
      const uint8_t bit = static_cast<uint8_t>(1u << (c & 7));
      if (((byte & bit) != 0) == member) continue;
      byte = static_cast<uint8_t>(member ? byte | bit : byte & ~bit);
      page.members += member ? 1 : -1;
    }
    if (page.members == 0) pages_.erase(it);
  }
}

bool ClusterSet::contains(int64_t lcn) const {
  auto it = pages_.find(lcn >> kPageBits);
  return it != pages_.end() && (it->second.bits[static_cast<size_t>((lcn >> 3) & (kPageBytes - 1))] >> (lcn & 7) & 1);
}

void ClusterSet::clearIn(uint64_t firstByte, size_t count, uint8_t* bytes) const {
  const int64_t from = static_cast<int64_t>(firstByte), to = from + static_cast<int64_t>(count);
  for (auto it = pages_.lower_bound(from / kPageBytes); it != pages_.end() && it->first * kPageBytes < to; ++it) {
    const int64_t a = std::max(from, it->first * kPageBytes), b = std::min(to, (it->first + 1) * kPageBytes);
    const uint8_t* bits = it->second.bits.data() + (a - it->first * kPageBytes);
    uint8_t* out = bytes + (a - from);
    int64_t i = 0;
    // Eight bytes at a time; most words of a page are empty.
    for (; i + 8 <= b - a; i += 8) {
      uint64_t set, word;
      std::memcpy(&set, bits + i, 8);
      if (set == 0) continue;
      std::memcpy(&word, out + i, 8);
      word &= ~set;
      std::memcpy(out + i, &word, 8);
    }
    for (; i < b - a; ++i) out[i] &= static_cast<uint8_t>(~bits[i]);
  }
}

}  // namespace glidewell
