// Catches a free-space snapshot that drifts from the bitmap (moves, ranged
// re-reads, runs the movers take, the list cap, failed and stopped scans), an
// index that answers a search differently from the list walks or changes what
// the list holds, and a block container that loses or misorders entries.
#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

#include <algorithm>
#include <iterator>
#include <list>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "config/dfrg_config.h"
#include "engine/dfrg_context.h"
#include "engine/dfrg_exception.h"
#include "engine/move_primitives.h"
#include "platform/env.h"
#include "volume/bitmap_volume.h"
#include "volume/extent_snapshot.h"
#include "volume/free_run_index.h"
#include "volume/sorted_blocks.h"

namespace glidewell {
namespace {

using testing::BitmapVolume;
using Ranges = std::vector<ClusterRange>;

// --- SortedBlocks against a sorted vector ---

struct Item {
  uint64_t key;
  uint64_t length;
  uint64_t id;
};
struct ItemTraits {
  using Entry = Item;
  using Key = uint64_t;
  static Key key(const Item& e) { return e.key; }
};
using Blocks = SortedBlocks<ItemTraits, true>;

uint64_t idAt(const Blocks& blocks, Blocks::Cursor c) { return blocks.atEnd(c) ? kNoCluster : blocks.at(c).id; }

RC_GTEST_PROP(SortedBlocksProperty, BehavesAsASortedSequence, (uint32_t seed)) {
  std::mt19937_64 rng(seed);
  const uint64_t keyRange = *rc::gen::element<uint64_t>(8, 300, 1000000);  // small: many equal keys
  const int ops = *rc::gen::inRange(0, 2500);
  Blocks blocks;
  std::vector<Item> model;  // sorted by key, a new item before equal ones
  uint64_t nextId = 0;
  auto byKey = [](const Item& e, uint64_t k) { return e.key < k; };
  for (int op = 0; op < ops; ++op) {
    // Grow for the first half, shrink for the second, so blocks split and merge.
    bool grow = model.empty() || rng() % 100 < (op < ops / 2 ? 70u : 25u);
    if (rng() % 40 == 0) {  // bulk load of the model's content
      blocks.startBulk(model.size());
      for (size_t i = 0; i < model.size(); ++i) blocks.bulkEntry(i) = model[i];
      blocks.finishBulk();
    } else if (grow) {
      Item item{rng() % keyRange, 1 + rng() % 1000, nextId++};
      blocks.insert(item);
      model.insert(std::lower_bound(model.begin(), model.end(), item.key, byKey), item);
    } else {
      size_t victim = rng() % model.size();
      Blocks::Cursor c = blocks.lowerBound(model[victim].key);
      while (!blocks.atEnd(c) && blocks.at(c).id != model[victim].id) c = blocks.next(c);
      RC_ASSERT(!blocks.atEnd(c));
      blocks.erase(c);
      model.erase(model.begin() + static_cast<std::ptrdiff_t>(victim));
    }
    RC_ASSERT(blocks.size() == model.size());
    if (op % 16 != 0 && op + 1 != ops) continue;
    std::vector<uint64_t> want, got;
    for (const Item& e : model) want.push_back(e.id);
    for (Blocks::Cursor c = blocks.begin(); !blocks.atEnd(c); c = blocks.next(c)) got.push_back(blocks.at(c).id);
    RC_ASSERT(got == want);
    for (int q = 0; q < 20; ++q) {
      uint64_t k = rng() % (keyRange + 2);
      auto lo = std::lower_bound(model.begin(), model.end(), k, byKey);
      auto hi = std::upper_bound(model.begin(), model.end(), k, [](uint64_t x, const Item& e) { return x < e.key; });
      RC_ASSERT(idAt(blocks, blocks.lowerBound(k)) == (lo == model.end() ? kNoCluster : lo->id));
      RC_ASSERT(idAt(blocks, blocks.upperBound(k)) == (hi == model.end() ? kNoCluster : hi->id));
      RC_ASSERT(idAt(blocks, blocks.prev(blocks.lowerBound(k))) == (lo == model.begin() ? kNoCluster : std::prev(lo)->id));
      uint64_t needed = rng() % 1100;
      auto first = std::find_if(model.begin(), model.end(), [&](const Item& e) { return e.length >= needed; });
      RC_ASSERT(idAt(blocks, blocks.firstWithLengthAtLeast(needed)) == (first == model.end() ? kNoCluster : first->id));
    }
  }
  while (!model.empty()) {  // emptied blocks are given back
    blocks.erase(blocks.begin());
    model.erase(model.begin());
  }
  RC_ASSERT(blocks.blockCount() == 0u);
  RC_ASSERT(blocks.atEnd(blocks.firstWithLengthAtLeast(0)));
}

// --- The snapshot against the bitmap, with and without its index ---

// Restores the index switch however a scope ends.
class IndexSwitch {
 public:
  explicit IndexSwitch(bool enabled) { setFreeRunIndexEnabled(enabled); }
  ~IndexSwitch() { setFreeRunIndexEnabled(true); }
};

// A volume whose bitmap the test sets, with a context and settings.
struct Disk {
  explicit Disk(uint64_t total, uint64_t cap = CDfrgConfig::kDefaultMaxExtentListSize, bool indexed = true)
      : indexed(indexed), config(CDfrgConfig::detached()) {
    config->overrideMaxExtentListSize(static_cast<DWORD>(cap));
    auto volume = std::make_unique<BitmapVolume>(total);
    vol = volume.get();
    ctx = std::make_unique<CDfrgContext>(std::move(volume), 0, config.get());
  }
  template <typename F>
  void run(F f) {
    IndexSwitch on(indexed);
    f(*ctx, *vol);
    if (ctx->snapshot) ctx->snapshot->buildTimeMs = 0xFFFFFFFFu;  // no fall-back to full rebuilds
  }
  FreeExtentList& list() { return ctx->snapshot->freeExtents; }
  Ranges ranges() const {
    const FreeExtentList* l = nullptr;
    return getSnapshot(*ctx, &l) ? Ranges(l->begin(), l->end()) : Ranges();
  }

  bool indexed;
  std::unique_ptr<CDfrgConfig> config;
  BitmapVolume* vol;
  std::unique_ptr<CDfrgContext> ctx;
};

Ranges freeRunsOf(const std::vector<bool>& isFree) {
  Ranges runs;
  for (uint64_t c = 0; c < isFree.size(); ++c) {
    if (!isFree[c]) continue;
    if (!runs.empty() && runs.back().end + 1 == c) {
      runs.back().end = c;
    } else {
      runs.emplace_back(c, c);
    }
  }
  return runs;
}

// What a ranged re-read of [start, end] leaves the snapshot believing: the
// bits it examined, and the last cluster taking the state of the one before
// it (its own bit is not examined when start < end).
void modelRangedUpdate(std::vector<bool>& model, const BitmapVolume& vol, uint64_t start, uint64_t end) {
  end = std::min<uint64_t>(end, model.size());
  for (uint64_t c = start; c < end; ++c) model[c] = !vol.isUsed(c);
  if (start == end && start < model.size()) model[start] = !vol.isUsed(start);
  if (start < end && end < model.size()) model[end] = !vol.isUsed(end - 1);
}

// Every search of the list's index against the walk over the same list, at
// the lengths and LCNs where answers change (around every run, or around a
// sample of them in long lists). Returns what differs, or "".
std::string searchMismatch(FreeExtentList& list, std::mt19937_64& rng) {
  const FreeRunIndex* index = list.index();
  if (index == nullptr) return "the snapshot has no index";
  if (index->size() != list.size()) return "index holds " + std::to_string(index->size()) + " runs";
  if (static_cast<int64_t>(index->totalClusters()) != getTotalFreeClustersLinear(list)) return "total differs";
  std::vector<uint64_t> lengths{0, 1, 2, kNoCluster}, lcns{0, 1, kNoCluster, kNoCluster - 1}, starts{kNoCluster, 0};
  const uint64_t keepOneIn = list.size() > 300 ? list.size() / 100 : 1;
  for (const ClusterRange& r : list) {
    if (rng() % keepOneIn != 0) continue;
    for (uint64_t d : {0, 1, 2}) {
      lengths.push_back(r.length() - 1 + d);
      lcns.push_back(r.start - 1 + d);
      lcns.push_back(r.end + d);
    }
    starts.push_back(r.start);
  }
  for (uint64_t needed : lengths) {
    for (size_t k = 0; k < 4; ++k) {
      uint64_t exclude = starts[rng() % starts.size()];
      if (findBestFit(list, needed, exclude) != findBestFitLinear(list, needed, exclude)) {
        return "best fit of " + std::to_string(needed) + " excluding " + std::to_string(exclude);
      }
    }
    if (findFirstFit(list, needed) != findFirstFitLinear(list, needed)) return "first fit of " + std::to_string(needed);
  }
  for (uint64_t lcn : lcns) {
    if (getFreeRunLengthAt(list, lcn) != getFreeRunLengthAtLinear(list, lcn)) return "run at " + std::to_string(lcn);
    if (getFreeRunLengthEndingAt(list, lcn) != getFreeRunLengthEndingAtLinear(list, lcn) ||
        findFreeRunBefore(list, lcn) != findFreeRunBeforeLinear(list, lcn)) {
      return "run ending before " + std::to_string(lcn);
    }
    auto startingAt = std::find_if(list.begin(), list.end(), [&](const ClusterRange& r) { return r.start >= lcn; });
    if (index->firstStartingAtOrAfter(lcn, list.end()) != startingAt) return "insert position " + std::to_string(lcn);
    auto endingAt = std::find_if(list.begin(), list.end(), [&](const ClusterRange& r) { return r.end >= lcn; });
    if (index->firstEndingAtOrAfter(lcn, list.end()) != endingAt) return "first ending at " + std::to_string(lcn);
  }
  auto shortest = std::min_element(list.begin(), list.end(),
                                   [](const ClusterRange& a, const ClusterRange& b) { return a.length() < b.length(); });
  return index->shortest(list.end()) != shortest ? "shortest run" : "";
}

// Ordered, disjoint, merged, within the cap, and the eviction candidate is a
// run of the list (or none). Returns what is wrong, or "".
std::string shapeProblem(const CExtentSnapshot& snap, uint64_t cap) {
  const FreeExtentList& l = snap.freeExtents;
  if (l.size() > cap) return std::to_string(l.size()) + " runs, cap " + std::to_string(cap);
  bool candidateFound = snap.evictionCandidate == l.end();
  for (auto it = l.begin(); it != l.end(); ++it) {
    candidateFound |= it == snap.evictionCandidate;
    if (it != l.begin() && std::prev(it)->end + 1 >= it->start) return "runs meet at " + std::to_string(it->start);
  }
  return candidateFound ? "" : "eviction candidate is not in the list";
}

// Two volumes with one aged bitmap, one snapshot indexed and one not, take
// the same random operations. The plain one must hold what a model of each
// re-read says (everything it keeps when capped must be free in the model);
// the indexed one must hold the same list and answer every search as the walks.
RC_GTEST_PROP(ExtentSnapshotProperty, FollowsTheBitmapAndTheIndexChangesNothing, (uint32_t seed)) {
  const uint64_t total = *rc::gen::weightedOneOf<uint64_t>(
      {{6, rc::gen::inRange<uint64_t>(1, 3000)}, {1, rc::gen::inRange<uint64_t>(70000, 160000)}});
  const uint64_t cap = *rc::gen::element<uint64_t>(0, 1, 2, 3, 7, 64, 1048576);
  const double meanUsed = *rc::gen::inRange(1, 200), meanFree = *rc::gen::inRange(1, 200);
  const int steps = *rc::gen::inRange(1, 40);
  Disk a(total, cap, true), b(total, cap, false);
  std::mt19937_64 rng(seed);
  std::geometric_distribution<uint64_t> used(1.0 / meanUsed), freeLen(1.0 / meanFree);
  bool isUsed = rng() & 1;
  for (uint64_t c = 0; c < total; isUsed = !isUsed) {  // alternating runs: a cheap aged volume
    uint64_t last = std::min(total - 1, c + (isUsed ? used(rng) : freeLen(rng)));
    a.vol->setUsed(c, last, isUsed);
    c = last + 1;
  }
  b.vol->bitmap = a.vol->bitmap;
  for (Disk* d : {&a, &b}) d->run([](CDfrgContext& ctx, BitmapVolume&) { makeExtentSnapshot(ctx); });
  std::vector<bool> model(total);
  for (uint64_t c = 0; c < total; ++c) model[c] = !a.vol->isUsed(c);

  for (int step = 0; step < steps; ++step) {
    const uint64_t kind = rng() % 16, x = rng() % total, y = rng() % total, len = 1 + rng() % 64, salt = rng();
    const ClusterRange from(x, std::min(total - 1, x + len - 1)), to(y, std::min(total - 1, y + len - 1));
    const ClusterRange told(x, std::min(total - 1, x + len * (salt % 3)));
    const uint64_t reReadEnd = (salt & 1) ? y : std::min(total - 1, y + len * 4);
    auto op = [&](CDfrgContext& ctx, BitmapVolume& vol) {
      std::mt19937_64 local(salt);
      if (kind < 6) {  // a file moves: its old place is freed, its new one taken
        vol.setUsed(from.start, from.end, false);
        vol.setUsed(to.start, to.end, true);
        RC_ASSERT(updateSnapshotExt(ctx, {Extent(ClusterRange(0, from.length() - 1), from),
                                          Extent(ClusterRange(from.length(), from.length() + to.length() - 1), to)}));
      } else if (kind < 9) {  // users scribble; one range is re-read
        for (int i = 0; i < 12; ++i) {
          uint64_t at = (x + local() % 512) % total;
          vol.setUsed(at, at, local() & 1);
        }
        RC_ASSERT(updateSnapshotRange(ctx, y, reReadEnd));
      } else if (kind < 11) {  // a range the snapshot is told is free
        addFreeExtent(ctx, told, true);
      } else if (kind < 13) {  // the movers take a range before the bitmap shows it
        removeUsedRange(ctx, told);
      } else if (kind == 13) {
        RC_ASSERT(updateSnapshotRange(ctx, 0, kNoCluster));
      } else if (kind == 14) {
        RC_ASSERT(makeExtentSnapshot(ctx));
      } else {  // a stop request ends a full build after its first reply
        ctx.stopAll();
        resetCheckStateClock();
        try {
          makeExtentSnapshot(ctx);
        } catch (const CDfrgException& e) {
          if (e.code != ErrorStopRequested) throw;
        }
        ctx.stopEvent.reset();
      }
    };
    a.run(op);
    b.run(op);
    if (kind < 6) {
      modelRangedUpdate(model, *b.vol, from.start, from.end);
      modelRangedUpdate(model, *b.vol, to.start, to.end);
    } else if (kind < 9) {
      modelRangedUpdate(model, *b.vol, y, reReadEnd);
    } else if (kind < 11) {
      std::fill(model.begin() + told.start, model.begin() + told.end + 1, true);
    } else if (kind < 13) {
      std::fill(model.begin() + told.start, model.begin() + told.end + 1, false);
    } else if (kind < 15) {
      for (uint64_t c = 0; c < total; ++c) model[c] = !b.vol->isUsed(c);
    }

    RC_ASSERT(shapeProblem(*b.ctx->snapshot, cap) == std::string());
    Ranges plain = b.ranges();
    if (kind == 15) {  // what a stopped build kept: runs the bitmap shows free
      for (const ClusterRange& r : plain) {
        for (uint64_t c = r.start; c <= r.end; ++c) RC_ASSERT(!b.vol->isUsed(c));
      }
      for (uint64_t c = 0; c < total; ++c) model[c] = false;
      for (const ClusterRange& r : plain) std::fill(model.begin() + r.start, model.begin() + r.end + 1, true);
    } else if (cap == 1048576) {
      RC_ASSERT(plain == freeRunsOf(model));
    } else {
      for (const ClusterRange& r : plain) {
        for (uint64_t c = r.start; c <= r.end; ++c) RC_ASSERT(model[c]);
      }
    }
    RC_ASSERT(a.ranges() == plain);
    RC_ASSERT(std::distance(a.list().begin(), a.ctx->snapshot->evictionCandidate) ==
              std::distance(b.list().begin(), b.ctx->snapshot->evictionCandidate));
    RC_ASSERT(b.list().index() == nullptr);
    std::string problem = searchMismatch(a.list(), rng);
    if (!problem.empty()) RC_FAIL(problem + " after step " + std::to_string(step));
  }
}

TEST(ExtentSnapshotTest, EmptyFullFailedAndStoppedScans) {
  // Runs far longer than the volumes of the randomised test, across replies.
  Disk empty(200003), full(200003);
  full.vol->setUsed(0, 200002, true);
  ASSERT_TRUE(makeExtentSnapshot(*empty.ctx) && makeExtentSnapshot(*full.ctx));
  EXPECT_EQ(empty.ranges(), (Ranges{ClusterRange(0, 200002)}));
  EXPECT_TRUE(full.ranges().empty());
  // A failed bitmap reply ends the scan quietly with what was found; a stop
  // request between replies passes through and leaves the runs closed so far.
  Disk failing(200000), stopped(200000);
  failing.vol->failBitmapFrom = 72000;
  failing.vol->setUsed(100, 199, true);
  EXPECT_TRUE(makeExtentSnapshot(*failing.ctx));
  EXPECT_EQ(failing.ranges(), (Ranges{ClusterRange(0, 99), ClusterRange(200, 71999)}));
  stopped.vol->setUsed(100, 199, true);
  stopped.ctx->stopAll();
  resetCheckStateClock();
  try {
    makeExtentSnapshot(*stopped.ctx);
    FAIL() << "no stop";
  } catch (const CDfrgException& e) {
    EXPECT_EQ(e.code, ErrorStopRequested);
  }
  EXPECT_EQ(stopped.ranges(), (Ranges{ClusterRange(0, 99)}));
}

TEST(ExtentSnapshotTest, ListSizeCapKeepsLongerRuns) {
  auto build = [](uint64_t cap) {
    Disk disk(100, cap);
    disk.vol->setUsed(0, 99, true);
    disk.vol->setUsed(10, 12, false);  // 3
    disk.vol->setUsed(20, 29, false);  // 10, arrives later and is longer
    disk.vol->setUsed(40, 44, false);  // 5
    makeExtentSnapshot(*disk.ctx);
    return disk.ranges();
  };
  EXPECT_TRUE(build(0).empty());
  EXPECT_EQ(build(1), (Ranges{ClusterRange(20, 29)}));
  EXPECT_EQ(build(2), (Ranges{ClusterRange(20, 29), ClusterRange(40, 44)}));
}

TEST(ExtentSnapshotTest, SlowIncrementalUpdatesFallBackToAFullRebuild) {
  struct TickingEnv : EnvWrapper {  // a clock that moves on by 100 ms at every reading
    TickingEnv() : EnvWrapper(Env::system()) {}
    uint32_t timeGetTime() override { return now += 100; }
    uint32_t now = 1000000;
  } clock;
  Env::setCurrent(&clock);
  Disk disk(1000);
  makeExtentSnapshot(*disk.ctx);
  disk.ctx->snapshot->buildTimeMs = 50;  // each re-read below takes longer than the whole build did
  disk.vol->setUsed(500, 599, true);     // not part of the update: only a rebuild sees it
  disk.vol->setUsed(10, 19, true);
  ExtentList moved{Extent(ClusterRange(0, 9), ClusterRange(10, 19)), Extent(ClusterRange(10, 19), ClusterRange(30, 39)),
                   Extent(ClusterRange(20, 29), ClusterRange(50, 59))};
  EXPECT_TRUE(updateSnapshotExt(*disk.ctx, moved));
  Env::setCurrent(nullptr);
  EXPECT_EQ(disk.ranges(), (Ranges{ClusterRange(0, 9), ClusterRange(20, 499), ClusterRange(600, 999)}));
}

TEST(FreeRunIndexTest, OnlyTheSnapshotsOwnListHasAnIndexAndItForgetsOnlyWhatItWasTold) {
  Disk disk(1000);
  ASSERT_TRUE(makeExtentSnapshot(*disk.ctx));
  FreeExtentList& own = disk.list();
  ASSERT_NE(own.index(), nullptr);
  FreeExtentList copy(own);
  EXPECT_EQ(copy.index(), nullptr);
  EXPECT_EQ(copy, own);
  // New contents assigned to the snapshot's list are not what the index
  // describes: the list stops using it, and so does the snapshot.
  own = FreeExtentList{ClusterRange(5, 9)};
  EXPECT_EQ(own.index(), nullptr);
  EXPECT_EQ(disk.ctx->snapshot->liveIndex(), nullptr);
  EXPECT_EQ(findBestFit(own, 3, kNoCluster), 5u);
  {
    IndexSwitch off(false);
    ASSERT_TRUE(makeExtentSnapshot(*disk.ctx));
    EXPECT_EQ(disk.list().index(), nullptr);
  }

  std::list<ClusterRange> runs{ClusterRange(0, 9), ClusterRange(20, 29), ClusterRange(40, 49)};
  FreeRunIndex index;
  index.insert(runs.begin());
  index.insert(std::next(runs.begin()));
  EXPECT_FALSE(index.erase(std::prev(runs.end())));
  runs.begin()->start = 5;  // moved behind the index's back
  EXPECT_FALSE(index.erase(runs.begin()));
  EXPECT_EQ(index.size(), 2u);
  EXPECT_TRUE(index.erase(std::next(runs.begin())));
  EXPECT_EQ(index.totalClusters(), 10u);  // [0, 9] as it was told
}

TEST(FreeRunIndexTest, StaysSmallForAMillionRuns) {
  // One free cluster after every used one: 2^20 runs of one cluster.
  const uint64_t runs = uint64_t{1} << 20;
  Disk disk(2 * runs);
  std::fill(disk.vol->bitmap.begin(), disk.vol->bitmap.end(), 0x55);
  ASSERT_TRUE(makeExtentSnapshot(*disk.ctx));
  const FreeRunIndex* index = disk.list().index();
  ASSERT_EQ(index->size(), runs);
  // About what the list itself costs: a node is 32 bytes before the
  // allocator's share.
  EXPECT_LT(index->memoryBytes(), runs * 64);
  EXPECT_EQ(index->bestFit(1, kNoCluster), 1u);
  EXPECT_EQ(index->bestFit(2, kNoCluster), kNoCluster);
  ClusterRange before;
  ASSERT_TRUE(index->runEndingBefore(2 * runs, &before));
  EXPECT_EQ(before, ClusterRange(2 * runs - 1, 2 * runs - 1));
}

}  // namespace
}  // namespace glidewell
