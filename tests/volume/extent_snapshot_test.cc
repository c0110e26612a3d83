// The free-space snapshot: built from the bitmap, kept current by ranged
// re-reads after moves, capped by MaxExtentListSize. A randomised
// differential test drives it against a plain model of what each re-read saw.
#include "volume/extent_snapshot.h"

#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

#include <memory>
#include <random>
#include <tuple>
#include <vector>

#include "config/dfrg_config.h"
#include "engine/dfrg_context.h"
#include "engine/dfrg_exception.h"
#include "platform/posix/posix_env.h"
#include "volume/bitmap_volume.h"

namespace glidewell {
namespace {

using testing::BitmapVolume;
using Ranges = std::vector<ClusterRange>;

struct Disk {
  explicit Disk(uint64_t total, uint64_t maxListSize = CDfrgConfig::kDefaultMaxExtentListSize)
      : config(CDfrgConfig::detached()) {
    config->overrideMaxExtentListSize(static_cast<DWORD>(maxListSize));
    auto volume = std::make_unique<BitmapVolume>(total);
    vol = volume.get();
    ctx = std::make_unique<CDfrgContext>(std::move(volume), 0, config.get());
  }
  Ranges list() const {
    const FreeExtentList* l = nullptr;
    if (!getSnapshot(*ctx, &l)) return {};
    return Ranges(l->begin(), l->end());
  }
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

std::vector<bool> freeMapOf(const BitmapVolume& vol, uint64_t total) {
  std::vector<bool> map(total);
  for (uint64_t c = 0; c < total; ++c) map[c] = !vol.isUsed(c);
  return map;
}

// Ordered, disjoint, merged, within the cap, and the eviction candidate is
// a run of the list (or none).
// Returns what is wrong, or "".
std::string shapeProblem(const CDfrgContext& ctx, uint64_t cap) {
  const CExtentSnapshot& snap = *ctx.snapshot;
  const FreeExtentList& l = snap.freeExtents;
  if (l.size() > cap) return std::to_string(l.size()) + " runs, cap " + std::to_string(cap);
  bool candidateFound = snap.evictionCandidate == l.end();
  const ClusterRange* prev = nullptr;
  for (auto it = l.begin(); it != l.end(); ++it) {
    if (it == snap.evictionCandidate) candidateFound = true;
    if (prev != nullptr && prev->end + 1 >= it->start) {
      return "[" + std::to_string(prev->start) + "," + std::to_string(prev->end) + "] then [" +
             std::to_string(it->start) + "," + std::to_string(it->end) + "]";
    }
    prev = &*it;
  }
  if (!candidateFound) return "eviction candidate is not in the list";
  return "";
}

// What a ranged re-read of [start, end] leaves the snapshot believing: the
// bits it examined, and the last cluster taking the state of the one before
// it (its own bit is not examined when start < end).
void modelRangedUpdate(std::vector<bool>& model, const BitmapVolume& vol, uint64_t start, uint64_t end) {
  uint64_t total = model.size();
  end = std::min(end, total);
  if (start >= total || start > end) return;
  if (start == end) {
    model[start] = !vol.isUsed(start);
    return;
  }
  for (uint64_t c = start; c <= std::min(end - 1, total - 1); ++c) model[c] = !vol.isUsed(c);
  if (end < total) model[end] = !vol.isUsed(end - 1);
}

// Alternating used and free runs with geometric lengths, a cheap stand-in for
// an aged volume.
void fillAged(BitmapVolume& vol, uint64_t total, uint32_t seed, double meanUsed, double meanFree) {
  std::mt19937 rng(seed);
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

void pinBuildTime(CDfrgContext& ctx) { ctx.snapshot->buildTimeMs = 0xFFFFFFFFu; }

RC_GTEST_PROP(ExtentSnapshotProperty, FollowsTheBitmapThroughMovesAndRangedUpdates,
              (uint32_t seed, const std::vector<std::tuple<uint8_t, uint32_t, uint32_t, uint16_t>>& ops)) {
  const uint64_t total = *rc::gen::weightedOneOf<uint64_t>(
      {{8, rc::gen::inRange<uint64_t>(1, 3000)}, {1, rc::gen::inRange<uint64_t>(70000, 160000)}});
  const uint64_t cap = *rc::gen::element<uint64_t>(0, 1, 2, 3, 7, 1048576);
  const double meanUsed = *rc::gen::inRange(1, 200);
  const double meanFree = *rc::gen::inRange(1, 200);
  Disk disk(total, cap);
  fillAged(*disk.vol, total, seed, meanUsed, meanFree);
  RC_ASSERT(makeExtentSnapshot(*disk.ctx));
  pinBuildTime(*disk.ctx);
  std::vector<bool> model = freeMapOf(*disk.vol, total);

  std::mt19937 rng(seed);
  for (const auto& op : ops) {
    uint8_t kind;
    uint32_t a, b;
    uint16_t c;
    std::tie(kind, a, b, c) = op;
    switch (kind % 4) {
      case 0: {  // a file of two extents moves: its old place is freed, the new one taken
        uint64_t len = 1 + c % 64;
        uint64_t from = a % total, to = b % total;
        ClusterRange oldRange(from, std::min(total - 1, from + len - 1));
        ClusterRange newRange(to, std::min(total - 1, to + len - 1));
        disk.vol->setUsed(oldRange.start, oldRange.end, false);
        disk.vol->setUsed(newRange.start, newRange.end, true);
        ExtentList moved{Extent(ClusterRange(0, oldRange.length() - 1), oldRange),
                         Extent(ClusterRange(oldRange.length(), oldRange.length() + newRange.length() - 1), newRange)};
        RC_ASSERT(updateSnapshotExt(*disk.ctx, moved));
        modelRangedUpdate(model, *disk.vol, oldRange.start, oldRange.end);
        modelRangedUpdate(model, *disk.vol, newRange.start, newRange.end);
        break;
      }
      case 1: {  // users scribble somewhere; one range is re-read (perhaps elsewhere)
        for (int i = 0; i < c % 16; ++i) {
          uint64_t at = (a + rng() % 512) % total;
          disk.vol->setUsed(at, at, rng() & 1);
        }
        uint64_t start = b % total;
        uint64_t end = (c & 0x100) ? start : start + (c >> 4) % 400;
        RC_ASSERT(updateSnapshotRange(*disk.ctx, start, end));
        modelRangedUpdate(model, *disk.vol, start, end);
        break;
      }
      case 2:
        RC_ASSERT(updateSnapshotRange(*disk.ctx, 0, kNoCluster));
        model = freeMapOf(*disk.vol, total);
        break;
      default:
        RC_ASSERT(makeExtentSnapshot(*disk.ctx));
        pinBuildTime(*disk.ctx);
        model = freeMapOf(*disk.vol, total);
        break;
    }
    RC_ASSERT(shapeProblem(*disk.ctx, cap) == std::string());
    Ranges got = disk.list();
    if (cap == 1048576) {
      RC_ASSERT(got == freeRunsOf(model));
    } else {
      for (const ClusterRange& r : got) {  // whatever the cap kept, it believes free
        for (uint64_t x = r.start; x <= r.end; ++x) RC_ASSERT(model[x]);
      }
    }
  }
}

TEST(ExtentSnapshotTest, EmptyAndFullVolumes) {
  for (uint64_t total : {1ull, 129ull, 72000ull, 200003ull}) {
    Disk empty(total);
    ASSERT_TRUE(makeExtentSnapshot(*empty.ctx));
    EXPECT_EQ(empty.list(), (Ranges{ClusterRange(0, total - 1)})) << total;
    Disk full(total);
    full.vol->setUsed(0, total - 1, true);
    ASSERT_TRUE(makeExtentSnapshot(*full.ctx));
    EXPECT_TRUE(full.list().empty()) << total;
  }
}

TEST(ExtentSnapshotTest, BitmapIsReadIn72000ClusterReplies) {
  Disk small(72000);
  makeExtentSnapshot(*small.ctx);
  EXPECT_EQ(small.vol->bitmapRequests, (std::vector<int64_t>{0}));
  Disk big(200000);
  makeExtentSnapshot(*big.ctx);
  EXPECT_EQ(big.vol->bitmapRequests, (std::vector<int64_t>{0, 72000, 144000}));

  // A failed reply ends the scan quietly with what was found.
  Disk failing(200000);
  failing.vol->failBitmapFrom = 72000;
  failing.vol->setUsed(100, 199, true);
  EXPECT_TRUE(makeExtentSnapshot(*failing.ctx));
  EXPECT_EQ(failing.list(), (Ranges{ClusterRange(0, 99), ClusterRange(200, 71999)}));
}

TEST(ExtentSnapshotTest, FreedFileMergesWithItsFreeNeighbours) {
  Disk disk(1000);
  disk.vol->setUsed(0, 999, true);
  disk.vol->setUsed(50, 99, false);
  disk.vol->setUsed(200, 300, false);
  makeExtentSnapshot(*disk.ctx);
  ASSERT_EQ(disk.list(), (Ranges{ClusterRange(50, 99), ClusterRange(200, 300)}));
  disk.vol->setUsed(100, 199, false);
  pinBuildTime(*disk.ctx);
  ASSERT_TRUE(updateSnapshotExt(*disk.ctx, {Extent(ClusterRange(0, 99), ClusterRange(100, 199))}));
  EXPECT_EQ(disk.list(), (Ranges{ClusterRange(50, 300)}));


  // A freed run that touches only the run after it still merges with it,
  // although the run before it is not its neighbour.
  disk.vol->setUsed(420, 430, false);
  updateSnapshotRange(*disk.ctx, 420, 430);
  disk.vol->setUsed(410, 419, false);
  updateSnapshotExt(*disk.ctx, {Extent(ClusterRange(0, 9), ClusterRange(410, 419))});
  EXPECT_EQ(disk.list(), (Ranges{ClusterRange(50, 300), ClusterRange(410, 430)}));
}

TEST(ExtentSnapshotTest, RemovingAUsedRangeCutsRuns) {
  Disk disk(1000);
  disk.vol->setUsed(0, 999, true);
  disk.vol->setUsed(100, 199, false);
  disk.vol->setUsed(300, 310, false);
  makeExtentSnapshot(*disk.ctx);
  removeUsedRange(*disk.ctx, ClusterRange(120, 130));
  EXPECT_EQ(disk.list(), (Ranges{ClusterRange(100, 119), ClusterRange(131, 199), ClusterRange(300, 310)}));
  removeUsedRange(*disk.ctx, ClusterRange(90, 100));   // cuts the front
  removeUsedRange(*disk.ctx, ClusterRange(199, 305));  // the back of one, the front of the next
  EXPECT_EQ(disk.list(), (Ranges{ClusterRange(101, 119), ClusterRange(131, 198), ClusterRange(306, 310)}));
  removeUsedRange(*disk.ctx, ClusterRange(0, 999));
  EXPECT_TRUE(disk.list().empty());
  EXPECT_EQ(shapeProblem(*disk.ctx, 1), "");
}

TEST(ExtentSnapshotTest, ListSizeCapKeepsLongerRuns) {
  auto build = [](uint64_t cap) {
    Disk disk(100, cap);
    disk.vol->setUsed(0, 99, true);
    disk.vol->setUsed(10, 12, false);  // 3
    disk.vol->setUsed(20, 29, false);  // 10, arrives later and is longer
    disk.vol->setUsed(40, 44, false);  // 5
    makeExtentSnapshot(*disk.ctx);
    return disk.list();
  };
  EXPECT_TRUE(build(0).empty());
  EXPECT_EQ(build(1), (Ranges{ClusterRange(20, 29)}));
  EXPECT_EQ(build(2), (Ranges{ClusterRange(20, 29), ClusterRange(40, 44)}));

  // MaxExtentListSize 0 holds for incremental updates too.
  Disk none(100, 0);
  makeExtentSnapshot(*none.ctx);
  updateSnapshotRange(*none.ctx, 10, 20);
  EXPECT_TRUE(none.list().empty());
}

TEST(ExtentSnapshotTest, RangedUpdateTakesAnOpenFreeRunUpToItsEnd) {
  // Cluster 20 is used, but the re-read of [10, 20] does not examine it: the
  // run open before it reaches it.
  Disk disk(100);
  disk.vol->setUsed(0, 99, true);
  makeExtentSnapshot(*disk.ctx);
  disk.vol->setUsed(10, 19, false);
  updateSnapshotRange(*disk.ctx, 10, 20);
  EXPECT_EQ(disk.list(), (Ranges{ClusterRange(10, 20)}));
  // An end beyond the volume is lowered to it.
  disk.vol->setUsed(90, 99, false);
  updateSnapshotRange(*disk.ctx, 85, 5000);
  EXPECT_EQ(disk.list(), (Ranges{ClusterRange(10, 20), ClusterRange(90, 99)}));
}

TEST(ExtentSnapshotTest, StopBetweenRepliesLeavesThePartialList) {
  Disk disk(200000);
  disk.vol->setUsed(1000, 1999, true);
  disk.ctx->stopAll();
  resetCheckStateClock();
  try {
    makeExtentSnapshot(*disk.ctx);
    FAIL() << "no stop";
  } catch (const CDfrgException& e) {
    EXPECT_EQ(e.code, ErrorStopRequested);
  }
  EXPECT_EQ(disk.list(), (Ranges{ClusterRange(0, 999)}));
  EXPECT_EQ(disk.vol->bitmapRequests.size(), 1u);
}

// A clock that moves on by a fixed step at every reading.
class TickingEnv : public PosixEnv {
 public:
  explicit TickingEnv(uint32_t step) : step_(step) {}
  uint32_t timeGetTime() override { return now_ += step_; }

 private:
  uint32_t step_;
  uint32_t now_ = 1000000;
};

TEST(ExtentSnapshotTest, SlowIncrementalUpdatesFallBackToAFullRebuild) {
  for (bool slow : {false, true}) {
    TickingEnv clock(100);
    Env::setCurrent(&clock);
    Disk disk(1000);
    makeExtentSnapshot(*disk.ctx);
    disk.ctx->snapshot->buildTimeMs = slow ? 50 : 1000000;
    disk.vol->setUsed(500, 599, true);  // not part of the update: only a rebuild sees it
    disk.vol->setUsed(10, 19, true);
    ExtentList moved{Extent(ClusterRange(0, 9), ClusterRange(10, 19)), Extent(ClusterRange(10, 19), ClusterRange(30, 39)),
                     Extent(ClusterRange(20, 29), ClusterRange(50, 59))};
    EXPECT_TRUE(updateSnapshotExt(*disk.ctx, moved));
    Env::setCurrent(nullptr);
    Ranges expected = slow ? Ranges{ClusterRange(0, 9), ClusterRange(20, 499), ClusterRange(600, 999)}
                           : Ranges{ClusterRange(0, 9), ClusterRange(20, 999)};
    EXPECT_EQ(disk.list(), expected) << (slow ? "slow" : "fast");
  }
}

}  // namespace
}  // namespace glidewell
