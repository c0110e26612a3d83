// CDfrgFile: how a file is opened, and how retrieval-pointer replies become
// the engine's extent list (plain, compressed, sparse, resident and heavily
// fragmented files, and replies that are broken).
#include "volume/dfrg_file.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>

#include "engine/dfrg_context.h"
#include "engine/dfrg_exception.h"
#include "logging/log_test_util.h"
#include "volume/bitmap_volume.h"

namespace glidewell {
namespace {

using testing::BitmapVolume;
constexpr uint64_t kVirtual = kNoCluster;

class DfrgFileTest : public ::testing::Test {
 protected:
  DfrgFileTest() {
    auto volume = std::make_unique<BitmapVolume>(100000);
    vol = volume.get();
    ctx = std::make_unique<CDfrgContext>(std::move(volume), 0, nullptr);
  }

  // Reads the extents of a file made of the given runs.
  bool extentsOf(const std::vector<BitmapVolume::Run>& runs, ExtentList& out,
                 DWORD attributes = FILE_ATTRIBUTE_NORMAL) {
    vol->addFile(L"T:\\f", attributes).runs = runs;
    CDfrgFile file(*ctx, L"f", false);
    return file.getFileExtents(out);
  }

  BitmapVolume* vol;
  std::unique_ptr<CDfrgContext> ctx;
};

TEST(ClusterRangeTest, RejectsStartAfterEndAndKnowsUnsetLength) {
  try {
    ClusterRange r(11, 10);
    FAIL() << "no exception";
  } catch (const CDfrgException& e) {
    EXPECT_EQ(e.code, 87);
    EXPECT_EQ(e.message, "Error, Extent Start is after End !");
  }
  EXPECT_EQ(ClusterRange(7, 7).length(), 1u);
  EXPECT_EQ(ClusterRange().length(), kNoCluster);
}

TEST(ExtentTest, LocateVcnStopsOnCompressionUnitBoundaries) {
  Extent plain(ClusterRange(10, 29), ClusterRange(500, 519));
  uint64_t v = 0, l = 0;
  ASSERT_TRUE(plain.locateVcn(17, &v, &l));
  EXPECT_EQ(v, 17u);
  EXPECT_EQ(l, 507u);
  EXPECT_EQ(plain.getLargestSubRun(), 1u);

  // Three units of 16 VCNs holding 8, 16 and 4 clusters.
  Extent packed(ClusterRange(0, 47), ClusterRange(100, 127));
  packed.addSubRun(16, 8);
  packed.addSubRun(16, 16);
  packed.addSubRun(16, 4);
  EXPECT_EQ(packed.getLargestSubRun(), 16u);
  struct Case {
    uint64_t want, vcn, lcn;
  } cases[] = {{0, 0, 100}, {1, 16, 108}, {16, 16, 108}, {17, 32, 124}, {47, 48, 128}, {48, 48, 128}};
  for (const Case& c : cases) {
    ASSERT_TRUE(packed.locateVcn(c.want, &v, &l)) << c.want;
    EXPECT_EQ(v, c.vcn) << c.want;
    EXPECT_EQ(l, c.lcn) << c.want;
  }
  EXPECT_FALSE(packed.locateVcn(49, &v, &l));

  Extent copy = packed;  // a value: the copy has its own sub-runs
  copy.growLastSubRun(0, 20);
  EXPECT_EQ(copy.getLargestSubRun(), 24u);
  EXPECT_EQ(packed.subRuns().back().lcnCount, 4u);
}

TEST_F(DfrgFileTest, OpensWithTheAccessAndFlagsMovesNeed) {
  vol->addFile(L"T:\\dir", FILE_ATTRIBUTE_DIRECTORY);
  vol->addFile(L"T:\\dir\\secret", FILE_ATTRIBUTE_ENCRYPTED | FILE_ATTRIBUTE_COMPRESSED);
  vol->addFile(L"T:\\locked").openError = ERROR_SHARING_VIOLATION;
  {
    CDfrgFile file(*ctx, L"dir\\secret", false);  // relative to the root
    EXPECT_EQ(file.path(), L"T:\\dir\\secret");
    EXPECT_EQ(vol->lastAccess, 0x81u) << "moving an encrypted file needs read-data access";
    EXPECT_EQ(vol->lastShare, 7u);
    EXPECT_EQ(vol->lastDisposition, static_cast<DWORD>(OPEN_EXISTING));
    EXPECT_EQ(vol->lastFlags, static_cast<DWORD>(FILE_FLAG_NO_BUFFERING));
    EXPECT_EQ(file.getMoveGranularity(), 16u);
  }
  {
    CDfrgFile dir(*ctx, L"T:\\dir", true);  // a full path is used as it is
    EXPECT_EQ(vol->lastOpened, L"T:\\dir");
    EXPECT_EQ(vol->lastAccess, 0x80u);
    EXPECT_EQ(vol->lastFlags, static_cast<DWORD>(FILE_FLAG_BACKUP_SEMANTICS));
    EXPECT_EQ(dir.getMoveGranularity(), 1u);
  }
  EXPECT_EQ(vol->openHandles, 0) << "the destructor closes the handle";
  struct Case {
    const wchar_t* name;
    int code;
    const char* message;
  } cases[] = {{L"locked", 32, "Couldn't open file T:\\locked"}, {L"missing", 2, "Couldn't open file T:\\missing"}};
  for (const Case& c : cases) {
    try {
      CDfrgFile file(*ctx, c.name, false);
      ADD_FAILURE() << "opened " << c.message;
    } catch (const CDfrgException& e) {
      EXPECT_EQ(e.code, c.code);
      EXPECT_EQ(e.message, c.message);
    }
  }
}

TEST_F(DfrgFileTest, CompressedFileAbsorbsVirtualRunsIntoSubRuns) {
  // Unit 1: 10 stored + 6 virtual; unit 2: 16 stored right after on disk;
  // unit 3 elsewhere: 5 stored + 11 virtual.
  ExtentList ext;
  ASSERT_TRUE(extentsOf({{10, 1000}, {16, kVirtual}, {32, 1010}, {37, 2000}, {48, kVirtual}}, ext,
                        FILE_ATTRIBUTE_COMPRESSED));
  ASSERT_EQ(ext.size(), 2u);
  EXPECT_EQ(ext[0].vcn, ClusterRange(0, 31));
  EXPECT_EQ(ext[0].lcn, ClusterRange(1000, 1025));
  EXPECT_EQ(ext[0].subRuns(), (std::vector<SubRun>{{16, 10}, {16, 16}}));
  EXPECT_EQ(ext[0].getLargestSubRun(), 16u);
  EXPECT_EQ(ext[1].vcn, ClusterRange(32, 47));
  EXPECT_EQ(ext[1].lcn, ClusterRange(2000, 2004));
  EXPECT_EQ(ext[1].subRuns(), (std::vector<SubRun>{{16, 5}}));
  EXPECT_EQ(ext[1].getLargestSubRun(), 5u);

  // A virtual run in a file not marked compressed still becomes a sub-run.
  ASSERT_TRUE(extentsOf({{8, 300}, {16, kVirtual}}, ext));
  ASSERT_EQ(ext.size(), 1u);
  EXPECT_EQ(ext[0].vcn, ClusterRange(0, 15));
  EXPECT_EQ(ext[0].lcn, ClusterRange(300, 307));
  EXPECT_EQ(ext[0].subRuns(), (std::vector<SubRun>{{16, 8}}));
}

TEST_F(DfrgFileTest, RunsMergeWithinOneReplyOnly) {
  // Plain runs that follow each other on disk are one extent (the simulated
  // disk stores such runs as one, so only scripted replies show this).
  ExtentList ext;
  ASSERT_TRUE(extentsOf({{10, 500}, {20, 510}, {25, 50}}, ext));
  ASSERT_EQ(ext.size(), 2u);
  EXPECT_EQ(ext[0].lcn, ClusterRange(500, 519));
  EXPECT_EQ(ext[1].vcn, ClusterRange(20, 24));

  // 300 adjacent one-cluster runs: the run that continues across the reply
  // boundary starts a new extent.
  std::vector<BitmapVolume::Run> runs;
  for (uint64_t i = 0; i < 300; ++i) runs.push_back({i + 1, 1000 + i});
  vol->retrievalRequests.clear();
  ASSERT_TRUE(extentsOf(runs, ext));
  ASSERT_EQ(ext.size(), 2u);
  EXPECT_EQ(ext[0].lcn, ClusterRange(1000, 1255));
  EXPECT_EQ(ext[1].vcn, ClusterRange(256, 299));
  EXPECT_EQ(vol->retrievalRequests, (std::vector<int64_t>{0, 256}));

  // A later reply may not begin with a virtual run either.
  runs.resize(256);
  runs.push_back({400, kVirtual});
  EXPECT_FALSE(extentsOf(runs, ext, FILE_ATTRIBUTE_COMPRESSED));
}

TEST_F(DfrgFileTest, StopRequestBetweenRepliesPassesThrough) {
  std::vector<BitmapVolume::Run> runs;
  for (uint64_t i = 0; i < 300; ++i) runs.push_back({2 * i + 2, 4 * i});
  vol->addFile(L"T:\\f").runs = runs;
  CDfrgFile file(*ctx, L"f", false);
  ctx->stopAll();
  resetCheckStateClock();
  ExtentList ext;
  try {
    file.getFileExtents(ext);
    FAIL() << "no stop";
  } catch (const CDfrgException& e) {
    EXPECT_EQ(e.code, ErrorStopRequested);
  }
  EXPECT_EQ(ext.size(), 256u) << "the first reply was read";
}

// Builds one reply from raw pairs.
BOOL reply(void* buffer, DWORD* returned, uint64_t startingVcn, const std::vector<std::pair<uint64_t, uint64_t>>& pairs,
           DWORD error) {
  auto* out = static_cast<uint8_t*>(buffer);
  std::memset(out, 0, 16);
  uint32_t n = static_cast<uint32_t>(pairs.size());
  std::memcpy(out, &n, 4);
  std::memcpy(out + 8, &startingVcn, 8);
  for (size_t k = 0; k < pairs.size(); ++k) {
    std::memcpy(out + 16 + 16 * k, &pairs[k].first, 8);
    std::memcpy(out + 24 + 16 * k, &pairs[k].second, 8);
  }
  *returned = 16 + 16 * n;
  if (error == 0) return TRUE;
  SetLastError(error);
  return FALSE;
}

TEST_F(DfrgFileTest, BrokenRepliesAreRefused) {
  vol->addFile(L"T:\\f");
  CDfrgFile file(*ctx, L"f", false);
  ExtentList ext;

  // An entry after the first with NextVcn 0, reported at Debug level.
  vol->retrievalOverride = [](const int64_t*, void* b, DWORD, DWORD* r) {
    return reply(b, r, 0, {{4, 100}, {0, 200}}, 0);
  };
  LogManager::release();
  LogManager* logs = LogManager::instance();
  logs->setGenericFactory(LogObjectFactory{testing_log::createTestLogObject, destroyLogObject});
  auto* out = dynamic_cast<testing_log::RecordingAppender*>(logs->createAppender("Recording"));
  vol->fileSystemType = kFileSystemFat32;
  EXPECT_FALSE(file.getFileExtents(ext));
  std::vector<testing_log::SeenEvent> seen = out->seen();
  LogManager::release();
  ASSERT_EQ(seen.size(), 1u);
  EXPECT_EQ(seen[0].message, "The File has a not first Zero VCN entry !");
  EXPECT_EQ(seen[0].priority, kLogDebug);
  EXPECT_NE(seen[0].path.find("getFileExtents"), std::string::npos) << seen[0].path;
  ASSERT_EQ(seen[0].properties.size(), 1u);
  EXPECT_EQ(seen[0].properties[0].name(), "FileSystem");
  EXPECT_EQ(seen[0].properties[0].value(), "FAT 32");

  // A run that ends before it starts.
  vol->retrievalOverride = [](const int64_t*, void* b, DWORD, DWORD* r) {
    return reply(b, r, 0, {{4, 100}, {3, 200}}, 0);
  };
  EXPECT_THROW(file.getFileExtents(ext), CDfrgException);

  // A failure other than ERROR_MORE_DATA keeps what was read before.
  vol->retrievalOverride = [](const int64_t* vcn, void* b, DWORD, DWORD* r) {
    return *vcn == 0 ? reply(b, r, 0, {{4, 100}}, ERROR_MORE_DATA) : reply(b, r, 0, {}, ERROR_ACCESS_DENIED);
  };
  EXPECT_FALSE(file.getFileExtents(ext));
  EXPECT_EQ(ext.size(), 1u);

  // ERROR_MORE_DATA without entries would never end.
  vol->retrievalOverride = [](const int64_t*, void* b, DWORD, DWORD* r) { return reply(b, r, 0, {}, ERROR_MORE_DATA); };
  EXPECT_FALSE(file.getFileExtents(ext));

  // A count larger than the bytes returned is cut to what was returned.
  vol->retrievalOverride = [](const int64_t*, void* b, DWORD, DWORD* r) {
    BOOL ok = reply(b, r, 0, {{4, 100}}, 0);
    uint32_t lie = 100000;
    std::memcpy(b, &lie, 4);
    return ok;
  };
  ASSERT_TRUE(file.getFileExtents(ext));
  EXPECT_EQ(ext.size(), 1u);
}

}  // namespace
}  // namespace glidewell
