// The free-space snapshot: built from the bitmap, kept current by ranged
// re-reads after moves and by ranges the movers take, capped by
// MaxExtentListSize. A randomised differential test drives it against a plain
// model of what each re-read saw; the tests after it cover what the model
// does not: the list cap's choice, failed and stopped scans, the slow-update
// fallback.
#include "volume/extent_snapshot.h"

#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

#include <iterator>
#include <memory>
#include <random>
#include <tuple>
#include <vector>

#include "config/dfrg_config.h"
#include "engine/dfrg_context.h"
#include "engine/dfrg_exception.h"
#include "platform/env.h"
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
    if (isFree[c] && !runs.empty() && runs.back().end + 1 == c) {
      runs.back().end = c;
    } else if (isFree[c]) {
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
// a run of the list (or none). Returns what is wrong, or "".
std::string shapeProblem(const CDfrgContext& ctx, uint64_t cap) {
  const CExtentSnapshot& snap = *ctx.snapshot;
  const FreeExtentList& l = snap.freeExtents;
  if (l.size() > cap) return std::to_string(l.size()) + " runs, cap " + std::to_string(cap);
  bool candidateFound = snap.evictionCandidate == l.end();
  for (auto it = l.begin(); it != l.end(); ++it) {
    candidateFound |= it == snap.evictionCandidate;
    if (it != l.begin() && std::prev(it)->end + 1 >= it->start) return "runs meet at " + std::to_string(it->start);
  }
  return candidateFound ? "" : "eviction candidate is not in the list";
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
    switch (kind % 5) {
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
      case 3: {  // the movers take a range out of the list before the bitmap shows it
        uint64_t start = a % total, end = std::min(total - 1, start + c % 300);
        removeUsedRange(*disk.ctx, ClusterRange(start, end));
        std::fill(model.begin() + start, model.begin() + end + 1, false);
        break;
      }
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

TEST(ExtentSnapshotTest, EmptyFullFailedAndStoppedScans) {
  // Runs far longer than the volumes of the randomised test, across replies.
  Disk empty(200003), full(200003);
  full.vol->setUsed(0, 200002, true);
  ASSERT_TRUE(makeExtentSnapshot(*empty.ctx) && makeExtentSnapshot(*full.ctx));
  EXPECT_EQ(empty.list(), (Ranges{ClusterRange(0, 200002)}));
  EXPECT_TRUE(full.list().empty());
  // A failed bitmap reply ends the scan quietly with what was found; a stop
  // request between replies passes through and leaves the runs closed so far.
  Disk failing(200000), stopped(200000);
  failing.vol->failBitmapFrom = 72000;
  failing.vol->setUsed(100, 199, true);
  EXPECT_TRUE(makeExtentSnapshot(*failing.ctx));
  EXPECT_EQ(failing.list(), (Ranges{ClusterRange(0, 99), ClusterRange(200, 71999)}));
  stopped.vol->setUsed(100, 199, true);
  stopped.ctx->stopAll();
  resetCheckStateClock();
  try {
    makeExtentSnapshot(*stopped.ctx);
    FAIL() << "no stop";
  } catch (const CDfrgException& e) {
    EXPECT_EQ(e.code, ErrorStopRequested);
  }
  EXPECT_EQ(stopped.list(), (Ranges{ClusterRange(0, 99)}));
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
}

// A clock that moves on by 100 ms at every reading.
struct TickingEnv : EnvWrapper {
  TickingEnv() : EnvWrapper(Env::system()) {}
  uint32_t timeGetTime() override { return now += 100; }
  uint32_t now = 1000000;
};

TEST(ExtentSnapshotTest, SlowIncrementalUpdatesFallBackToAFullRebuild) {
  TickingEnv clock;
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
  EXPECT_EQ(disk.list(), (Ranges{ClusterRange(0, 9), ClusterRange(20, 499), ClusterRange(600, 999)}));
}

}  // namespace
}  // namespace glidewell
