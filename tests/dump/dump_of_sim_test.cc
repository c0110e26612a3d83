// A dump of a simulated disk read back: the same bitmap, the same files in
// walk order with the same cluster ranges; locked files without extents and
// reparse points left out. (Junctions, reparse directories with contents, are
// covered against the small in-memory volume in volume_dump_test.cc.)
#include <gtest/gtest.h>

#include <cstdio>
#include <memory>

#include "dump/volume_dump.h"
#include "dump/volume_dump_reader.h"
#include "engine/dfrg_context.h"
#include "sim/sim_aging.h"
#include "sim/sim_disk.h"
#include "sim/sim_volume_system.h"

namespace glidewell {
namespace {

VolumeDumpRecord dumpAndRead(const std::shared_ptr<SimDisk>& disk) {
  CDfrgContext ctx(std::make_unique<SimVolumeSystem>(disk, L'D'), 0, nullptr);
  std::FILE* f = std::tmpfile();
  writeVolumeDump(f, &ctx);
  std::rewind(f);
  std::vector<VolumeDumpRecord> records = readVolumeDump(f);
  std::fclose(f);
  EXPECT_EQ(records.size(), 1u);
  return records.at(0);
}

bool under(const std::wstring& path, const std::wstring& dir) {
  return path.size() > dir.size() && path.compare(0, dir.size(), dir) == 0 && path[dir.size()] == L'\\';
}

TEST(DumpOfSimTest, AgedDiskReadsBackAsItIs) {
  SimAgingOptions options;
  options.seed = 3;
  options.totalClusters = 50003;  // not a multiple of 8
  options.maxFiles = 400;
  std::string error;
  std::shared_ptr<SimDisk> disk = ageDisk(options, &error);
  ASSERT_TRUE(disk) << error;
  ASSERT_EQ(disk->createFile(L"symlink", 0, FILE_ATTRIBUTE_REPARSE_POINT), 0u);
  std::vector<SimFileInfo> all = disk->listAll();

  // What the walk should list: no reparse point, nothing below one.
  std::vector<SimFileInfo> expected;
  std::vector<std::wstring> skippedDirs;
  std::wstring locked;
  size_t reparse = 0;
  for (const SimFileInfo& f : all) {
    bool below = false;
    for (const std::wstring& d : skippedDirs) below = below || under(f.path, d);
    if (below) continue;
    if (f.attributes & FILE_ATTRIBUTE_REPARSE_POINT) {
      ++reparse;
      if (f.attributes & FILE_ATTRIBUTE_DIRECTORY) skippedDirs.push_back(f.path);
      continue;
    }
    if (locked.empty() && !f.runs.empty() && !(f.attributes & FILE_ATTRIBUTE_DIRECTORY)) locked = f.path;
    expected.push_back(f);
  }
  ASSERT_GT(reparse, 0u);
  ASSERT_FALSE(locked.empty());
  ASSERT_EQ(disk->setLocked(locked, true), 0u);

  VolumeDumpRecord r = dumpAndRead(disk);
  EXPECT_EQ(r.driveLetter, L'D');
  EXPECT_EQ(r.label, L"Aged");
  EXPECT_EQ(r.totalClusters, 50003u);
  std::vector<uint8_t> bits = disk->bitmapBytes();
  EXPECT_EQ(r.bitmap, std::vector<uint8_t>(bits.begin(), bits.begin() + 50003 / 8));

  ASSERT_EQ(r.entries.size(), expected.size());
  for (size_t i = 0; i < expected.size(); ++i) {
    const SimFileInfo& f = expected[i];
    const VolumeDumpEntry& e = r.entries[i];
    ASSERT_EQ(e.path, f.path) << i;
    EXPECT_EQ(e.isDirectory, (f.attributes & FILE_ATTRIBUTE_DIRECTORY) != 0) << f.path;
    std::vector<ClusterRange> places;
    // A map that begins with a virtual run is not read (no extents).
    if (f.path != locked && !f.runs.empty() && !f.runs.front().isVirtual()) {
      for (const SimRun& run : f.runs) {
        if (run.isVirtual()) continue;
        if (!places.empty() && places.back().end + 1 == run.lcn) {
          places.back().end += run.length;
        } else {
          places.emplace_back(run.lcn, run.lcn + run.length - 1);
        }
      }
    }
    EXPECT_EQ(e.extents, places) << f.path;
  }
}

TEST(DumpOfSimTest, EmptyRootHasNoEntries) {
  SimGeometry g;
  g.totalClusters = 77;
  VolumeDumpRecord r = dumpAndRead(std::make_shared<SimDisk>(g));
  EXPECT_TRUE(r.entries.empty());
  EXPECT_EQ(r.bitmap.size(), 9u);
}

}  // namespace
}  // namespace glidewell
