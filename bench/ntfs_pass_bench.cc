// One engine pass over an aged 1 GiB NTFS image against the plain cost of the
// data it moves: the same clusters read from where they were and written to
// where the pass put them, with pread/pwrite on the same image and one fsync.
// Each timing starts after sync(), with nothing of the other's or of the
// aging's left to write back.
//
// The image is made with mkntfs and aged through libntfs-3g (the NTFS test
// helpers); the pass runs in this process through the host's NTFS runner.
// Both timings are wall-clock, taken in one run, on the same image file.
//
// Figures: pass_s, copy_s, moved_clusters, ratio = pass_s / copy_s (the
// target is 2 or less: the engine's own work is small beside the data).
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <map>
#include <vector>

#include "cli/ntfs_drive.h"
#include "ntfs/ntfs_volume.h"
#include "support/temp_dir.h"
#include "ntfs/ntfs_image_builder.h"

namespace glidewell {
namespace {

using Layout = std::map<uint64_t, std::vector<NtfsRun>>;  // stored runs by MFT record

Layout layoutOf(const std::string& image) {
  std::string error;
  std::unique_ptr<NtfsVolume> v = NtfsVolume::open(image, &error);
  Layout layout;
  if (!v) return layout;
  std::function<void(uint64_t)> walk = [&](uint64_t dir) {
    std::vector<NtfsName> names;
    v->listNames(dir, &names);
    for (const NtfsName& n : names) {
      NtfsFileInfo info;
      if (v->fileInfo(n.mftNo, &info) != kNtfsOk || (info.attributes & kNtfsAttrReparse)) continue;
      if (info.directory) {
        walk(n.mftNo);
        continue;
      }
      NtfsStreamMap map;
      if (v->streamMap(n.mftNo, &map) == kNtfsOk) layout[n.mftNo] = map.runs;
    }
  };
  walk(NtfsVolume::kRootMft);
  return layout;
}

int64_t lcnAt(const std::vector<NtfsRun>& runs, int64_t vcn) {
  for (const NtfsRun& r : runs) {
    if (vcn >= r.vcn && vcn < r.vcn + r.length) return r.lcn < 0 ? -1 : r.lcn + (vcn - r.vcn);
  }
  return -1;
}

double secondsSince(std::chrono::steady_clock::time_point t) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - t).count();
}

void BM_NtfsPassAgainstCopy(benchmark::State& state) {
  TempDir dir;
  const std::string image = dir.file("aged.img"), pristine = dir.file("pristine.img");
  if (!ntfstest::makeImage(image, uint64_t{1} << 30, "Bench").empty()) return state.SkipWithError("mkntfs failed");
  ntfstest::AgingPlan plan;
  plan.seed = 5;
  plan.directories = 16;
  plan.files = 3000;
  plan.rounds = 8;
  plan.appendClusters = 4;
  plan.largeFiles = 4;
  plan.largeClusters = 8192;
  std::string error = ntfstest::ageImage(image, plan);
  if (!error.empty()) return state.SkipWithError(error.c_str());
  if (std::system(("cp --sparse=always '" + image + "' '" + pristine + "'").c_str()) != 0) {
    return state.SkipWithError("cannot copy the image");
  }
  const uint32_t cluster = 4096;
  for (auto _ : state) {
    Layout before = layoutOf(image);
    NtfsPassSettings settings;
    settings.volumes = {image};
    settings.installDir = dir.native() + "/";
    // Both timings start with nothing dirty in the page cache, so that
    // neither pays for writing back what the aging (or the other) wrote.
    ::sync();
    auto start = std::chrono::steady_clock::now();
    NtfsPassOutcome outcome = runNtfsPass(settings);
    double passSeconds = secondsSince(start);
    Layout after = layoutOf(image);

    // The clusters that moved, as (from, to) pairs in VCN order.
    std::vector<std::pair<int64_t, int64_t>> moved;
    for (const auto& [mft, runs] : after) {
      auto old = before.find(mft);
      if (old == before.end()) continue;
      for (const NtfsRun& r : runs) {
        for (int64_t vcn = r.vcn; r.lcn >= 0 && vcn < r.vcn + r.length; ++vcn) {
          int64_t from = lcnAt(old->second, vcn), to = r.lcn + (vcn - r.vcn);
          if (from >= 0 && from != to) moved.emplace_back(from, to);
        }
      }
    }
    // The same data copied once on the untouched image, merged into runs.
    int fd = ::open(pristine.c_str(), O_RDWR);
    std::vector<uint8_t> buffer(1 << 20);
    ::sync();
    start = std::chrono::steady_clock::now();
    for (size_t i = 0; i < moved.size();) {
      size_t j = i + 1;
      while (j < moved.size() && j - i < buffer.size() / cluster && moved[j].first == moved[j - 1].first + 1 &&
             moved[j].second == moved[j - 1].second + 1) {
        ++j;
      }
      size_t bytes = (j - i) * cluster;
      if (::pread(fd, buffer.data(), bytes, moved[i].first * cluster) != static_cast<ssize_t>(bytes) ||
          ::pwrite(fd, buffer.data(), bytes, moved[i].second * cluster) != static_cast<ssize_t>(bytes)) {
        state.SkipWithError("copy failed");
        break;
      }
      i = j;
    }
    ::fsync(fd);
    double copySeconds = secondsSince(start);
    ::close(fd);

    state.counters["fragmented_before"] = static_cast<double>(outcome.before[0].fragmentedFiles);
    state.counters["fragmented_after"] = static_cast<double>(outcome.after[0].fragmentedFiles);
    state.counters["free_runs_before"] = static_cast<double>(outcome.before[0].freeRuns);
    state.counters["free_runs_after"] = static_cast<double>(outcome.after[0].freeRuns);
    state.counters["moved_clusters"] = static_cast<double>(moved.size());
    state.counters["pass_s"] = passSeconds;
    state.counters["copy_s"] = copySeconds;
    state.counters["ratio"] = copySeconds > 0 ? passSeconds / copySeconds : 0;
  }
}
BENCHMARK(BM_NtfsPassAgainstCopy)->Iterations(1)->Unit(benchmark::kSecond);

}  // namespace
}  // namespace glidewell

BENCHMARK_MAIN();
