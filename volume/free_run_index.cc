#include "volume/free_run_index.h"

#include <algorithm>
#include <atomic>
#include <vector>

namespace glidewell {

namespace {
std::atomic<bool> indexEnabled{true};
}  // namespace

void setFreeRunIndexEnabled(bool enabled) { indexEnabled.store(enabled); }
bool freeRunIndexEnabled() { return indexEnabled.load(); }

void FreeRunIndex::insert(Run run) {
  const uint64_t length = run->length();
  byStart_.insert(StartEntry{run->start, length, run});
  bySize_.insert(SizeEntry{length, run->start});
  total_ += length;
}

FreeRunIndex::ByStart::Cursor FreeRunIndex::find(Run run) const {
  for (ByStart::Cursor c = byStart_.lowerBound(run->start); !byStart_.atEnd(c); c = byStart_.next(c)) {
    const StartEntry& e = byStart_.at(c);
    if (e.start != run->start) break;
    if (e.run == run) return c;
  }
  return byStart_.end();
}

bool FreeRunIndex::erase(Run run) {
  ByStart::Cursor c = find(run);
  if (byStart_.atEnd(c)) return false;
  const uint64_t length = byStart_.at(c).length;
  BySize::Cursor s = bySize_.lowerBound({length, run->start});
  if (bySize_.atEnd(s) || bySize_.at(s).start != run->start || bySize_.at(s).length != length) return false;
  byStart_.erase(c);
  bySize_.erase(s);
  total_ -= length;
  return true;
}

void FreeRunIndex::clear() {
  byStart_.clear();
  bySize_.clear();
  total_ = 0;
}

void FreeRunIndex::rebuild(std::list<ClusterRange>& runs) {
  // Runs shorter than this are ordered by length by counting them into
  // buckets; the few longer ones are sorted.
  constexpr uint64_t kBuckets = 1 << 14;
  total_ = 0;
  const size_t n = runs.size();
  byStart_.startBulk(n);
  std::vector<uint32_t> firstOfLength(kBuckets + 1, 0);
  std::vector<SizeEntry> longRuns;
  size_t i = 0;
  bool ordered = true;
  for (Run run = runs.begin(); run != runs.end(); ++run, ++i) {
    const uint64_t length = run->length();
    if (i > 0 && run->start < byStart_.bulkEntry(i - 1).start) ordered = false;
    byStart_.bulkEntry(i) = StartEntry{run->start, length, run};
    total_ += length;
    if (length < kBuckets) {
      firstOfLength[length + 1] += 1;
    } else {
      longRuns.push_back(SizeEntry{length, run->start});
    }
  }
  if (!ordered) {  // not a full scan's list: take it run by run
    clear();
    for (Run run = runs.begin(); run != runs.end(); ++run) insert(run);
    return;
  }
  byStart_.finishBulk();

  // The runs come in LCN order, so a stable placement by length alone orders
  // them by (length, start).
  for (uint64_t l = 1; l <= kBuckets; ++l) firstOfLength[l] += firstOfLength[l - 1];
  bySize_.startBulk(n);
  for (ByStart::Cursor c = byStart_.begin(); !byStart_.atEnd(c); c = byStart_.next(c)) {
    const StartEntry& e = byStart_.at(c);
    if (e.length < kBuckets) bySize_.bulkEntry(firstOfLength[e.length]++) = SizeEntry{e.length, e.start};
  }
  std::stable_sort(longRuns.begin(), longRuns.end(),
                   [](const SizeEntry& a, const SizeEntry& b) { return a.length < b.length; });
  for (size_t k = 0; k < longRuns.size(); ++k) bySize_.bulkEntry(n - longRuns.size() + k) = longRuns[k];
  bySize_.finishBulk();
}

uint64_t FreeRunIndex::bestFit(uint64_t needed, uint64_t excludeStart) const {
  BySize::Cursor c = bySize_.lowerBound({needed, 0});
  if (!bySize_.atEnd(c) && bySize_.at(c).start == excludeStart) c = bySize_.next(c);
  return bySize_.atEnd(c) ? kNoCluster : bySize_.at(c).start;
}

uint64_t FreeRunIndex::firstFit(uint64_t needed) const {
  ByStart::Cursor c = byStart_.firstWithLengthAtLeast(needed);
  return byStart_.atEnd(c) ? kNoCluster : byStart_.at(c).start;
}

uint64_t FreeRunIndex::lengthAt(uint64_t lcn) const {
  ByStart::Cursor c = byStart_.lowerBound(lcn);
  if (byStart_.atEnd(c) || byStart_.at(c).start != lcn) return 0;
  return byStart_.at(c).length;
}

bool FreeRunIndex::runEndingBefore(uint64_t lcn, ClusterRange* run) const {
  if (lcn == 0 || lcn == kNoCluster) return false;
  // Only the last run starting before lcn can end at lcn - 1.
  ByStart::Cursor c = byStart_.prev(byStart_.lowerBound(lcn));
  if (byStart_.atEnd(c)) return false;
  const StartEntry& e = byStart_.at(c);
  if (e.start + e.length != lcn) return false;
  *run = ClusterRange(e.start, lcn - 1);
  return true;
}

FreeRunIndex::Run FreeRunIndex::firstStartingAtOrAfter(uint64_t lcn, Run none) const {
  ByStart::Cursor c = byStart_.lowerBound(lcn);
  return byStart_.atEnd(c) ? none : byStart_.at(c).run;
}

FreeRunIndex::Run FreeRunIndex::firstEndingAtOrAfter(uint64_t lcn, Run none) const {
  ByStart::Cursor after = byStart_.upperBound(lcn);
  ByStart::Cursor c = byStart_.prev(after);
  if (!byStart_.atEnd(c)) {
    const StartEntry& e = byStart_.at(c);
    if (e.start + e.length - 1 >= lcn) return e.run;  // the run that holds lcn
  }
  return byStart_.atEnd(after) ? none : byStart_.at(after).run;
}

FreeRunIndex::Run FreeRunIndex::shortest(Run none) const {
  if (bySize_.empty()) return none;
  const SizeEntry& e = bySize_.at(bySize_.begin());
  ByStart::Cursor c = byStart_.lowerBound(e.start);
  return byStart_.at(c).run;
}

}  // namespace glidewell
