// Measuring a drive through the engine's volume interface: catches free
// space, pieces or counts that differ from what the disk itself holds, and
// files that cannot be opened counted as whole.
#include <gtest/gtest.h>

#include "cli/volume_scan.h"
#include "sim/sim_aging.h"
#include "sim/sim_volume_system.h"

namespace glidewell {
namespace {

TEST(VolumeScan, AgreesWithTheDiskAndCountsFilesItCannotRead) {
  SimAgingOptions o;
  o.seed = 17;
  o.totalClusters = 1u << 15;
  o.fillRatio = 0.7;
  std::string error;
  std::shared_ptr<SimDisk> disk = ageDisk(o, &error);
  ASSERT_NE(disk, nullptr) << error;
  SimStats s = disk->stats();
  ASSERT_GT(s.fragmentedFiles, 0u);

  // Like the engine, the walk leaves junctions and what they lead to alone.
  uint64_t files = 0, directories = 0;
  std::vector<std::wstring> junctions;
  for (const SimFileInfo& file : disk->listAll()) {
    bool skipped = (file.attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0;
    for (const std::wstring& j : junctions) skipped = skipped || file.path.rfind(j + L"\\", 0) == 0;
    if ((file.attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0) junctions.push_back(file.path);
    if (skipped) continue;
    ((file.attributes & FILE_ATTRIBUTE_DIRECTORY) != 0 ? directories : files) += 1;
  }

  DriveFigures f = measureVolume(std::make_unique<SimVolumeSystem>(disk, L'D'));
  EXPECT_EQ(f.letter, L'D');
  EXPECT_EQ(f.totalClusters, disk->totalClusters());
  EXPECT_EQ(f.files, files);
  EXPECT_EQ(f.directories, directories);
  EXPECT_EQ(f.fragmentedFiles, s.fragmentedFiles);
  EXPECT_EQ(f.fragments, s.fragments);
  EXPECT_EQ(f.freeClusters, s.freeClusters);
  EXPECT_EQ(f.freeRuns, s.freeRuns);
  EXPECT_EQ(f.largestFreeRun, s.largestFreeRun);
  EXPECT_EQ(f.unreadable, 0u);

  std::wstring locked;
  for (const SimFileInfo& file : disk->listAll()) {
    if ((file.attributes & FILE_ATTRIBUTE_DIRECTORY) == 0) locked = file.path;
  }
  ASSERT_EQ(disk->setLocked(locked, true), 0u);
  DriveFigures again = measureVolume(std::make_unique<SimVolumeSystem>(disk, L'D'));
  EXPECT_EQ(again.files, files);
  EXPECT_EQ(again.unreadable, 1u);
}

}  // namespace
}  // namespace glidewell
