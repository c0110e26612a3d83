// The extent reader and the free-space snapshot against the simulated disk:
// the replies and bitmaps it produces as NTFS would, and an aged volume whose
// files are moved while the snapshot follows.
#include <gtest/gtest.h>

#include <memory>
#include <random>

#include "engine/dfrg_context.h"
#include "sim/sim_aging.h"
#include "sim/sim_disk.h"
#include "sim/sim_volume_system.h"
#include "volume/dfrg_file.h"
#include "volume/extent_snapshot.h"

namespace glidewell {
namespace {

struct SimVolume {
  explicit SimVolume(std::shared_ptr<SimDisk> d) : disk(std::move(d)) {
    ctx = std::make_unique<CDfrgContext>(std::make_unique<SimVolumeSystem>(disk, L'S'), 0, nullptr);
  }
  explicit SimVolume(uint64_t clusters) : SimVolume(makeDisk(clusters)) {}
  static std::shared_ptr<SimDisk> makeDisk(uint64_t clusters) {
    SimGeometry g;
    g.totalClusters = clusters;
    return std::make_shared<SimDisk>(g);
  }
  bool extents(const std::wstring& name, ExtentList& out) {
    CDfrgFile file(*ctx, name, false);
    return file.getFileExtents(out);
  }
  std::shared_ptr<SimDisk> disk;
  std::unique_ptr<CDfrgContext> ctx;
};

// The extents a file's runs should read as: stored runs, merged when they
// follow each other on disk (virtual runs in between do not part them).
std::vector<ClusterRange> storedPlaces(const std::vector<SimRun>& runs) {
  std::vector<ClusterRange> out;
  for (const SimRun& r : runs) {
    if (r.isVirtual()) continue;
    if (!out.empty() && out.back().end + 1 == r.lcn) {
      out.back().end += r.length;
    } else {
      out.emplace_back(r.lcn, r.lcn + r.length - 1);
    }
  }
  return out;
}

std::vector<ClusterRange> lcnsOf(const ExtentList& extents) {
  std::vector<ClusterRange> out;
  for (const Extent& e : extents) out.push_back(e.lcn);
  return out;
}

TEST(ExtentsOnSimTest, PlainResidentAndCompressedFiles) {
  SimVolume v(20000);
  ASSERT_EQ(v.disk->createFile(L"tiny", 100), 0u);
  ASSERT_EQ(v.disk->createFile(L"plain", 40 * 4096), 0u);
  ASSERT_EQ(v.disk->createFile(L"packed", 40 * 16 * 4096, FILE_ATTRIBUTE_COMPRESSED), 0u);
  ExtentList ext;
  ASSERT_TRUE(v.extents(L"tiny", ext));
  EXPECT_TRUE(ext.empty());

  SimFileInfo info;
  ASSERT_TRUE(v.extents(L"plain", ext));
  v.disk->fileInfo(L"plain", &info);
  EXPECT_EQ(lcnsOf(ext), storedPlaces(info.runs));
  EXPECT_EQ(ext.front().vcn.start, 0u);
  EXPECT_EQ(ext.back().vcn.end, 39u);

  // Compressed: the sim keeps fewer clusters for units that compress, the
  // rest of each such unit is a virtual run.
  ASSERT_TRUE(v.extents(L"packed", ext));
  v.disk->fileInfo(L"packed", &info);
  size_t virtualRuns = 0;
  for (const SimRun& r : info.runs) virtualRuns += r.isVirtual();
  ASSERT_GT(virtualRuns, 0u) << "the file should alternate stored and virtual runs";
  EXPECT_EQ(lcnsOf(ext), storedPlaces(info.runs));
  uint64_t nextVcn = 0;
  for (const Extent& e : ext) {
    EXPECT_EQ(e.vcn.start, nextVcn);
    nextVcn = e.vcn.end + 1;
    uint64_t vcns = 0, lcns = 0;
    for (const SubRun& s : e.subRuns()) {
      EXPECT_LE(s.lcnCount, s.vcnCount);
      vcns += s.vcnCount;
      lcns += s.lcnCount;
    }
    EXPECT_EQ(vcns, e.vcn.length());
    EXPECT_EQ(lcns, e.lcn.length());
  }
  EXPECT_EQ(nextVcn, 40u * 16);
}

TEST(ExtentsOnSimTest, SparseFileStartingWithAHoleIsRefused) {
  SimVolume v(1000);
  SimRun hole{0, kNoCluster, 16, 0}, data{16, 100, 16, 0};
  ASSERT_EQ(v.disk->placeFile(L"sparse", FILE_ATTRIBUTE_SPARSE_FILE, 32 * 4096, {hole, data}), 0u);
  ExtentList ext;
  EXPECT_FALSE(v.extents(L"sparse", ext));
}

TEST(ExtentsOnSimTest, RunContinuingAcrossRepliesStartsANewExtent) {
  // 300 runs with gaps between them, except that run 256 continues run 255
  // on disk; the first reply ends after 256 runs.
  SimVolume v(5000);
  std::vector<SimRun> runs;
  uint64_t lcn = 1000;
  for (uint64_t i = 0; i < 300; ++i) {
    lcn += i == 256 ? 1 : 2;
    runs.push_back(SimRun{i, lcn, 1, 0});
  }
  ASSERT_EQ(v.disk->placeFile(L"many", 0, 300 * 4096, runs, {256}), 0u);
  ExtentList ext;
  ASSERT_TRUE(v.extents(L"many", ext));
  ASSERT_EQ(ext.size(), 300u);
  EXPECT_EQ(ext[255].lcn.end + 1, ext[256].lcn.start);
  EXPECT_EQ(ext[256].vcn, ClusterRange(256, 256));
}

std::vector<ClusterRange> freeRuns(const SimDisk& disk) {
  std::vector<uint8_t> bits = disk.bitmapBytes();
  std::vector<ClusterRange> out;
  for (uint64_t c = 0; c < disk.totalClusters(); ++c) {
    if ((bits[c / 8] >> (c % 8)) & 1) continue;
    if (!out.empty() && out.back().end + 1 == c) {
      out.back().end = c;
    } else {
      out.emplace_back(c, c);
    }
  }
  return out;
}

std::vector<ClusterRange> snapshotOf(CDfrgContext& ctx) {
  const FreeExtentList* list = nullptr;
  EXPECT_TRUE(getSnapshot(ctx, &list));
  return std::vector<ClusterRange>(list->begin(), list->end());
}

TEST(ExtentsOnSimTest, SnapshotFollowsMovesOnAnAgedVolume) {
  SimAgingOptions options;
  options.seed = 7;
  options.totalClusters = 150000;  // three bitmap replies
  options.maxFiles = 600;
  std::string error;
  std::shared_ptr<SimDisk> disk = ageDisk(options, &error);
  ASSERT_TRUE(disk) << error;
  SimVolume v(disk);
  ASSERT_TRUE(makeExtentSnapshot(*v.ctx));
  v.ctx->snapshot->buildTimeMs = 0xFFFFFFFFu;  // no rebuild fallback: test the incremental path
  ASSERT_EQ(snapshotOf(*v.ctx), freeRuns(*disk));

  std::vector<SimFileInfo> files;
  for (SimFileInfo& f : disk->listAll()) {
    bool plain = (f.attributes & (FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_COMPRESSED | FILE_ATTRIBUTE_SPARSE_FILE |
                                  FILE_ATTRIBUTE_REPARSE_POINT | FILE_ATTRIBUTE_ENCRYPTED)) == 0;
    if (plain && !f.runs.empty()) files.push_back(f);
  }
  ASSERT_GT(files.size(), 50u);
  std::mt19937 rng(11);
  int moved = 0;
  for (int step = 0; step < 200; ++step) {
    const SimFileInfo& f = files[rng() % files.size()];
    CDfrgFile file(*v.ctx, f.path, false);
    ExtentList before;
    if (!file.getFileExtents(before) || before.empty()) continue;
    uint64_t clusters = before.back().vcn.end + 1;
    // A free run from the snapshot that holds the whole file, as the movers choose.
    std::vector<ClusterRange> fits;
    for (const ClusterRange& r : snapshotOf(*v.ctx)) {
      if (r.length() >= clusters) fits.push_back(r);
    }
    if (fits.empty()) continue;
    uint64_t target = fits[rng() % fits.size()].start;
    MOVE_FILE_DATA move{};
    move.FileHandle = file.handle();
    move.StartingVcn.QuadPart = 0;
    move.StartingLcn.QuadPart = static_cast<int64_t>(target);
    move.ClusterCount = static_cast<DWORD>(clusters);
    ASSERT_TRUE(v.ctx->volume().moveFile(&move)) << GetLastError();
    ++moved;
    ExtentList touched = before;
    touched.emplace_back(ClusterRange(0, clusters - 1), ClusterRange(target, target + clusters - 1));
    ASSERT_TRUE(updateSnapshotExt(*v.ctx, touched));
    ASSERT_EQ(snapshotOf(*v.ctx), freeRuns(*disk)) << "after move " << moved;
  }
  EXPECT_GT(moved, 100);
  EXPECT_EQ(disk->verify(), "");
}

}  // namespace
}  // namespace glidewell
