// One pass of the engine over aged simulated volumes of about 10^4, 10^5 and
// 10^6 files, driven the way the pass loop drives it: a context over a
// SimVolumeSystem, a DfrgThread with detached settings, one walk from the
// root with the better-place move on and the left-border move off, and the
// closing full rebuild of the free-space snapshot.
//
// Each volume is aged once per process; every pass works on a clone of it,
// so every pass starts from the same fragmented state. Cloning and teardown
// are outside the timed region. Time is the CPU time of the thread that runs
// the pass (the engine and the simulated disk it drives).
//
// The engine's millisecond clock stands still during the passes: an
// incremental snapshot update that looks slower than the last full build
// turns into a full rebuild, and on a loaded machine (or a volume built in
// under a millisecond) that would make the work itself depend on the load.
//
// Figures:
//   BM_Pass/<files>/<indexed>   CPU seconds per file and per moved cluster,
//                               with the free-run index (1) or the list walks (0).
//   BM_PassByFreeRuns/<churn>   the same number of files with more or fewer
//                               free runs (churn rounds of the aging).
//   BM_Speedup/<files>          linear and indexed passes interleaved on the
//                               same clones: the ratio of their CPU times, and
//                               whether both left identical disks. For 10^6
//                               files the pair walks one subtree of about 2 %
//                               of the files (a whole linear pass takes hours).
//   BM_Rebuild/<files>          a full rebuild of the snapshot, with and
//                               without the index (the passes make one per
//                               failed or still fragmented move).
//   BM_Searches/<runs>          the searches alone over a snapshot of that
//                               many free runs: linear and indexed time per
//                               query in one loop, and the index's memory.
//
// Run with `ctest --preset linux -L bench` or build/linux/bench/pass_bench;
// a profile of the passes alone:
//   valgrind --tool=callgrind --toggle-collect='*Pass::run*' pass_bench --benchmark_filter=BM_Pass/10000/1
#include <benchmark/benchmark.h>
#include <time.h>

#include <algorithm>
#include <map>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "config/dfrg_config.h"
#include "engine/dfrg_context.h"
#include "engine/dfrg_thread.h"
#include "engine/move_primitives.h"
#include "platform/env.h"
#include "sim/sim_aging.h"
#include "sim/sim_volume_system.h"
#include "volume/bitmap_volume.h"
#include "volume/extent_snapshot.h"
#include "volume/free_run_index.h"

namespace glidewell {
namespace {

double threadCpuSeconds() {
  timespec ts;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

// The real environment with a clock that does not move.
class FrozenClockEnv : public EnvWrapper {
 public:
  FrozenClockEnv() : EnvWrapper(Env::system()) {}
  uint32_t timeGetTime() override { return 1000000; }
};

// Installs the frozen clock for a scope.
class FrozenClock {
 public:
  FrozenClock() { Env::setCurrent(&env_); }
  ~FrozenClock() { Env::setCurrent(nullptr); }
  FrozenClock(const FrozenClock&) = delete;
  FrozenClock& operator=(const FrozenClock&) = delete;

 private:
  FrozenClockEnv env_;
};

// A volume handle that counts the clusters the engine moved, its bitmap
// reads, and the full scans among them (the reads that start at LCN 0).
class CountingVolume : public SimVolumeSystem {
 public:
  using SimVolumeSystem::SimVolumeSystem;
  BOOL moveFile(const MOVE_FILE_DATA* move) override {
    BOOL ok = SimVolumeSystem::moveFile(move);
    if (ok) movedClusters += move->ClusterCount;
    return ok;
  }
  BOOL getVolumeBitmapChunk(const int64_t* startingLcn, void* buffer, DWORD bufferSize,
                            DWORD* bytesReturned) override {
    bitmapReads += 1;
    if (*startingLcn == 0) fullScans += 1;
    return SimVolumeSystem::getVolumeBitmapChunk(startingLcn, buffer, bufferSize, bytesReturned);
  }
  uint64_t movedClusters = 0;
  uint64_t bitmapReads = 0;
  uint64_t fullScans = 0;
};

struct AgedVolume {
  std::unique_ptr<SimDisk> disk;
  SimStats stats;
  std::wstring subtree;  // a top-level directory path ("C:\name") for the 10^6 pair
  uint64_t subtreeFiles = 0;
};

// The aged volume for about `files` files: the aging generator's natural
// mean file size fills 60 % of 48 clusters per file with about one file.
const AgedVolume& agedVolume(uint64_t files, int churnRounds = 4) {
  static std::map<std::pair<uint64_t, int>, AgedVolume> volumes;
  auto key = std::make_pair(files, churnRounds);
  auto it = volumes.find(key);
  if (it != volumes.end()) return it->second;
  SimAgingOptions options;
  options.seed = 20240611 + files;
  options.totalClusters = files * 48;
  options.maxFiles = files;
  options.churnRounds = churnRounds;
  std::string error;
  AgedVolume aged;
  aged.disk = ageDisk(options, &error);
  if (!aged.disk) throw std::runtime_error("ageDisk: " + error);
  aged.stats = aged.disk->stats();
  return volumes.emplace(key, std::move(aged)).first->second;
}

// A directory with about 2 % of the volume's files below it (the smallest
// top-level directory that has at least that many).
void chooseSubtree(AgedVolume& aged) {
  if (!aged.subtree.empty()) return;
  std::map<std::wstring, uint64_t> filesBelow;  // by top-level directory
  for (const SimFileInfo& f : aged.disk->listAll()) {
    size_t cut = f.path.find(L'\\');
    if ((f.attributes & FILE_ATTRIBUTE_DIRECTORY) == 0 && cut != std::wstring::npos) {
      filesBelow[f.path.substr(0, cut)] += 1;
    }
  }
  // The smallest with at least `want` files, else the largest.
  const uint64_t want = aged.stats.files / 50;
  auto better = [&](uint64_t n, uint64_t than) {
    if (than == 0) return true;
    if ((n >= want) != (than >= want)) return n >= want;
    return n >= want ? n < than : n > than;
  };
  for (const auto& dir : filesBelow) {
    if (better(dir.second, aged.subtreeFiles)) {
      aged.subtreeFiles = dir.second;
      aged.subtree = L"C:\\" + dir.first;
    }
  }
}

struct PassResult {
  int64_t processed = 0;
  int64_t defragged = 0;
  int64_t moved = 0;
  int64_t nonDefraggable = 0;
  int64_t errors = 0;
  uint64_t movedClusters = 0;
  uint64_t bitmapReads = 0;
  uint64_t fullScans = 0;
  double cpuSeconds = 0;
};

// The disk and engine objects of one pass, built before the timed region.
class Pass {
 public:
  Pass(const SimDisk& aged, bool indexed) : config_(CDfrgConfig::detached()), thread_("") {
    setFreeRunIndexEnabled(indexed);
    std::shared_ptr<SimDisk> disk = aged.clone();
    auto volume = std::make_unique<CountingVolume>(disk, L'C');
    volume_ = volume.get();
    thread_.setConfig(config_.get());
    ctx_ = std::make_unique<CDfrgContext>(std::move(volume), 0, config_.get());
  }
  ~Pass() { setFreeRunIndexEnabled(true); }

  // What runPasses does for one volume; `dir` other than the root walks only
  // that directory's subtree. Not inlined, so that a profiler can be told to
  // count only this (valgrind --toggle-collect='*Pass::run*').
  [[gnu::noinline]] void run(const std::wstring& dir = L"C:") {
    double t0 = threadCpuSeconds();
    config_->setDoMoveBetterPlace(true);
    config_->setDoMoveLeft(false);
    int changed = 0;
    thread_.walkDirectory(*ctx_, dir, L"", false, false, dir != L"C:", &changed);
    checkState(*ctx_);
    updateSnapshotRange(*ctx_, 0, kNoCluster);
    cpuSeconds_ = threadCpuSeconds() - t0;
  }

  PassResult result() const {
    PassResult r;
    r.processed = thread_.passCounters().processed;
    r.defragged = thread_.passCounters().defragged;
    r.moved = thread_.passCounters().moved;
    r.nonDefraggable = thread_.passCounters().nonDefraggable;
    r.errors = thread_.passCounters().errors;
    r.movedClusters = volume_->movedClusters;
    r.bitmapReads = volume_->bitmapReads;
    r.fullScans = volume_->fullScans;
    r.cpuSeconds = cpuSeconds_;
    return r;
  }
  const SimDisk& disk() const { return volume_->disk(); }

 private:
  FrozenClock clock_;
  std::unique_ptr<CDfrgConfig> config_;
  DfrgThread thread_;
  CountingVolume* volume_;
  std::unique_ptr<CDfrgContext> ctx_;
  double cpuSeconds_ = 0;
};

bool sameDisk(const SimDisk& a, const SimDisk& b) {
  if (a.bitmapBytes() != b.bitmapBytes()) return false;
  std::vector<SimFileInfo> x = a.listAll(), y = b.listAll();
  if (x.size() != y.size()) return false;
  for (size_t i = 0; i < x.size(); ++i) {
    if (x[i].path != y[i].path || x[i].attributes != y[i].attributes || x[i].size != y[i].size ||
        !(x[i].runs == y[i].runs)) {
      return false;
    }
  }
  return true;
}

void reportVolume(benchmark::State& state, const AgedVolume& aged) {
  state.counters["files"] = static_cast<double>(aged.stats.files);
  state.counters["free_runs"] = static_cast<double>(aged.stats.freeRuns);
  state.counters["fragmented"] = static_cast<double>(aged.stats.fragmentedFiles);
}

void reportPass(benchmark::State& state, const PassResult& r) {
  using benchmark::Counter;
  state.counters["processed"] = static_cast<double>(r.processed);
  state.counters["defragged"] = static_cast<double>(r.defragged);
  state.counters["moved"] = static_cast<double>(r.moved);
  state.counters["moved_clusters"] = static_cast<double>(r.movedClusters);
  state.counters["errors"] = static_cast<double>(r.errors);
  state.counters["non_defraggable"] = static_cast<double>(r.nonDefraggable);
  state.counters["bitmap_reads"] = static_cast<double>(r.bitmapReads);
  state.counters["full_scans"] = static_cast<double>(r.fullScans);
  // CPU seconds per processed file and per moved cluster.
  state.counters["s_per_file"] =
      Counter(static_cast<double>(r.processed), Counter::kIsIterationInvariantRate | Counter::kInvert);
  state.counters["s_per_moved_cluster"] =
      Counter(static_cast<double>(r.movedClusters), Counter::kIsIterationInvariantRate | Counter::kInvert);
}

void runPasses(benchmark::State& state, const AgedVolume& aged, bool indexed) {
  PassResult last;
  for (auto _ : state) {
    state.PauseTiming();
    auto pass = std::make_unique<Pass>(*aged.disk, indexed);
    state.ResumeTiming();
    pass->run();
    state.PauseTiming();
    last = pass->result();
    pass.reset();
    state.ResumeTiming();
  }
  reportVolume(state, aged);
  reportPass(state, last);
}

void BM_Pass(benchmark::State& state) {
  runPasses(state, agedVolume(static_cast<uint64_t>(state.range(0))), state.range(1) != 0);
}
BENCHMARK(BM_Pass)->Args({10000, 1})->Iterations(5)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Pass)->Args({100000, 1})->Iterations(3)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Pass)->Args({1000000, 1})->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Pass)->Args({10000, 0})->Iterations(3)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Pass)->Args({100000, 0})->Iterations(1)->Unit(benchmark::kMillisecond);

// 10^5 files aged with 1, 4 and 12 churn rounds: more rounds, more free runs.
void BM_PassByFreeRuns(benchmark::State& state) {
  runPasses(state, agedVolume(100000, static_cast<int>(state.range(0))), true);
}
BENCHMARK(BM_PassByFreeRuns)->Arg(1)->Arg(4)->Arg(12)->Iterations(2)->Unit(benchmark::kMillisecond);

void BM_Speedup(benchmark::State& state) {
  const uint64_t files = static_cast<uint64_t>(state.range(0));
  AgedVolume& aged = const_cast<AgedVolume&>(agedVolume(files));
  std::wstring dir = L"C:";
  if (files >= 1000000) {
    chooseSubtree(aged);
    dir = aged.subtree;
  }
  double linear = 0, indexed = 0;
  bool same = true;
  PassResult last;
  for (auto _ : state) {
    state.PauseTiming();
    Pass a(*aged.disk, false);
    a.run(dir);
    Pass b(*aged.disk, true);
    b.run(dir);
    linear += a.result().cpuSeconds;
    indexed += b.result().cpuSeconds;
    same = same && sameDisk(a.disk(), b.disk()) && a.result().moved == b.result().moved &&
           a.result().defragged == b.result().defragged;
    last = b.result();
    state.ResumeTiming();
  }
  reportVolume(state, aged);
  state.counters["processed"] = static_cast<double>(last.processed);
  state.counters["moved_clusters"] = static_cast<double>(last.movedClusters);
  state.counters["linear_s"] = linear / static_cast<double>(state.iterations());
  state.counters["indexed_s"] = indexed / static_cast<double>(state.iterations());
  state.counters["speedup"] = linear / indexed;
  state.counters["same_result"] = same ? 1 : 0;
}
BENCHMARK(BM_Speedup)->Arg(10000)->Iterations(3)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Speedup)->Arg(100000)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Speedup)->Arg(1000000)->Iterations(1)->Unit(benchmark::kMillisecond);

// A full rebuild of the snapshot of the aged volume (the pass loop makes one
// after each walk, the movers one after every failed or fragmenting move),
// with and without the index, interleaved.
void BM_Rebuild(benchmark::State& state) {
  const AgedVolume& aged = agedVolume(static_cast<uint64_t>(state.range(0)));
  FrozenClock clock;
  auto config = CDfrgConfig::detached();
  std::shared_ptr<SimDisk> disk = aged.disk->clone();
  CDfrgContext plain(std::make_unique<SimVolumeSystem>(disk, L'C'), 0, config.get());
  CDfrgContext indexed(std::make_unique<SimVolumeSystem>(disk, L'C'), 1, config.get());
  setFreeRunIndexEnabled(false);
  makeExtentSnapshot(plain);
  setFreeRunIndexEnabled(true);
  makeExtentSnapshot(indexed);
  double plainSeconds = 0, indexedSeconds = 0;
  bool plainFirst = true;  // the second rebuild finds the disk's bitmap in the cache
  for (auto _ : state) {
    CDfrgContext& first = plainFirst ? plain : indexed;
    CDfrgContext& second = plainFirst ? indexed : plain;
    double t0 = threadCpuSeconds();
    updateSnapshotRange(first, 0, kNoCluster);
    double t1 = threadCpuSeconds();
    updateSnapshotRange(second, 0, kNoCluster);
    double t2 = threadCpuSeconds();
    plainSeconds += plainFirst ? t1 - t0 : t2 - t1;
    indexedSeconds += plainFirst ? t2 - t1 : t1 - t0;
    plainFirst = !plainFirst;
  }
  reportVolume(state, aged);
  state.counters["plain_s"] = plainSeconds / static_cast<double>(state.iterations());
  state.counters["indexed_s"] = indexedSeconds / static_cast<double>(state.iterations());
  state.counters["cost_ratio"] = indexedSeconds / plainSeconds;
}
BENCHMARK(BM_Rebuild)->Arg(10000)->Arg(100000)->Arg(1000000)->Iterations(10)->Unit(benchmark::kMillisecond);

// A snapshot of `runs` free runs of 1 to 64 clusters between used runs of
// 1 to 64, and the searches the movers make over it with random arguments.
void BM_Searches(benchmark::State& state) {
  const uint64_t runs = static_cast<uint64_t>(state.range(0));
  const uint64_t total = runs * 66;
  auto config = CDfrgConfig::detached();
  auto volume = std::make_unique<testing::BitmapVolume>(total);
  std::mt19937_64 rng(7);
  std::vector<uint64_t> starts;
  {
    uint64_t c = 0;
    while (c < total) {
      uint64_t used = 1 + rng() % 64, gap = 1 + rng() % 64;
      volume->setUsed(c, std::min(total - 1, c + used - 1), true);
      c += used;
      if (c < total) starts.push_back(c);
      c += gap;
    }
  }
  // The same bitmap under a snapshot without index (whose list the walks
  // search, allocated as the engine allocates it) and one with.
  std::vector<uint8_t> bitmap = volume->bitmap;
  auto copy = std::make_unique<testing::BitmapVolume>(total);
  copy->bitmap = bitmap;
  CDfrgContext plainCtx(std::move(copy), 0, config.get());
  CDfrgContext ctx(std::move(volume), 1, config.get());
  // A full rebuild (what the movers ask for after a failed move) without and
  // with the index, for what the index costs there.
  auto rebuildSeconds = [&](CDfrgContext& c, bool indexed) {
    setFreeRunIndexEnabled(indexed);
    makeExtentSnapshot(c);
    double t0 = threadCpuSeconds();
    updateSnapshotRange(c, 0, kNoCluster);
    return threadCpuSeconds() - t0;
  };
  const double rebuildPlain = rebuildSeconds(plainCtx, false);
  const double rebuildIndexed = rebuildSeconds(ctx, true);
  const FreeExtentList* list = nullptr;
  getSnapshot(ctx, &list);
  const FreeRunIndex* index = list->index();
  const FreeExtentList* plainList = nullptr;
  getSnapshot(plainCtx, &plainList);
  const FreeExtentList& plain = *plainList;
  // Run the same queries both ways, alternating, and keep the answers equal.
  const int kQueries = 64;
  double linear = 0, indexed = 0;
  uint64_t mismatches = 0, sink = 0;
  for (auto _ : state) {
    std::vector<std::pair<uint64_t, uint64_t>> q(kQueries);
    for (auto& x : q) x = {1 + rng() % 80, starts[rng() % starts.size()]};
    double a = threadCpuSeconds();
    for (const auto& x : q) {
      sink += findBestFit(plain, x.first, kNoCluster) + findFirstFit(plain, x.first) +
              getFreeRunLengthAt(plain, x.second) + getFreeRunLengthEndingAt(plain, x.second);
    }
    double b = threadCpuSeconds();
    for (const auto& x : q) {
      uint64_t s = findBestFit(*list, x.first, kNoCluster) + findFirstFit(*list, x.first) +
                   getFreeRunLengthAt(*list, x.second) + getFreeRunLengthEndingAt(*list, x.second);
      sink -= s;
    }
    double c = threadCpuSeconds();
    linear += b - a;
    indexed += c - b;
  }
  mismatches = sink;  // every answer of the index cancels the linear one
  benchmark::DoNotOptimize(sink);
  const double queries = static_cast<double>(state.iterations()) * kQueries * 4;
  state.counters["free_runs"] = static_cast<double>(list->size());
  state.counters["linear_ns_per_query"] = linear / queries * 1e9;
  state.counters["indexed_ns_per_query"] = indexed / queries * 1e9;
  state.counters["speedup"] = linear / indexed;
  state.counters["mismatch"] = static_cast<double>(mismatches != 0);
  state.counters["index_bytes_per_run"] = static_cast<double>(index->memoryBytes()) / static_cast<double>(list->size());
  state.counters["rebuild_s"] = rebuildIndexed;
  state.counters["rebuild_cost_ratio"] = rebuildIndexed / rebuildPlain;
}
BENCHMARK(BM_Searches)->Arg(10000)->Arg(100000)->Arg(1000000)->Iterations(20)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace glidewell

BENCHMARK_MAIN();
