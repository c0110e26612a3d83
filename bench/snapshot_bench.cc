// Building the free-space snapshot of a volume of 2^28 clusters (1 TiB of
// 4 KiB clusters) from an empty, a full and an aged bitmap, beside a plain
// word scan that only counts the free runs of the same bitmap in the same
// run. The figure that matters is the ratio ("vs_plain"): how much the
// snapshot costs over the least work that finds the runs at all.
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstring>
#include <memory>
#include <random>

#include "config/dfrg_config.h"
#include "engine/dfrg_context.h"
#include "volume/bitmap_volume.h"
#include "volume/extent_snapshot.h"

namespace glidewell {
namespace {

using testing::BitmapVolume;
using Clock = std::chrono::steady_clock;

constexpr uint64_t kClusters = uint64_t{1} << 28;

enum class Shape { kEmpty, kFull, kAged };

// Marks [first, last] in use, whole bytes at a time.
void markUsed(std::vector<uint8_t>& bitmap, uint64_t first, uint64_t last) {
  while (first <= last && (first & 7) != 0) {
    bitmap[first / 8] |= static_cast<uint8_t>(1u << (first & 7));
    ++first;
  }
  if (first + 7 <= last) {
    std::memset(bitmap.data() + first / 8, 0xFF, (last + 1 - first) / 8);
    first += (last + 1 - first) / 8 * 8;
  }
  for (; first <= last; ++first) bitmap[first / 8] |= static_cast<uint8_t>(1u << (first & 7));
}

// An aged volume: about two thirds in use, files in runs of 64 clusters on
// average, free space broken into gaps of 24 on average (so about 3 million
// free runs, more than the default list cap of 1048576).
void age(std::vector<uint8_t>& bitmap, uint64_t total) {
  std::mt19937_64 rng(20240611);
  std::geometric_distribution<uint64_t> used(1.0 / 64), gap(1.0 / 24);
  for (uint64_t c = 0; c < total;) {
    uint64_t len = 1 + used(rng);
    uint64_t last = std::min(total - 1, c + len - 1);
    markUsed(bitmap, c, last);
    c = last + 1 + 1 + gap(rng);
  }
}

std::unique_ptr<CDfrgContext> makeVolume(Shape shape, CDfrgConfig* config) {
  auto vol = std::make_unique<BitmapVolume>(kClusters);
  if (shape == Shape::kFull) std::memset(vol->bitmap.data(), 0xFF, vol->bitmap.size());
  if (shape == Shape::kAged) age(vol->bitmap, kClusters);
  return std::make_unique<CDfrgContext>(std::move(vol), 0, config);
}

// The plain scan: 64-bit words, all-free and all-used words skipped, run
// starts of mixed words counted with bit operations.
uint64_t countFreeRuns(const std::vector<uint8_t>& bitmap) {
  uint64_t runs = 0;
  uint64_t prevFree = 0;  // was the previous cluster free (as bit 63 carry)
  size_t words = bitmap.size() / 8;
  for (size_t i = 0; i < words; ++i) {
    uint64_t w;
    std::memcpy(&w, bitmap.data() + 8 * i, 8);
    if (w == ~uint64_t{0}) {
      prevFree = 0;
      continue;
    }
    uint64_t free = ~w;
    if (free == ~uint64_t{0}) {
      runs += prevFree ? 0 : 1;
      prevFree = 1;
      continue;
    }
    uint64_t starts = free & ~((free << 1) | prevFree);
    runs += static_cast<uint64_t>(__builtin_popcountll(starts));
    prevFree = free >> 63;
  }
  return runs;
}

void BM_MakeExtentSnapshot(benchmark::State& state) {
  auto shape = static_cast<Shape>(state.range(0));
  std::unique_ptr<CDfrgConfig> config = CDfrgConfig::detached();
  std::unique_ptr<CDfrgContext> ctx = makeVolume(shape, config.get());
  auto& vol = static_cast<BitmapVolume&>(ctx->volume());
  double snapshotSeconds = 0, plainSeconds = 0;
  uint64_t plainRuns = 0;
  for (auto _ : state) {
    Clock::time_point t0 = Clock::now();
    plainRuns = countFreeRuns(vol.bitmap);
    benchmark::DoNotOptimize(plainRuns);
    Clock::time_point t1 = Clock::now();
    makeExtentSnapshot(*ctx);
    Clock::time_point t2 = Clock::now();
    vol.bitmapRequests.clear();
    double snap = std::chrono::duration<double>(t2 - t1).count();
    plainSeconds += std::chrono::duration<double>(t1 - t0).count();
    snapshotSeconds += snap;
    state.SetIterationTime(snap);
  }
  double clusters = static_cast<double>(kClusters) * static_cast<double>(state.iterations());
  state.counters["clusters_per_s"] = clusters / snapshotSeconds;
  state.counters["plain_clusters_per_s"] = clusters / plainSeconds;
  state.counters["vs_plain"] = snapshotSeconds / plainSeconds;
  state.counters["free_runs"] = static_cast<double>(plainRuns);
  state.counters["listed_runs"] = static_cast<double>(ctx->snapshot->freeExtents.size());
}

BENCHMARK(BM_MakeExtentSnapshot)
    ->ArgName("shape")  // 0 empty, 1 full, 2 aged
    ->Arg(0)
    ->Arg(1)
    ->Arg(2)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond)
    ->MinTime(2.0);

}  // namespace
}  // namespace glidewell

BENCHMARK_MAIN();
