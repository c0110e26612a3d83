#include "ntfs/pending_moves.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace glidewell {

const std::vector<NtfsRun>* PendingMoves::runsOf(uint64_t mftNo) const {
  auto it = files_.find(mftNo);
  return it == files_.end() ? nullptr : &it->second.back().runs;
}

bool PendingMoves::isLeft(int64_t lcn) const { return leftSet_.contains(lcn); }

uint64_t PendingMoves::batchFor(uint64_t mftNo, int64_t lcn, int64_t count) const {
  uint64_t batch = base_;
  auto file = files_.find(mftNo);
  if (file != files_.end()) batch = std::max(batch, file->second.back().batch);
  auto it = left_.upper_bound(lcn);
  if (it != left_.begin()) --it;
  for (; it != left_.end() && it->first < lcn + count; ++it) {
    if (it->first + it->second.length > lcn) batch = std::max(batch, it->second.batch + 1);
  }
  return batch;
}

void PendingMoves::take(int64_t lcn, int64_t count) {
  leftSet_.erase(lcn, count);
  const int64_t end = lcn + count;
  auto it = left_.upper_bound(lcn);
  if (it != left_.begin()) --it;
  while (it != left_.end() && it->first < end) {
    const int64_t first = it->first, last = it->first + it->second.length;
    if (last <= lcn) {
      ++it;
      continue;
    }
    const Left was = it->second;
    it = left_.erase(it);
    if (first < lcn) left_.emplace(first, Left{lcn - first, was.batch});
    if (last > end) it = left_.emplace(end, Left{last - end, was.batch}).first;
  }
}

void PendingMoves::add(uint64_t mftNo, uint64_t batch, std::vector<NtfsRun> runs, int64_t lcn, int64_t count,
                       const std::vector<Extent>& left) {
  take(lcn, count);
  for (const Extent& e : left) {
    left_.emplace(e.lcn, Left{e.length, batch});
    leftSet_.insert(e.lcn, e.length);
  }
  std::vector<Version>& versions = files_[mftNo];
  // Within one batch only the file's last runs are ever written.
  if (!versions.empty() && versions.back().batch == batch) {
    versions.back().runs = std::move(runs);
  } else {
    versions.push_back(Version{batch, std::move(runs)});
    ++records_;
  }
}

void PendingMoves::hold(Held held) {
  heldBytes_ += held.bytes.size();
  held_.push_back(std::move(held));
}

void PendingMoves::clearLeft(uint64_t firstByte, size_t count, uint8_t* bytes) const {
  leftSet_.clearIn(firstByte, count, bytes);
}

void PendingMoves::overlayHeld(int64_t lcn, int64_t count, uint32_t clusterBytes, uint8_t* bytes) const {
  // In the order of the moves: clusters held twice take the later data.
  for (const Held& h : held_) {
    const int64_t hEnd = h.lcn + static_cast<int64_t>(h.bytes.size() / clusterBytes);
    const int64_t a = std::max(lcn, h.lcn), b = std::min(lcn + count, hEnd);
    if (a >= b) continue;
    std::memcpy(bytes + (a - lcn) * clusterBytes, h.bytes.data() + (a - h.lcn) * clusterBytes,
                static_cast<size_t>(b - a) * clusterBytes);
  }
}

std::map<uint64_t, std::vector<NtfsRun>> PendingMoves::takeRecords() {
  std::map<uint64_t, std::vector<NtfsRun>> records;
  for (auto it = files_.begin(); it != files_.end();) {
    std::vector<Version>& versions = it->second;
    if (versions.front().batch != base_) {
      ++it;
      continue;
    }
    records.emplace(it->first, std::move(versions.front().runs));
    versions.erase(versions.begin());
    --records_;
    it = versions.empty() ? files_.erase(it) : std::next(it);
  }
  return records;
}

std::vector<PendingMoves::Extent> PendingMoves::takeLeft() {
  std::vector<Extent> freed;
  for (auto it = left_.begin(); it != left_.end();) {
    if (it->second.batch != base_) {
      ++it;
      continue;
    }
    freed.push_back(Extent{it->first, it->second.length});
    leftSet_.erase(it->first, it->second.length);
    it = left_.erase(it);
  }
  return freed;
}

std::vector<PendingMoves::Held> PendingMoves::advance() {
  ++base_;
  std::vector<Held> out, keep;
  for (Held& h : held_) {
    if (h.batch == base_) {
      heldBytes_ -= h.bytes.size();
      out.push_back(std::move(h));
    } else {
      keep.push_back(std::move(h));
    }
  }
  held_ = std::move(keep);
  return out;
}

void PendingMoves::clear() {
  files_.clear();
  left_.clear();
  leftSet_.clear();
  held_.clear();
  heldBytes_ = 0;
  records_ = 0;
}

}  // namespace glidewell
