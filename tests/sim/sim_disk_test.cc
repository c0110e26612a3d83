// The simulated disk as users change it: allocation, errors that change
// nothing, compression units, the no-data-loss check and change records.
#include "sim/sim_disk.h"

#include <gtest/gtest.h>

#include <cstring>

#include "platform/text.h"
#include "support/sim_support.h"

namespace glidewell {
namespace {

using simtest::makeDisk;
using simtest::runsOf;

TEST(SimDiskTest, FilesGrowInPlaceUntilBlockedThenFragmentAndSmallFilesStayResident) {
  auto disk = makeDisk(1000);
  ASSERT_EQ(disk->createFile(L"a", 10 * 4096), 0u);
  ASSERT_EQ(disk->appendFile(L"a", 5 * 4096), 0u);  // nothing after it yet: grows in place
  EXPECT_EQ(runsOf(*disk, L"a").size(), 1u);
  ASSERT_EQ(disk->createFile(L"b", 4096), 0u);      // right behind a
  ASSERT_EQ(disk->appendFile(L"a", 4096 + 1), 0u);  // now a must continue elsewhere
  auto runs = runsOf(*disk, L"a");
  ASSERT_EQ(runs.size(), 2u);
  EXPECT_EQ(runs[0].length, 15u);
  EXPECT_EQ(runs[1].vcn, 15u);
  EXPECT_EQ(runs[1].length, 2u);
  EXPECT_NE(runs[1].lcn, runs[0].lcn + 15);
  SimStats stats = disk->stats();
  EXPECT_EQ(stats.files, 2u);
  EXPECT_EQ(stats.fragmentedFiles, 1u);

  // Small files live in their record until they grow.
  uint64_t freeBefore = disk->freeClusters();
  ASSERT_EQ(disk->createFile(L"tiny", 500), 0u);
  EXPECT_TRUE(runsOf(*disk, L"tiny").empty());
  EXPECT_EQ(disk->freeClusters(), freeBefore);
  ASSERT_EQ(disk->appendFile(L"tiny", 4000), 0u);
  EXPECT_EQ(storedClusters(runsOf(*disk, L"tiny")), 2u);
  ASSERT_EQ(disk->truncateFile(L"tiny", 100), 0u);  // stays non-resident
  EXPECT_EQ(storedClusters(runsOf(*disk, L"tiny")), 1u);
  ASSERT_EQ(disk->truncateFile(L"tiny", 0), 0u);
  EXPECT_TRUE(runsOf(*disk, L"tiny").empty());
  EXPECT_EQ(disk->verify(), "");
}

TEST(SimDiskTest, RefusedChangesLeaveTheVolumeAsItWas) {
  auto disk = makeDisk(64);
  ASSERT_EQ(disk->createDirectory(L"dir"), 0u);
  ASSERT_EQ(disk->createFile(L"dir\\Report.TXT", 8192), 0u);
  ASSERT_EQ(disk->createFile(L"keep", 4096 * 20), 0u);
  uint64_t generation = disk->generation();
  std::vector<uint8_t> bitmap = disk->bitmapBytes();

  EXPECT_EQ(disk->createFile(L"missing\\x", 1), static_cast<DWORD>(ERROR_PATH_NOT_FOUND));
  EXPECT_EQ(disk->createFile(L"DIR\\report.txt", 1), static_cast<DWORD>(ERROR_FILE_EXISTS));  // names ignore case
  EXPECT_EQ(disk->createFile(L"dir\\a:b", 1), static_cast<DWORD>(ERROR_INVALID_NAME));
  EXPECT_EQ(disk->createFile(L"huge", 4096ull * 100), static_cast<DWORD>(ERROR_DISK_FULL));
  EXPECT_EQ(disk->appendFile(L"keep", 4096ull * 100), static_cast<DWORD>(ERROR_DISK_FULL));
  EXPECT_EQ(disk->deleteFile(L"dir"), 145u);  // not empty
  EXPECT_EQ(disk->renameFile(L"dir", L"dir\\sub"), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
  EXPECT_EQ(disk->renameFile(L"keep", L"dir\\report.txt"), static_cast<DWORD>(ERROR_ALREADY_EXISTS));
  ASSERT_EQ(disk->setLocked(L"keep", true), 0u);
  EXPECT_EQ(disk->deleteFile(L"keep"), static_cast<DWORD>(ERROR_SHARING_VIOLATION));
  EXPECT_EQ(disk->appendFile(L"keep", 1), static_cast<DWORD>(ERROR_SHARING_VIOLATION));

  EXPECT_EQ(disk->generation(), generation);
  EXPECT_EQ(disk->bitmapBytes(), bitmap);
  SimFileInfo info;
  EXPECT_EQ(disk->fileInfo(L"huge", &info), static_cast<DWORD>(ERROR_FILE_NOT_FOUND));
  EXPECT_EQ(disk->verify(), "");
}

TEST(SimDiskTest, CompressedAndSparseFilesKeepWholeUnitsWithStoredClustersFirst) {
  auto disk = makeDisk(20000);
  for (int i = 0; i < 20; ++i) {
    std::wstring c = L"c" + std::to_wstring(i), s = L"s" + std::to_wstring(i);
    ASSERT_EQ(disk->createFile(c, 4096ull * (37 + 16 * i), FILE_ATTRIBUTE_COMPRESSED), 0u);
    ASSERT_EQ(disk->createFile(s, 4096ull * (40 + 16 * i), FILE_ATTRIBUTE_SPARSE_FILE), 0u);
    ASSERT_EQ(disk->appendFile(c, 4096 * 5), 0u);  // the partial last unit is written again
    ASSERT_EQ(disk->truncateFile(s, 4096ull * (21 + 16 * i)), 0u);
  }
  uint64_t compressedStored = 0, compressedVcns = 0;
  bool sawVirtual = false;
  for (const SimFileInfo& f : disk->listAll()) {
    uint64_t vcns = f.runs.empty() ? 0 : f.runs.back().vcnEnd();
    ASSERT_EQ(vcns, (f.size + 4095) / 4096) << narrow(f.path);
    for (const SimRun& r : f.runs) {
      if (!r.isVirtual()) continue;
      sawVirtual = true;
      // A virtual run fills its unit up to the unit's end (or the file's).
      EXPECT_TRUE(r.vcnEnd() % kCompressionUnit == 0 || r.vcnEnd() == vcns) << narrow(f.path);
      if (f.attributes & FILE_ATTRIBUTE_SPARSE_FILE) {
        EXPECT_EQ(r.vcn % kCompressionUnit, 0u) << "sparse holes are whole units";
      }
    }
    if (f.attributes & FILE_ATTRIBUTE_COMPRESSED) {
      compressedStored += storedClusters(f.runs);
      compressedVcns += vcns;
    }
  }
  EXPECT_TRUE(sawVirtual);
  EXPECT_LT(compressedStored, compressedVcns * 9 / 10);  // compression saves space
  EXPECT_EQ(disk->verify(), "");
}

TEST(SimDiskTest, VerifyNamesTheFileAndClusterWhoseContentChanged) {
  auto disk = makeDisk(500);
  ASSERT_EQ(disk->createDirectory(L"d"), 0u);
  ASSERT_EQ(disk->createFile(L"d\\victim.bin", 4096 * 30), 0u);
  ASSERT_EQ(disk->createFile(L"other", 4096 * 3), 0u);
  ASSERT_EQ(disk->verify(), "");
  ASSERT_EQ(disk->corruptTag(L"d\\victim.bin", 17), 0u);
  std::string problem = disk->verify();
  EXPECT_NE(problem.find("d\\victim.bin"), std::string::npos) << problem;
  EXPECT_NE(problem.find("VCN 17"), std::string::npos) << problem;
  EXPECT_EQ(storedClusters(runsOf(*disk, L"d\\victim.bin")), 30u);  // only the tag changed
  EXPECT_EQ(disk->corruptTag(L"other", 3), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
}

TEST(SimDiskTest, ACloneIsAnIndependentCopyOfTheWholeVolume) {
  auto disk = makeDisk(300);
  ASSERT_EQ(disk->reserveSystemClusters(0, 8), 0u);
  ASSERT_EQ(disk->createDirectory(L"x"), 0u);
  ASSERT_EQ(disk->createFile(L"x\\f", 4096 * 9, FILE_ATTRIBUTE_COMPRESSED), 0u);
  std::unique_ptr<SimDisk> copy = disk->clone();
  ASSERT_EQ(disk->deleteFile(L"x\\f"), 0u);
  EXPECT_EQ(copy->verify(), "");
  EXPECT_EQ(copy->listAll().size(), 2u);
  EXPECT_EQ(copy->systemRanges().size(), 1u);
  EXPECT_NE(copy->bitmapBytes(), disk->bitmapBytes());
  ASSERT_EQ(copy->createFile(L"x\\g", 4096), 0u);  // its allocator works on its own bitmap
  EXPECT_EQ(disk->verify(), "");
  EXPECT_EQ(copy->verify(), "");
}

// One delivered buffer, decoded.
struct Record {
  DWORD action;
  std::wstring path;
};

std::vector<Record> decode(const std::vector<uint8_t>& buffer) {
  std::vector<Record> out;
  size_t at = 0;
  for (;;) {
    DWORD next, action, length;
    std::memcpy(&next, &buffer[at], 4);
    std::memcpy(&action, &buffer[at + 4], 4);
    std::memcpy(&length, &buffer[at + 8], 4);
    std::u16string name(length / 2, u'\0');
    for (size_t i = 0; i < name.size(); ++i) name[i] = static_cast<char16_t>(buffer[at + 12 + 2 * i] | (buffer[at + 13 + 2 * i] << 8));
    out.push_back({action, fromUtf16(name)});
    EXPECT_EQ(next % 4, 0u);
    if (next == 0) break;
    at += next;
  }
  return out;
}

TEST(SimDiskTest, RenameAndDeleteKeepContentAndWatchersGetTheRecordsTheirFilterAsksFor) {
  auto disk = makeDisk(100);
  std::vector<std::vector<Record>> files, dirs;
  uint64_t fileWatcher = disk->addChangeWatcher(kNotifyFileName | kNotifySize,
                                                [&](const std::vector<uint8_t>& b) { files.push_back(decode(b)); });
  disk->addChangeWatcher(kNotifyDirName, [&](const std::vector<uint8_t>& b) { dirs.push_back(decode(b)); });
  ASSERT_EQ(disk->createDirectory(L"docs"), 0u);
  ASSERT_EQ(disk->createFile(L"docs\\a.txt", 5000), 0u);
  ASSERT_EQ(disk->appendFile(L"docs\\a.txt", 10), 0u);
  auto before = runsOf(*disk, L"docs\\a.txt");
  ASSERT_EQ(disk->renameFile(L"docs\\a.txt", L"B.txt"), 0u);
  EXPECT_EQ(runsOf(*disk, L"b.txt"), before);  // same clusters, same content
  ASSERT_EQ(disk->deleteFile(L"b.txt"), 0u);
  EXPECT_EQ(disk->freeClusters(), 100u);
  ASSERT_EQ(disk->deleteFile(L"docs"), 0u);

  ASSERT_EQ(dirs.size(), 2u);
  EXPECT_EQ(dirs[1][0].action, static_cast<DWORD>(FILE_ACTION_REMOVED));
  EXPECT_EQ(dirs[0][0].action, static_cast<DWORD>(FILE_ACTION_ADDED));
  EXPECT_EQ(dirs[0][0].path, L"docs");
  ASSERT_EQ(files.size(), 5u);
  EXPECT_EQ(files[0][0].action, static_cast<DWORD>(FILE_ACTION_ADDED));
  EXPECT_EQ(files[0][0].path, L"docs\\a.txt");
  EXPECT_EQ(files[1][0].action, static_cast<DWORD>(FILE_ACTION_MODIFIED));
  EXPECT_EQ(files[2][0].action, static_cast<DWORD>(FILE_ACTION_MODIFIED));
  ASSERT_EQ(files[3].size(), 2u);  // a rename is one buffer with the old and the new name
  EXPECT_EQ(files[3][0].action, static_cast<DWORD>(FILE_ACTION_RENAMED_OLD_NAME));
  EXPECT_EQ(files[3][0].path, L"docs\\a.txt");
  EXPECT_EQ(files[3][1].action, static_cast<DWORD>(FILE_ACTION_RENAMED_NEW_NAME));
  EXPECT_EQ(files[3][1].path, L"B.txt");
  EXPECT_EQ(files[4][0].action, static_cast<DWORD>(FILE_ACTION_REMOVED));

  disk->removeChangeWatcher(fileWatcher);
  ASSERT_EQ(disk->createFile(L"c", 1), 0u);
  EXPECT_EQ(files.size(), 5u);
}

TEST(SimDiskTest, AWatcherMayChangeTheDiskFromItsCallback) {
  auto disk = makeDisk(100);
  int calls = 0;
  disk->addChangeWatcher(kNotifyFileName, [&](const std::vector<uint8_t>& b) {
    if (++calls == 1) {
      EXPECT_EQ(disk->createFile(L"echo", 1), 0u);  // no deadlock; delivered after
    }
  });
  ASSERT_EQ(disk->createFile(L"first", 1), 0u);
  EXPECT_EQ(calls, 2);
}

}  // namespace
}  // namespace glidewell
