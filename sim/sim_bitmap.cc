#include "sim/sim_bitmap.h"

namespace glidewell {

namespace {

int popcount(uint64_t w) { return __builtin_popcountll(w); }
int lowestBit(uint64_t w) { return __builtin_ctzll(w); }

// Applies fn(wordIndex, mask) to every word that [start, start + count)
// touches, with the mask of the range's bits in it; stops when fn returns false.
template <typename Fn>
void forWords(uint64_t start, uint64_t count, Fn fn) {
  if (count == 0) return;
  uint64_t end = start + count;  // exclusive
  uint64_t first = start >> 6, last = (end - 1) >> 6;
  for (uint64_t w = first; w <= last; ++w) {
    uint64_t lo = (w == first) ? (start & 63) : 0;
    uint64_t hi = (w == last) ? ((end - 1) & 63) : 63;
    uint64_t mask = (hi == 63 ? ~uint64_t{0} : ((uint64_t{1} << (hi + 1)) - 1)) & ~((uint64_t{1} << lo) - 1);
    if (!fn(w, mask)) return;
  }
}

}  // namespace

SimBitmap::SimBitmap(uint64_t clusters) : clusters_(clusters), words_((clusters + 63) / 64, 0) {}

void SimBitmap::set(uint64_t start, uint64_t count) {
  forWords(start, count, [this](uint64_t w, uint64_t mask) {
    used_ += popcount(mask & ~words_[w]);
    words_[w] |= mask;
    return true;
  });
}

void SimBitmap::clear(uint64_t start, uint64_t count) {
  forWords(start, count, [this](uint64_t w, uint64_t mask) {
    used_ -= popcount(mask & words_[w]);
    words_[w] &= ~mask;
    return true;
  });
}

bool SimBitmap::allFree(uint64_t start, uint64_t count) const {
  if (start > clusters_ || count > clusters_ - start) return false;
  bool ok = true;
  forWords(start, count, [&](uint64_t w, uint64_t mask) { return ok = (words_[w] & mask) == 0; });
  return ok;
}

bool SimBitmap::allUsed(uint64_t start, uint64_t count) const {
  if (start > clusters_ || count > clusters_ - start) return false;
  bool ok = true;
  forWords(start, count, [&](uint64_t w, uint64_t mask) { return ok = (words_[w] & mask) == mask; });
  return ok;
}

uint64_t SimBitmap::nextFree(uint64_t from) const {
  if (from >= clusters_) return clusters_;
  uint64_t w = from >> 6;
  uint64_t bits = ~words_[w] & (~uint64_t{0} << (from & 63));
  while (bits == 0) {
    if (++w >= words_.size()) return clusters_;
    bits = ~words_[w];
  }
  uint64_t lcn = (w << 6) + lowestBit(bits);
  return lcn < clusters_ ? lcn : clusters_;
}

uint64_t SimBitmap::nextUsed(uint64_t from, uint64_t limit) const {
  if (limit > clusters_) limit = clusters_;
  if (from >= limit) return limit;
  uint64_t w = from >> 6, lastWord = (limit - 1) >> 6;
  uint64_t bits = words_[w] & (~uint64_t{0} << (from & 63));
  while (bits == 0) {
    if (++w > lastWord) return limit;
    bits = words_[w];
  }
  uint64_t lcn = (w << 6) + lowestBit(bits);
  return lcn < limit ? lcn : limit;
}

void SimBitmap::copyBytes(uint64_t firstByte, uint8_t* out, size_t n) const {
  for (size_t i = 0; i < n; ++i) {
    uint64_t b = firstByte + i;
    uint64_t w = b >> 3;
    out[i] = w < words_.size() ? static_cast<uint8_t>(words_[w] >> ((b & 7) * 8)) : 0;
  }
}

void SimBitmap::loadBytes(const uint8_t* bytes, size_t n) {
  for (size_t i = 0; i < n && i * 8 < clusters_; ++i) {
    uint64_t& word = words_[i >> 3];
    unsigned shift = static_cast<unsigned>(i & 7) * 8;
    uint64_t value = uint64_t{bytes[i]} << shift;
    if (i * 8 + 8 > clusters_) value &= ((uint64_t{1} << (clusters_ - i * 8)) - 1) << shift;
    used_ -= popcount(word & (uint64_t{0xFF} << shift));
    word = (word & ~(uint64_t{0xFF} << shift)) | value;
    used_ += popcount(value);
  }
}

}  // namespace glidewell
