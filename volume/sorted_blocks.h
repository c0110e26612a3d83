// SortedBlocks: a sorted sequence stored in blocks of at most kCapacity
// entries, found through a vector of the blocks' first keys. Lookups are two
// binary searches; an insertion or removal moves at most one block's entries
// (a few kilobytes), so it stays cheap with millions of entries, and the
// entries cost little more than their own size (no per-entry node).
//
// With kTrackMaxLength, every block also knows the largest `length` of its
// entries, and a max-tree over the blocks finds the first entry whose length
// reaches a bound in logarithmic time.
//
// Equal keys are allowed; a new entry goes before the entries equal to it.
// Not thread safe: the owner serialises every call.
#ifndef GLIDEWELL_VOLUME_SORTED_BLOCKS_H_
#define GLIDEWELL_VOLUME_SORTED_BLOCKS_H_

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

namespace glidewell {

// Traits: `Entry` (with a uint64_t `length` member when max tracking is on),
// `Key`, and `static Key key(const Entry&)`.
template <typename Traits, bool kTrackMaxLength>
class SortedBlocks {
 public:
  using Entry = typename Traits::Entry;
  using Key = typename Traits::Key;
  static constexpr uint32_t kCapacity = 128;
  static constexpr uint32_t kBulkFill = kCapacity * 3 / 4;

  // A position: a block and an entry in it; block == blockCount() is the end.
  struct Cursor {
    size_t block;
    uint32_t pos;
  };

  size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }
  size_t blockCount() const { return blocks_.size(); }
  // Bytes held by the blocks and the directories.
  size_t memoryBytes() const {
    return blocks_.size() * sizeof(Block) + blocks_.capacity() * sizeof(blocks_[0]) +
           firstKeys_.capacity() * sizeof(Key) + tree_.capacity() * sizeof(uint64_t);
  }

  Cursor begin() const { return {0, 0}; }
  Cursor end() const { return {blocks_.size(), 0}; }
  bool atEnd(Cursor c) const { return c.block >= blocks_.size(); }
  const Entry& at(Cursor c) const { return blocks_[c.block]->entries[c.pos]; }
  Cursor next(Cursor c) const {
    if (++c.pos < blocks_[c.block]->count) return c;
    return {c.block + 1, 0};
  }
  // The position before c; end() before the first entry.
  Cursor prev(Cursor c) const {
    if (c.pos > 0) return {c.block, c.pos - 1};
    if (c.block == 0) return end();
    return {c.block - 1, blocks_[c.block - 1]->count - 1};
  }

  // The first entry whose key is not less than k.
  Cursor lowerBound(const Key& k) const {
    size_t j = static_cast<size_t>(std::lower_bound(firstKeys_.begin(), firstKeys_.end(), k) - firstKeys_.begin());
    return boundIn(j, k, false);
  }
  // The first entry whose key is greater than k.
  Cursor upperBound(const Key& k) const {
    size_t j = static_cast<size_t>(std::upper_bound(firstKeys_.begin(), firstKeys_.end(), k) - firstKeys_.begin());
    return boundIn(j, k, true);
  }

  void insert(const Entry& e) {
    const Key k = Traits::key(e);
    if (blocks_.empty()) {
      blocks_.push_back(std::make_unique<Block>());
      firstKeys_.push_back(k);
      structureChanged(0);
    }
    size_t j = static_cast<size_t>(std::lower_bound(firstKeys_.begin(), firstKeys_.end(), k) - firstKeys_.begin());
    size_t b = j > 0 ? j - 1 : 0;
    uint32_t pos = lowerIn(*blocks_[b], k);
    if (blocks_[b]->count == kCapacity) {
      const size_t changedFrom = b;
      if (b + 1 == blocks_.size() && pos == kCapacity) {
        // Appending in order (a full scan): start a new block rather than
        // leave two half-full ones behind.
        blocks_.push_back(std::make_unique<Block>());
        firstKeys_.push_back(k);
        b += 1;
        pos = 0;
      } else {
        split(b);
        if (pos > blocks_[b]->count) {
          pos -= blocks_[b]->count;
          b += 1;
        }
      }
      structureChanged(changedFrom);
    }
    Block& block = *blocks_[b];
    std::move_backward(block.entries + pos, block.entries + block.count, block.entries + block.count + 1);
    block.entries[pos] = e;
    block.count += 1;
    size_ += 1;
    if (pos == 0) firstKeys_[b] = k;
    if (kTrackMaxLength && lengthOf(e) > block.maxLength) {
      block.maxLength = lengthOf(e);
      updateLeaf(b);
    }
  }

  void erase(Cursor c) {
    Block& block = *blocks_[c.block];
    uint64_t length = lengthOf(block.entries[c.pos]);
    std::move(block.entries + c.pos + 1, block.entries + block.count, block.entries + c.pos);
    block.count -= 1;
    size_ -= 1;
    if (block.count == 0) {
      blocks_.erase(blocks_.begin() + static_cast<std::ptrdiff_t>(c.block));
      firstKeys_.erase(firstKeys_.begin() + static_cast<std::ptrdiff_t>(c.block));
      structureChanged(c.block);
      return;
    }
    if (c.pos == 0) firstKeys_[c.block] = Traits::key(block.entries[0]);
    if (kTrackMaxLength && length == block.maxLength) {
      block.maxLength = maxOf(block);
      updateLeaf(c.block);
    }
    if (block.count < kCapacity / 4) mergeSmall(c.block);
  }

  // Bulk loading: startBulk(n), then every bulkEntry(i) for i < n written in
  // key order, then finishBulk(). The blocks are filled to three quarters,
  // leaving room for insertions before they split.
  // The blocks already held are reused.
  void startBulk(size_t n) {
    blocks_.resize((n + kBulkFill - 1) / kBulkFill);
    for (size_t b = 0; b < blocks_.size(); ++b) {
      if (!blocks_[b]) blocks_[b] = std::make_unique<Block>();
      blocks_[b]->count = static_cast<uint32_t>(std::min<size_t>(kBulkFill, n - b * kBulkFill));
    }
    firstKeys_.clear();
    size_ = n;
  }
  Entry& bulkEntry(size_t i) { return blocks_[i / kBulkFill]->entries[i % kBulkFill]; }
  void finishBulk() {
    firstKeys_.reserve(blocks_.size());
    for (const auto& block : blocks_) {
      firstKeys_.push_back(Traits::key(block->entries[0]));
      if (kTrackMaxLength) block->maxLength = maxOf(*block);
    }
    structureChanged(0);
  }

  void clear() {
    blocks_.clear();
    blocks_.shrink_to_fit();
    firstKeys_.clear();
    firstKeys_.shrink_to_fit();
    tree_.clear();
    tree_.shrink_to_fit();
    leaves_ = 0;
    treeBlocks_ = 0;
    size_ = 0;
  }

  // The first entry (in key order) whose length is at least `needed`.
  Cursor firstWithLengthAtLeast(uint64_t needed) const {
    static_assert(kTrackMaxLength, "needs the max-tree");
    if (blocks_.empty() || tree_[1] < needed) return end();
    size_t node = 1;
    while (node < leaves_) node = tree_[2 * node] >= needed ? 2 * node : 2 * node + 1;
    size_t b = node - leaves_;
    const Block& block = *blocks_[b];
    uint32_t pos = 0;
    while (lengthOf(block.entries[pos]) < needed) ++pos;  // the block's max reaches needed
    return {b, pos};
  }

 private:
  struct Block {
    uint32_t count = 0;
    uint64_t maxLength = 0;
    Entry entries[kCapacity];
  };

  static uint64_t lengthOf(const Entry& e) {
    if constexpr (kTrackMaxLength) {
      return e.length;
    } else {
      (void)e;
      return 0;
    }
  }
  static uint64_t maxOf(const Block& block) {
    uint64_t m = 0;
    for (uint32_t i = 0; i < block.count; ++i) m = std::max(m, lengthOf(block.entries[i]));
    return m;
  }
  static uint32_t lowerIn(const Block& block, const Key& k) {
    return static_cast<uint32_t>(
        std::lower_bound(block.entries, block.entries + block.count, k,
                         [](const Entry& e, const Key& key) { return Traits::key(e) < key; }) -
        block.entries);
  }
  static uint32_t upperIn(const Block& block, const Key& k) {
    return static_cast<uint32_t>(
        std::upper_bound(block.entries, block.entries + block.count, k,
                         [](const Key& key, const Entry& e) { return key < Traits::key(e); }) -
        block.entries);
  }

  // j: the first block whose first key is not below (lower) or above (upper)
  // k. The bound is in block j - 1 or is block j's first entry.
  Cursor boundIn(size_t j, const Key& k, bool upper) const {
    if (j > 0) {
      const Block& block = *blocks_[j - 1];
      uint32_t pos = upper ? upperIn(block, k) : lowerIn(block, k);
      if (pos < block.count) return {j - 1, pos};
    }
    return {j, 0};
  }

  // Moves the upper half of full block b into a new block after it.
  void split(size_t b) {
    Block& left = *blocks_[b];
    auto right = std::make_unique<Block>();
    uint32_t keep = left.count / 2;
    right->count = left.count - keep;
    std::copy(left.entries + keep, left.entries + left.count, right->entries);
    left.count = keep;
    if (kTrackMaxLength) {
      left.maxLength = maxOf(left);
      right->maxLength = maxOf(*right);
    }
    firstKeys_.insert(firstKeys_.begin() + static_cast<std::ptrdiff_t>(b + 1), Traits::key(right->entries[0]));
    blocks_.insert(blocks_.begin() + static_cast<std::ptrdiff_t>(b + 1), std::move(right));
  }

  // A block that fell below a quarter joins a neighbour when both fit in one.
  void mergeSmall(size_t b) {
    size_t into;
    if (b + 1 < blocks_.size() && blocks_[b]->count + blocks_[b + 1]->count <= kCapacity) {
      into = b;
    } else if (b > 0 && blocks_[b - 1]->count + blocks_[b]->count <= kCapacity) {
      into = b - 1;
    } else {
      return;
    }
    Block& dst = *blocks_[into];
    Block& src = *blocks_[into + 1];
    std::copy(src.entries, src.entries + src.count, dst.entries + dst.count);
    dst.count += src.count;
    if (kTrackMaxLength) dst.maxLength = std::max(dst.maxLength, src.maxLength);
    blocks_.erase(blocks_.begin() + static_cast<std::ptrdiff_t>(into + 1));
    firstKeys_.erase(firstKeys_.begin() + static_cast<std::ptrdiff_t>(into + 1));
    structureChanged(into);
  }

  // Blocks from `first` on moved or changed: refresh their leaves (all of
  // them when the tree is too small). Appending a block costs a path.
  void structureChanged(size_t first) {
    if (!kTrackMaxLength) return;
    const size_t n = blocks_.size();
    if (n > leaves_) {
      leaves_ = 1;
      while (leaves_ < n) leaves_ *= 2;
      leaves_ *= 2;  // room to grow before the next full rebuild
      tree_.assign(2 * leaves_, 0);
      for (size_t i = 0; i < n; ++i) tree_[leaves_ + i] = blocks_[i]->maxLength;
      for (size_t p = leaves_ - 1; p >= 1; --p) tree_[p] = std::max(tree_[2 * p], tree_[2 * p + 1]);
      treeBlocks_ = n;
      return;
    }
    size_t last = std::max(n, treeBlocks_);  // leaves past the new end are cleared
    treeBlocks_ = n;
    if (first >= last) return;
    for (size_t i = first; i < last; ++i) tree_[leaves_ + i] = i < n ? blocks_[i]->maxLength : 0;
    size_t lo = (leaves_ + first) / 2, hi = (leaves_ + last - 1) / 2;
    for (;;) {
      for (size_t p = lo; p <= hi; ++p) tree_[p] = std::max(tree_[2 * p], tree_[2 * p + 1]);
      if (lo == 1) break;
      lo /= 2;
      hi /= 2;
    }
  }

  void updateLeaf(size_t b) {
    if (!kTrackMaxLength) return;
    size_t node = leaves_ + b;
    tree_[node] = blocks_[b]->maxLength;
    for (node /= 2; node >= 1; node /= 2) {
      uint64_t m = std::max(tree_[2 * node], tree_[2 * node + 1]);
      if (tree_[node] == m) break;
      tree_[node] = m;
    }
  }

  std::vector<std::unique_ptr<Block>> blocks_;
  std::vector<Key> firstKeys_;  // firstKeys_[i] is the key of blocks_[i]'s first entry
  // Max-tree over the blocks' maxLength: leaves at [leaves_, 2 * leaves_).
  std::vector<uint64_t> tree_;
  size_t leaves_ = 0;
  size_t treeBlocks_ = 0;  // blocks the leaves describe
  size_t size_ = 0;
};

}  // namespace glidewell

#endif  // GLIDEWELL_VOLUME_SORTED_BLOCKS_H_
