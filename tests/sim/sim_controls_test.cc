// The controls of the simulated disk as the engine reaches them through
// SimVolumeSystem: bitmap and retrieval-pointer replies, moves, opens,
// directory listings and injected faults.
#include "sim/sim_volume_system.h"

#include <gtest/gtest.h>

#include <cstring>

#include "engine/dfrg_exception.h"
#include "platform/text.h"
#include "support/sim_support.h"

namespace glidewell {
namespace {

using simtest::contextOver;
using simtest::engineExtents;
using simtest::makeDisk;
using simtest::runsOf;

int64_t get64(const std::vector<uint8_t>& b, size_t at) {
  int64_t v;
  std::memcpy(&v, &b[at], 8);
  return v;
}

// A disk with a file "f" made of n one-cluster runs with a used cluster
// between each two (so no two runs merge).
std::shared_ptr<SimDisk> diskWithFragmentedFile(uint64_t runs) {
  auto disk = makeDisk(4 * runs + 100);
  std::vector<SimRun> layout;
  for (uint64_t i = 0; i < runs; ++i) layout.push_back(SimRun{i, 10 + 2 * i, 1, 0});
  EXPECT_EQ(disk->placeFile(L"f", 0, runs * 4096, layout), 0u);
  for (uint64_t i = 0; i < runs; ++i) disk->reserveSystemClusters(11 + 2 * i, 1);
  return disk;
}

class SimControlsTest : public ::testing::Test {
 protected:
  SimControlsTest() : disk(makeDisk(100000)), volume(disk, L'S') {}

  HANDLE open(const std::wstring& path, DWORD access = FILE_READ_ATTRIBUTES, DWORD flags = 0) {
    return volume.createFile(path, access, 7, nullptr, OPEN_EXISTING, flags, nullptr);
  }
  DWORD move(HANDLE file, int64_t vcn, int64_t lcn, DWORD count) {
    MOVE_FILE_DATA m{};
    m.FileHandle = file;
    m.StartingVcn.QuadPart = vcn;
    m.StartingLcn.QuadPart = lcn;
    m.ClusterCount = count;
    return volume.moveFile(&m) ? 0 : GetLastError();
  }
  DWORD openError(const std::wstring& path, DWORD flags = 0) {
    HANDLE h = open(path, FILE_READ_ATTRIBUTES, flags);
    if (h == INVALID_HANDLE_VALUE) return GetLastError();
    volume.closeHandle(h);
    return 0;
  }

  std::shared_ptr<SimDisk> disk;
  SimVolumeSystem volume;
};

TEST_F(SimControlsTest, BitmapRepliesStartAtAWholeByteSayWhenMoreFollowsAndFailWhereInjected) {
  ASSERT_EQ(disk->reserveSystemClusters(0, 21), 0u);
  std::vector<uint8_t> buffer(16 + 100);
  int64_t start = 13;
  DWORD returned = 0;
  EXPECT_FALSE(volume.getVolumeBitmapChunk(&start, buffer.data(), static_cast<DWORD>(buffer.size()), &returned));
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_MORE_DATA));
  EXPECT_EQ(returned, buffer.size());
  EXPECT_EQ(get64(buffer, 0), 8);             // rounded down
  EXPECT_EQ(get64(buffer, 8), 100000 - 8);    // clusters from there to the end
  EXPECT_EQ(buffer[16], 0xFF);                // clusters 8..15
  EXPECT_EQ(buffer[17], 0x1F);                // 16..20 used, 21.. free

  start = 99990;  // the last reply fits
  ASSERT_TRUE(volume.getVolumeBitmapChunk(&start, buffer.data(), static_cast<DWORD>(buffer.size()), &returned));
  EXPECT_EQ(get64(buffer, 0), 99984);
  EXPECT_EQ(returned, 16u + 2u);
  start = 100000;
  EXPECT_FALSE(volume.getVolumeBitmapChunk(&start, buffer.data(), static_cast<DWORD>(buffer.size()), &returned));
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));

  std::unique_ptr<uint8_t[]> whole;
  ASSERT_TRUE(volume.getVolumeBitmap(&whole));
  EXPECT_EQ(std::vector<uint8_t>(whole.get(), whole.get() + 12500), disk->bitmapBytes());

  ASSERT_EQ(disk->reserveSystemClusters(80000, 10), 0u);
  disk->failBitmapFrom(72000, ERROR_READ_FAULT);
  start = 72000;
  EXPECT_FALSE(volume.getVolumeBitmapChunk(&start, buffer.data(), static_cast<DWORD>(buffer.size()), &returned));
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_READ_FAULT));
  std::unique_ptr<uint8_t[]> partial;
  ASSERT_TRUE(volume.getVolumeBitmap(&partial));  // like Windows: true, the rest unread
  EXPECT_EQ(partial[0], 0xFF);
  EXPECT_EQ(partial[10000], 0);
}

TEST(SimRetrievalTest, MoreThan256RunsArriveInSeveralRepliesAndTheEngineReadsThemAll) {
  auto disk = diskWithFragmentedFile(300);
  SimVolumeSystem volume(disk, L'S');
  HANDLE f = volume.createFile(L"S:\\f", FILE_READ_ATTRIBUTES, 7, nullptr, OPEN_EXISTING, 0, nullptr);
  ASSERT_NE(f, INVALID_HANDLE_VALUE);
  std::vector<uint8_t> reply(4112);
  int64_t vcn = 300;
  DWORD returned = 0;
  EXPECT_FALSE(volume.getRetrievalPointers(f, &vcn, reply.data(), 4112, &returned));
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_HANDLE_EOF));
  volume.closeHandle(f);

  auto ctx = contextOver(disk);
  ExtentList extents;
  ASSERT_TRUE(engineExtents(*ctx, L"f", &extents));
  ASSERT_EQ(extents.size(), 300u);
  EXPECT_EQ(extents[255].lcn, ClusterRange(520, 520));  // the last of the first reply
  EXPECT_EQ(extents[256].vcn, ClusterRange(256, 256));  // the first of the second
  EXPECT_EQ(extents[299].lcn, ClusterRange(608, 608));
}

TEST(SimRetrievalTest, ResidentCompressedAndSparseFilesLookToTheEngineAsOnNtfs) {
  auto disk = makeDisk(5000);
  ASSERT_EQ(disk->createFile(L"small.ini", 300), 0u);
  // Units: 5 stored + 11 virtual, 16 stored, 3 stored + 13 virtual, all adjacent on disk.
  ASSERT_EQ(disk->placeFile(L"packed", FILE_ATTRIBUTE_COMPRESSED, 48 * 4096,
                            {{0, 100, 5, 0}, {5, kNoCluster, 11, 0}, {16, 105, 16, 0}, {32, 121, 3, 0},
                             {35, kNoCluster, 13, 0}}),
            0u);
  ASSERT_EQ(disk->placeFile(L"holey", FILE_ATTRIBUTE_SPARSE_FILE, 32 * 4096,
                            {{0, kNoCluster, 16, 0}, {16, 300, 16, 0}}),
            0u);
  auto ctx = contextOver(disk);
  ExtentList extents;
  EXPECT_TRUE(engineExtents(*ctx, L"small.ini", &extents));
  EXPECT_TRUE(extents.empty());
  ASSERT_TRUE(engineExtents(*ctx, L"packed", &extents));
  ASSERT_EQ(extents.size(), 1u);
  EXPECT_EQ(extents[0].vcn, ClusterRange(0, 47));
  EXPECT_EQ(extents[0].lcn, ClusterRange(100, 123));
  // The second and third units lie together on disk: one run of 19 clusters.
  EXPECT_EQ(extents[0].subRuns(), (std::vector<SubRun>{{16, 5}, {32, 19}}));
  EXPECT_FALSE(engineExtents(*ctx, L"holey", &extents));  // a map may not begin with a hole
  EXPECT_EQ(disk->verify(), "");
}

TEST(SimRetrievalTest, ARecordBreakEndsAReplySoAdjacentRunsStayTwoExtents) {
  auto disk = makeDisk(1000);
  ASSERT_EQ(disk->placeFile(L"split", 0, 30 * 4096, {{0, 100, 10, 0}, {10, 110, 20, 0}}, {10}), 0u);
  ASSERT_EQ(disk->placeFile(L"whole", 0, 30 * 4096, {{0, 200, 10, 0}, {10, 210, 20, 0}}), 0u);
  auto ctx = contextOver(disk);
  ExtentList extents;
  ASSERT_TRUE(engineExtents(*ctx, L"split", &extents));
  ASSERT_EQ(extents.size(), 2u);
  EXPECT_EQ(extents[1].lcn, ClusterRange(110, 129));
  ASSERT_TRUE(engineExtents(*ctx, L"whole", &extents));
  EXPECT_EQ(extents.size(), 1u);
}

TEST_F(SimControlsTest, AMoveToClustersThatAreNotFreeFailsAndChangesNothing) {
  ASSERT_EQ(disk->createFile(L"a", 4096 * 20), 0u);
  ASSERT_EQ(disk->createFile(L"b", 4096 * 20), 0u);
  ASSERT_EQ(disk->reserveSystemClusters(5000, 10), 0u);
  auto runsA = runsOf(*disk, L"a");
  auto bitmap = disk->bitmapBytes();
  HANDLE a = open(L"S:\\a");
  ASSERT_NE(a, INVALID_HANDLE_VALUE);
  const uint64_t bStart = runsOf(*disk, L"b")[0].lcn;
  EXPECT_EQ(move(a, 0, static_cast<int64_t>(bStart) + 19, 5), static_cast<DWORD>(ERROR_INVALID_PARAMETER));  // over b's end
  EXPECT_EQ(move(a, 0, 4995, 10), static_cast<DWORD>(ERROR_INVALID_PARAMETER));    // over file-system clusters
  EXPECT_EQ(move(a, 0, 99995, 10), static_cast<DWORD>(ERROR_INVALID_PARAMETER));   // past the end
  EXPECT_EQ(move(a, 5, static_cast<int64_t>(runsA[0].lcn) + 10, 5), static_cast<DWORD>(ERROR_INVALID_PARAMETER));  // onto itself
  EXPECT_EQ(move(a, 20, 9000, 1), static_cast<DWORD>(ERROR_INVALID_PARAMETER));    // past the file
  EXPECT_EQ(runsOf(*disk, L"a"), runsA);
  EXPECT_EQ(disk->bitmapBytes(), bitmap);

  ASSERT_EQ(move(a, 5, 9000, 10), 0u);  // the middle of the file
  auto runs = runsOf(*disk, L"a");
  ASSERT_EQ(runs.size(), 3u);
  EXPECT_EQ(runs[1].lcn, 9000u);
  EXPECT_EQ(runs[1].vcn, 5u);
  EXPECT_EQ(disk->verify(), "");
  EXPECT_EQ(move(a, 0, 9000 - 5, 20), static_cast<DWORD>(ERROR_INVALID_PARAMETER));  // over its own clusters
  ASSERT_EQ(move(a, 0, 20000, 20), 0u);  // back together
  EXPECT_EQ(runsOf(*disk, L"a"), (std::vector<SimRun>{{0, 20000, 20, runsA[0].tag}}));
  EXPECT_EQ(disk->verify(), "");
  volume.closeHandle(a);
}

TEST_F(SimControlsTest, CompressedFilesMoveOnlyInWholeUnitsAndNeedRoomOnlyForStoredClusters) {
  ASSERT_EQ(disk->placeFile(L"c", FILE_ATTRIBUTE_COMPRESSED, 40 * 4096,
                            {{0, 100, 4, 0}, {4, kNoCluster, 12, 0}, {16, 200, 16, 0}, {32, 300, 8, 0}}),
            0u);
  ASSERT_EQ(disk->reserveSystemClusters(506, 1), 0u);
  HANDLE c = open(L"S:\\c");
  EXPECT_EQ(move(c, 8, 1000, 16), static_cast<DWORD>(ERROR_INVALID_PARAMETER));   // starts inside a unit
  EXPECT_EQ(move(c, 0, 1000, 20), static_cast<DWORD>(ERROR_INVALID_PARAMETER));   // ends inside a unit
  EXPECT_EQ(move(c, 0, 500, 32), static_cast<DWORD>(ERROR_INVALID_PARAMETER));    // 20 stored, 506 is taken
  ASSERT_EQ(move(c, 0, 486, 32), 0u);  // 20 stored clusters fit in 486..505
  ASSERT_EQ(move(c, 32, 506 - 26, 100), static_cast<DWORD>(ERROR_INVALID_PARAMETER));  // taken by the move before
  ASSERT_EQ(move(c, 32, 2000, 100), 0u);  // the last, partial unit may end at the file's end
  auto runs = runsOf(*disk, L"c");
  EXPECT_EQ(runs[0].lcn, 486u);
  EXPECT_EQ(runs[2].lcn, 490u);  // the second unit follows the first on disk now
  EXPECT_EQ(runs[1].lcn, kNoCluster);
  EXPECT_EQ(disk->verify(), "");
  volume.closeHandle(c);
}

TEST_F(SimControlsTest, MovesFailAfterTheInjectedCountOnClosedHandlesAndOnEncryptedFilesWithoutDataAccess) {
  ASSERT_EQ(disk->createFile(L"f", 4096 * 4), 0u);
  HANDLE f = open(L"S:\\f");
  disk->failMoves(2, ERROR_ACCESS_DENIED, 1);
  EXPECT_EQ(move(f, 0, 5000, 4), 0u);
  EXPECT_EQ(move(f, 0, 6000, 4), static_cast<DWORD>(ERROR_ACCESS_DENIED));
  EXPECT_EQ(move(f, 0, 6000, 4), static_cast<DWORD>(ERROR_ACCESS_DENIED));
  EXPECT_EQ(runsOf(*disk, L"f")[0].lcn, 5000u);
  EXPECT_EQ(move(f, 0, 6000, 4), 0u);
  volume.closeHandle(f);
  EXPECT_EQ(move(f, 0, 7000, 4), static_cast<DWORD>(ERROR_INVALID_HANDLE));

  // Encrypted files move only through handles that may read their data.
  ASSERT_EQ(disk->createFile(L"secret", 4096 * 4, FILE_ATTRIBUTE_ENCRYPTED), 0u);
  HANDLE attrsOnly = open(L"S:\\secret");
  HANDLE withData = open(L"S:\\secret", FILE_READ_ATTRIBUTES | FILE_READ_DATA);
  EXPECT_EQ(move(attrsOnly, 0, 8000, 4), static_cast<DWORD>(ERROR_ACCESS_DENIED));
  EXPECT_EQ(move(withData, 0, 8000, 4), 0u);
  volume.closeHandle(attrsOnly);
  volume.closeHandle(withData);
}

TEST_F(SimControlsTest, OpensFailAsOnNtfs) {
  ASSERT_EQ(disk->createDirectory(L"dir"), 0u);
  ASSERT_EQ(disk->createFile(L"dir\\f", 10), 0u);
  ASSERT_EQ(disk->createFile(L"pagefile.sys", 4096), 0u);
  ASSERT_EQ(disk->createFile(L"private", 4096), 0u);
  ASSERT_EQ(disk->setLocked(L"pagefile.sys", true), 0u);
  ASSERT_EQ(disk->setAccessDenied(L"private", true), 0u);
  EXPECT_EQ(openError(L"S:\\DIR\\F"), 0u);
  EXPECT_EQ(openError(L"S:\\dir\\g"), static_cast<DWORD>(ERROR_FILE_NOT_FOUND));
  EXPECT_EQ(openError(L"S:\\nodir\\f"), static_cast<DWORD>(ERROR_PATH_NOT_FOUND));
  EXPECT_EQ(openError(L"T:\\dir\\f"), static_cast<DWORD>(ERROR_PATH_NOT_FOUND));  // another drive
  EXPECT_EQ(openError(L"S:\\pagefile.sys"), static_cast<DWORD>(ERROR_SHARING_VIOLATION));
  EXPECT_EQ(openError(L"S:\\private"), static_cast<DWORD>(ERROR_ACCESS_DENIED));
  EXPECT_EQ(openError(L"S:\\dir"), static_cast<DWORD>(ERROR_ACCESS_DENIED));  // a directory needs backup semantics
  EXPECT_EQ(openError(L"S:\\dir", FILE_FLAG_BACKUP_SEMANTICS), 0u);
  EXPECT_EQ(volume.getFileAttributes(L"S:\\pagefile.sys"), static_cast<DWORD>(FILE_ATTRIBUTE_ARCHIVE));
  EXPECT_EQ(volume.getFileAttributes(L"S:\\gone"), INVALID_FILE_ATTRIBUTES);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_FILE_NOT_FOUND));
  EXPECT_TRUE(volume.getFileAttributes(L"S:\\") & FILE_ATTRIBUTE_DIRECTORY);
}

TEST_F(SimControlsTest, OpenHandlesOutliveAVanishedVolumeButNotADeletedFile) {
  ASSERT_EQ(disk->createFile(L"f", 4096 * 4), 0u);
  HANDLE f = open(L"S:\\f");
  disk->setVanished(true);
  EXPECT_EQ(openError(L"S:\\f"), static_cast<DWORD>(ERROR_PATH_NOT_FOUND));
  EXPECT_EQ(openError(L"\\\\.\\S:"), static_cast<DWORD>(ERROR_FILE_NOT_FOUND));
  try {
    SimVolumeSystem another(disk, L's');
    FAIL() << "opened a vanished volume";
  } catch (const CDfrgException& e) {
    EXPECT_EQ(e.code, -1);
    EXPECT_EQ(e.message, "Couldn't open Volume ! \\\\.\\s:");
  }
  EXPECT_EQ(move(f, 0, 5000, 4), 0u);
  disk->setVanished(false);
  SimVolumeSystem again(disk, L'S');
  EXPECT_EQ(runsOf(again.disk(), L"f")[0].lcn, 5000u);  // one disk behind both handles

  // A file deleted while open refuses moves and maps.
  ASSERT_EQ(disk->deleteFile(L"f"), 0u);
  EXPECT_EQ(move(f, 0, 6000, 4), static_cast<DWORD>(ERROR_ACCESS_DENIED));
  std::vector<uint8_t> reply(4112);
  int64_t vcn = 0;
  DWORD returned;
  EXPECT_FALSE(volume.getRetrievalPointers(f, &vcn, reply.data(), 4112, &returned));
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_ACCESS_DENIED));
  EXPECT_TRUE(volume.closeHandle(f));
}

std::vector<std::wstring> listing(SimVolumeSystem& volume, const std::wstring& pattern, DWORD* error) {
  std::vector<std::wstring> names;
  WIN32_FIND_DATAW data;
  HANDLE find = volume.findFirstFile(pattern, &data);
  if (find == INVALID_HANDLE_VALUE) {
    *error = GetLastError();
    return names;
  }
  do {
    names.push_back(data.cFileName);
  } while (volume.findNextFile(find, &data));
  *error = GetLastError();
  volume.findClose(find);
  return names;
}

TEST_F(SimControlsTest, ListingsAreInCaseInsensitiveOrderWithDotsOnlyInSubDirectories) {
  for (const wchar_t* name : {L"b", L"A", L"_x", L"a1", L"B2", L"é"}) ASSERT_EQ(disk->createFile(name, 1), 0u);
  ASSERT_EQ(disk->createDirectory(L"Sub"), 0u);
  ASSERT_EQ(disk->createFile(L"Sub\\one.txt", 5000), 0u);
  ASSERT_EQ(disk->createFile(L"Sub\\two.log", 1), 0u);
  DWORD error = 0;
  EXPECT_EQ(listing(volume, L"S:\\*.*", &error),
            (std::vector<std::wstring>{L"A", L"a1", L"b", L"B2", L"Sub", L"_x", L"é"}));
  EXPECT_EQ(error, static_cast<DWORD>(ERROR_NO_MORE_FILES));
  EXPECT_EQ(listing(volume, L"S:\\sub\\*", &error), (std::vector<std::wstring>{L".", L"..", L"one.txt", L"two.log"}));
  EXPECT_EQ(listing(volume, L"S:\\Sub\\*.TXT", &error), (std::vector<std::wstring>{L"one.txt"}));
  EXPECT_TRUE(listing(volume, L"S:\\Sub\\*.exe", &error).empty());
  EXPECT_EQ(error, static_cast<DWORD>(ERROR_FILE_NOT_FOUND));
  EXPECT_TRUE(listing(volume, L"S:\\nowhere\\*", &error).empty());
  EXPECT_EQ(error, static_cast<DWORD>(ERROR_PATH_NOT_FOUND));

  WIN32_FIND_DATAW data;
  HANDLE find = volume.findFirstFile(L"S:\\Sub\\one.txt", &data);
  ASSERT_NE(find, INVALID_HANDLE_VALUE);
  EXPECT_EQ(data.nFileSizeLow, 5000u);
  EXPECT_EQ(data.dwFileAttributes, static_cast<DWORD>(FILE_ATTRIBUTE_ARCHIVE));
  EXPECT_TRUE(volume.findClose(find));
  EXPECT_FALSE(volume.findClose(find));
  EXPECT_EQ(volume.openHandles(), 1u);  // only the volume's own
}

}  // namespace
}  // namespace glidewell
