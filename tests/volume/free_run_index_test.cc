// The free-run index: the block container under it against a plain sorted
// model, and the index against the list walks it replaces. The snapshot is
// driven twice over identical bitmaps, once with the index and once without:
// the lists must stay identical (the index changes no behaviour) and every
// search through the index must give the walk's answer over the same list.
#include "volume/free_run_index.h"

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
#include "volume/bitmap_volume.h"
#include "volume/extent_snapshot.h"
#include "volume/sorted_blocks.h"

namespace glidewell {
namespace {

using testing::BitmapVolume;

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

std::vector<uint64_t> idsOf(const Blocks& blocks) {
  std::vector<uint64_t> ids;
  for (Blocks::Cursor c = blocks.begin(); !blocks.atEnd(c); c = blocks.next(c)) ids.push_back(blocks.at(c).id);
  return ids;
}

uint64_t idAt(const Blocks& blocks, Blocks::Cursor c) { return blocks.atEnd(c) ? kNoCluster : blocks.at(c).id; }

RC_GTEST_PROP(SortedBlocksProperty, BehavesAsASortedSequence, (uint32_t seed)) {
  std::mt19937_64 rng(seed);
  const uint64_t keyRange = *rc::gen::element<uint64_t>(8, 300, 1000000);  // small: many equal keys
  const int ops = *rc::gen::inRange(0, 2500);
  Blocks blocks;
  std::vector<Item> model;  // sorted by key, a new item before equal ones
  uint64_t nextId = 0;
  for (int op = 0; op < ops; ++op) {
    // Grow for the first half, shrink for the second, so blocks split and merge.
    bool grow = model.empty() || rng() % 100 < (op < ops / 2 ? 70u : 25u);
    uint32_t kind = rng() % 40;
    if (kind == 0) {
      // Bulk load of the model's content.
      blocks.startBulk(model.size());
      for (size_t i = 0; i < model.size(); ++i) blocks.bulkEntry(i) = model[i];
      blocks.finishBulk();
    } else if (grow) {
      Item item{rng() % keyRange, 1 + rng() % 1000, nextId++};
      blocks.insert(item);
      auto at = std::lower_bound(model.begin(), model.end(), item.key,
                                 [](const Item& e, uint64_t k) { return e.key < k; });
      model.insert(at, item);
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
    std::vector<uint64_t> want;
    for (const Item& e : model) want.push_back(e.id);
    RC_ASSERT(idsOf(blocks) == want);
    for (int q = 0; q < 20; ++q) {
      uint64_t k = rng() % (keyRange + 2);
      auto lo = std::lower_bound(model.begin(), model.end(), k, [](const Item& e, uint64_t x) { return e.key < x; });
      auto hi = std::upper_bound(model.begin(), model.end(), k, [](uint64_t x, const Item& e) { return x < e.key; });
      RC_ASSERT(idAt(blocks, blocks.lowerBound(k)) == (lo == model.end() ? kNoCluster : lo->id));
      RC_ASSERT(idAt(blocks, blocks.upperBound(k)) == (hi == model.end() ? kNoCluster : hi->id));
      RC_ASSERT(idAt(blocks, blocks.prev(blocks.lowerBound(k))) == (lo == model.begin() ? kNoCluster : std::prev(lo)->id));
      uint64_t needed = rng() % 1100;
      auto first = std::find_if(model.begin(), model.end(), [&](const Item& e) { return e.length >= needed; });
      RC_ASSERT(idAt(blocks, blocks.firstWithLengthAtLeast(needed)) == (first == model.end() ? kNoCluster : first->id));
    }
  }
  // Emptied blocks are given back.
  while (!model.empty()) {
    blocks.erase(blocks.begin());
    model.erase(model.begin());
  }
  RC_ASSERT(blocks.blockCount() == 0u);
  RC_ASSERT(blocks.atEnd(blocks.firstWithLengthAtLeast(0)));
}

// --- The index against the walks, over snapshots the engine keeps ---

// Restores the index switch however a scope ends.
class IndexSwitch {
 public:
  explicit IndexSwitch(bool enabled) { setFreeRunIndexEnabled(enabled); }
  ~IndexSwitch() { setFreeRunIndexEnabled(true); }
};

// One volume with its context; `indexed` decides whether the snapshots built
// for it keep an index.
struct Side {
  Side(uint64_t total, uint64_t cap, bool indexed) : indexed(indexed), config(CDfrgConfig::detached()) {
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
  // Position of the eviction candidate in the list (size() for none).
  size_t candidateAt() {
    return static_cast<size_t>(std::distance(list().begin(), ctx->snapshot->evictionCandidate));
  }

  bool indexed;
  std::unique_ptr<CDfrgConfig> config;
  BitmapVolume* vol;
  std::unique_ptr<CDfrgContext> ctx;
};

std::string rangeText(const ClusterRange& r) { return "[" + std::to_string(r.start) + "," + std::to_string(r.end) + "]"; }

// Every search of the list's index against the walk over the same list, at
// the lengths and LCNs where answers change (around every run, or around a
// sample of them in long lists). Returns what differs, or "".
std::string searchMismatch(FreeExtentList& list, std::mt19937_64& rng) {
  const FreeRunIndex* index = list.index();
  if (index == nullptr) return "the snapshot has no index";
  if (index->size() != list.size()) return "index holds " + std::to_string(index->size()) + " runs";
  if (static_cast<int64_t>(index->totalClusters()) != getTotalFreeClustersLinear(list)) return "total differs";
  std::vector<uint64_t> lengths{0, 1, 2, kNoCluster};
  std::vector<uint64_t> lcns{0, 1, kNoCluster, kNoCluster - 1};
  std::vector<uint64_t> starts{kNoCluster, 0};
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
    if (findFirstFit(list, needed) != findFirstFitLinear(list, needed)) {
      return "first fit of " + std::to_string(needed);
    }
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
  if (index->shortest(list.end()) != shortest) return "shortest run";
  return "";
}

// Alternating used and free runs with geometric lengths.
void fillAged(BitmapVolume& vol, uint64_t total, std::mt19937_64& rng, double meanUsed, double meanFree) {
  std::geometric_distribution<uint64_t> used(1.0 / meanUsed), freeLen(1.0 / meanFree);
  bool isUsed = rng() & 1;
  for (uint64_t c = 0; c < total;) {
    uint64_t len = 1 + (isUsed ? used(rng) : freeLen(rng));
    uint64_t last = std::min(total - 1, c + len - 1);
    vol.setUsed(c, last, isUsed);
    c = last + 1;
    isUsed = !isUsed;
  }
}

RC_GTEST_PROP(FreeRunIndexProperty, AnswersAsTheWalksAndChangesNothing, (uint32_t seed)) {
  // Small volumes, and some large ones whose thousands of runs fill many blocks.
  const uint64_t total = *rc::gen::weightedOneOf<uint64_t>(
      {{6, rc::gen::inRange<uint64_t>(1, 3000)}, {1, rc::gen::inRange<uint64_t>(70000, 160000)}});
  const uint64_t cap = *rc::gen::element<uint64_t>(0, 1, 2, 3, 7, 64, 1048576);
  const double meanUsed = *rc::gen::inRange(1, 40);
  const double meanFree = *rc::gen::inRange(1, 40);
  const int steps = *rc::gen::inRange(1, 40);
  Side a(total, cap, true), b(total, cap, false);
  std::mt19937_64 fill(seed);
  fillAged(*a.vol, total, fill, meanUsed, meanFree);
  b.vol->bitmap = a.vol->bitmap;
  for (Side* side : {&a, &b}) side->run([](CDfrgContext& ctx, BitmapVolume&) { makeExtentSnapshot(ctx); });

  std::mt19937_64 rng(seed + 1);
  for (int step = 0; step < steps; ++step) {
    // One random operation, applied alike to both sides.
    const uint64_t kind = rng() % 16, x = rng() % total, y = rng() % total, len = 1 + rng() % 64, salt = rng();
    auto op = [&](CDfrgContext& ctx, BitmapVolume& vol) {
      std::mt19937_64 local(salt);
      if (kind < 6) {  // a file moves: its old place is freed, its new one taken
        ClusterRange from(x, std::min(total - 1, x + len - 1)), to(y, std::min(total - 1, y + len - 1));
        vol.setUsed(from.start, from.end, false);
        vol.setUsed(to.start, to.end, true);
        updateSnapshotExt(ctx, {Extent(ClusterRange(0, from.length() - 1), from),
                                Extent(ClusterRange(from.length(), from.length() + to.length() - 1), to)});
      } else if (kind < 9) {  // users scribble; one range is re-read
        for (int i = 0; i < 12; ++i) {
          uint64_t at = (x + local() % 512) % total;
          vol.setUsed(at, at, local() & 1);
        }
        updateSnapshotRange(ctx, y, std::min(total - 1, y + len * 4));
      } else if (kind < 11) {  // the snapshot is told about a range directly
        addFreeExtent(ctx, ClusterRange(x, std::min(total - 1, x + len * (salt % 3))), true);
      } else if (kind < 13) {
        removeUsedRange(ctx, ClusterRange(x, std::min(total - 1, x + len * (salt % 3))));
      } else if (kind == 13) {
        updateSnapshotRange(ctx, 0, kNoCluster);
      } else if (kind == 14) {
        makeExtentSnapshot(ctx);
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

    RC_ASSERT(std::equal(a.list().begin(), a.list().end(), b.list().begin(), b.list().end()));
    RC_ASSERT(a.candidateAt() == b.candidateAt());
    RC_ASSERT(b.list().index() == nullptr);
    const ClusterRange* prev = nullptr;
    for (const ClusterRange& r : a.list()) {  // the lists the equivalence rests on: ordered, disjoint
      if (prev != nullptr) RC_ASSERT(prev->end < r.start);
      prev = &r;
    }
    std::string problem = searchMismatch(a.list(), rng);
    if (!problem.empty()) {
      std::string runs;
      for (const ClusterRange& r : a.list()) runs += rangeText(r);
      RC_FAIL(problem + " after step " + std::to_string(step) + ": " + runs.substr(0, 400));
    }
  }
}

// --- The pieces around it ---

TEST(FreeRunIndexTest, BestFitTiesGoToTheLowestStartAndExcludeSkipsOne) {
  auto config = CDfrgConfig::detached();
  auto volume = std::make_unique<BitmapVolume>(400);
  BitmapVolume* vol = volume.get();
  vol->setUsed(0, 399, true);
  vol->setUsed(300, 349, false);  // 50
  vol->setUsed(100, 149, false);  // 50, earlier
  vol->setUsed(200, 259, false);  // 60
  vol->setUsed(10, 49, false);    // 40
  CDfrgContext ctx(std::move(volume), 0, config.get());
  ASSERT_TRUE(makeExtentSnapshot(ctx));
  const FreeExtentList* list = nullptr;
  ASSERT_TRUE(getSnapshot(ctx, &list));
  ASSERT_NE(list->index(), nullptr);
  EXPECT_EQ(findBestFit(*list, 45, kNoCluster), 100u);
  EXPECT_EQ(findBestFit(*list, 45, 100), 300u);
  EXPECT_EQ(findBestFit(*list, 55, kNoCluster), 200u);
  EXPECT_EQ(findBestFit(*list, 61, kNoCluster), kNoCluster);
  EXPECT_EQ(findFirstFit(*list, 41), 100u);
  EXPECT_EQ(findFirstFit(*list, 0), 10u);
  EXPECT_EQ(getTotalFreeClusters(ctx), 200);
}

TEST(FreeRunIndexTest, OnlyTheSnapshotsOwnListHasAnIndex) {
  auto config = CDfrgConfig::detached();
  CDfrgContext ctx(std::make_unique<BitmapVolume>(1000), 0, config.get());
  ASSERT_TRUE(makeExtentSnapshot(ctx));
  FreeExtentList& own = ctx.snapshot->freeExtents;
  ASSERT_NE(own.index(), nullptr);
  FreeExtentList copy(own);
  EXPECT_EQ(copy.index(), nullptr);
  EXPECT_EQ(copy, own);
  // New contents assigned to the snapshot's list are not what the index
  // describes: the list stops using it, and so does the snapshot.
  own = FreeExtentList{ClusterRange(5, 9)};
  EXPECT_EQ(own.index(), nullptr);
  EXPECT_EQ(ctx.snapshot->liveIndex(), nullptr);
  EXPECT_EQ(findBestFit(own, 3, kNoCluster), 5u);

  IndexSwitch off(false);
  ASSERT_TRUE(makeExtentSnapshot(ctx));
  EXPECT_EQ(ctx.snapshot->freeExtents.index(), nullptr);
}

TEST(FreeRunIndexTest, RefusesToForgetARunItWasNotTold) {
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
  auto config = CDfrgConfig::detached();
  auto volume = std::make_unique<BitmapVolume>(2 * runs);
  std::fill(volume->bitmap.begin(), volume->bitmap.end(), 0x55);
  CDfrgContext ctx(std::move(volume), 0, config.get());
  ASSERT_TRUE(makeExtentSnapshot(ctx));
  const FreeRunIndex* index = ctx.snapshot->freeExtents.index();
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
