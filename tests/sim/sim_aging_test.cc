// The aging generator: deterministic per seed, realistically fragmented, and
// optionally shaped after a real directory.
#include "sim/sim_aging.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <fstream>

#include "platform/text.h"
#include "support/sim_support.h"
#include "support/temp_dir.h"

namespace glidewell {
namespace {

SimAgingOptions smallVolume(uint64_t seed) {
  SimAgingOptions o;
  o.seed = seed;
  o.totalClusters = 1 << 16;
  o.fillRatio = 0.7;
  o.churnRounds = 4;
  o.compressedShare = 0.05;
  o.sparseShare = 0.03;
  return o;
}

std::unique_ptr<SimDisk> age(const SimAgingOptions& o) {
  std::string error;
  std::unique_ptr<SimDisk> disk = ageDisk(o, &error);
  EXPECT_TRUE(disk) << error;
  return disk;
}

bool sameVolume(const SimDisk& a, const SimDisk& b) {
  auto x = a.listAll(), y = b.listAll();
  if (x.size() != y.size() || a.bitmapBytes() != b.bitmapBytes()) return false;
  for (size_t i = 0; i < x.size(); ++i) {
    if (x[i].path != y[i].path || x[i].size != y[i].size || x[i].runs != y[i].runs) return false;
  }
  return true;
}

TEST(SimAgingTest, AnAgedVolumeIsDeterministicFullAsAskedFragmentedAndConsistent) {
  auto disk = age(smallVolume(3));
  ASSERT_EQ(disk->verify(), "");
  EXPECT_TRUE(sameVolume(*disk, *age(smallVolume(3))));  // the same seed, the same volume
  EXPECT_FALSE(sameVolume(*disk, *age(smallVolume(4))));
  SimStats s = disk->stats();
  double used = 1.0 - static_cast<double>(s.freeClusters) / (1 << 16);
  EXPECT_NEAR(used, 0.7, 0.05);
  EXPECT_GT(s.files, 100u);
  EXPECT_GT(s.directories, 3u);
  EXPECT_GT(s.fragmentedFiles, s.files / 50) << "churn should fragment files";
  EXPECT_GT(s.freeRuns, 20u) << "churn should fragment free space";
  EXPECT_GT(s.systemClusters, 0u);
  int compressed = 0, sparse = 0, small = 0;
  for (const SimFileInfo& f : disk->listAll()) {
    compressed += (f.attributes & FILE_ATTRIBUTE_COMPRESSED) != 0;
    sparse += (f.attributes & FILE_ATTRIBUTE_SPARSE_FILE) != 0;
    small += !(f.attributes & FILE_ATTRIBUTE_DIRECTORY) && f.size < 16 * 1024;
  }
  EXPECT_GT(compressed, 0);
  EXPECT_GT(sparse, 0);
  EXPECT_GT(small, static_cast<int>(s.files / 4)) << "sizes are skewed to small files";
}

TEST(SimAgingTest, LargeVolumesCapTheFileCountAndGrowTheFilesInstead) {
  SimAgingOptions o;
  o.totalClusters = uint64_t{1} << 22;  // 16 GiB
  o.maxFiles = 3000;
  o.churnRounds = 1;
  auto disk = age(o);
  SimStats s = disk->stats();
  EXPECT_LE(s.files, 3000u);
  EXPECT_GT(s.fileClusters, (uint64_t{1} << 22) / 3);
  EXPECT_EQ(disk->verify(), "");
}

TEST(SimAgingTest, ARealDirectoryGivesTheTreeAndTheFileSizes) {
  TempDir dir;
  std::string base = dir.native();
  ASSERT_EQ(::mkdir((base + "/photos").c_str(), 0700), 0);
  ASSERT_EQ(::mkdir((base + "/photos/2023").c_str(), 0700), 0);
  std::ofstream(base + "/photos/2023/beach.jpg") << std::string(300000, 'x');
  std::ofstream(base + "/notes.txt") << "hello";
  SimAgingOptions o = smallVolume(5);
  o.sourceDirectory = base;
  o.churnRounds = 0;
  auto disk = age(o);
  SimFileInfo info;
  ASSERT_EQ(disk->fileInfo(L"photos\\2023\\beach.jpg", &info), 0u);
  EXPECT_EQ(info.size, 300000u);
  ASSERT_EQ(disk->fileInfo(L"notes.txt", &info), 0u);
  EXPECT_EQ(info.size, 5u);
  EXPECT_EQ(disk->verify(), "");
  o.sourceDirectory = base + "/missing";
  std::string error;
  EXPECT_FALSE(ageDisk(o, &error));
  EXPECT_NE(error.find("missing"), std::string::npos);
}

}  // namespace
}  // namespace glidewell
