// CDfrgFile on the simulated disk: how a file is opened, and how
// retrieval-pointer replies become the engine's extent list (compressed and
// sparse files, reply boundaries), with scripted replies for the broken ones
// no file system should give.
#include "volume/dfrg_file.h"

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <memory>

#include "engine/dfrg_context.h"
#include "engine/dfrg_exception.h"
#include "logging/log_test_util.h"
#include "sim/sim_volume_system.h"

namespace glidewell {
namespace {

constexpr uint64_t kVirtual = kNoCluster;

// The simulated disk, with retrieval-pointer replies a test may script.
class ScriptedVolume : public SimVolumeSystem {
 public:
  using SimVolumeSystem::SimVolumeSystem;
  BOOL getRetrievalPointers(HANDLE file, const int64_t* vcn, void* buffer, DWORD size, DWORD* returned) override {
    requests.push_back(*vcn);
    if (script) return script(*vcn, buffer, returned);
    return SimVolumeSystem::getRetrievalPointers(file, vcn, buffer, size, returned);
  }
  std::function<BOOL(int64_t vcn, void* buffer, DWORD* returned)> script;
  std::vector<int64_t> requests;
};

// One reply of (NextVcn, Lcn) pairs from startingVcn 0, failing with error when not 0.
BOOL reply(void* buffer, DWORD* returned, const std::vector<std::pair<uint64_t, uint64_t>>& pairs, DWORD error) {
  auto* out = static_cast<uint8_t*>(buffer);
  std::memset(out, 0, 16);
  uint32_t n = static_cast<uint32_t>(pairs.size());
  std::memcpy(out, &n, 4);
  for (size_t k = 0; k < pairs.size(); ++k) {
    std::memcpy(out + 16 + 16 * k, &pairs[k].first, 8);
    std::memcpy(out + 24 + 16 * k, &pairs[k].second, 8);
  }
  *returned = 16 + 16 * n;
  if (error != 0) SetLastError(error);
  return error == 0;
}

class DfrgFileTest : public ::testing::Test {
 protected:
  DfrgFileTest() : disk(std::make_shared<SimDisk>(SimGeometry{100000, 4096, L"T", L"FAT32"})) {
    auto volume = std::make_unique<ScriptedVolume>(disk, L'T');
    vol = volume.get();
    ctx = std::make_unique<CDfrgContext>(std::move(volume), 0, nullptr);
  }
  bool extentsOf(const std::wstring& name, ExtentList& out) {
    CDfrgFile file(*ctx, name, false);
    return file.getFileExtents(out);
  }

  std::shared_ptr<SimDisk> disk;
  ScriptedVolume* vol;
  std::unique_ptr<CDfrgContext> ctx;
};

TEST(ExtentTest, LocateVcnStopsOnCompressionUnitBoundaries) {
  uint64_t v = 0, l = 0;
  Extent plain(ClusterRange(10, 29), ClusterRange(500, 519));
  ASSERT_TRUE(plain.locateVcn(17, &v, &l));
  EXPECT_EQ(std::make_pair(v, l), std::make_pair(uint64_t{17}, uint64_t{507}));
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
    EXPECT_EQ(std::make_pair(v, l), std::make_pair(c.vcn, c.lcn)) << c.want;
  }
  EXPECT_FALSE(packed.locateVcn(49, &v, &l));
}

TEST_F(DfrgFileTest, OpensWhatMovesNeedAndNamesWhatItCannotOpen) {
  ASSERT_EQ(disk->createDirectory(L"dir"), 0u);
  ASSERT_EQ(disk->createFile(L"dir\\secret", 64 * 4096, FILE_ATTRIBUTE_ENCRYPTED), 0u);
  ASSERT_EQ(disk->createFile(L"locked", 4096), 0u);
  disk->setLocked(L"locked", true);
  {
    CDfrgFile file(*ctx, L"dir\\secret", false);  // relative to the root
    EXPECT_EQ(file.path(), L"T:\\dir\\secret");
    EXPECT_EQ(file.getMoveGranularity(), 1u);
    // Moving an encrypted file needs read-data access.
    MOVE_FILE_DATA move{};
    move.FileHandle = file.handle();
    move.StartingLcn.QuadPart = 50000;
    move.ClusterCount = 64;
    EXPECT_TRUE(vol->moveFile(&move)) << GetLastError();
    CDfrgFile dir(*ctx, L"T:\\dir", true);  // a full path is used as it is
    EXPECT_EQ(vol->openHandles(), 3u);
  }
  EXPECT_EQ(vol->openHandles(), 1u) << "the destructor closes the handle";
  try {
    CDfrgFile file(*ctx, L"locked", false);
    ADD_FAILURE() << "opened a locked file";
  } catch (const CDfrgException& e) {
    EXPECT_EQ(e.code, ERROR_SHARING_VIOLATION);
    EXPECT_EQ(e.message, "Couldn't open file T:\\locked");
  }
}

TEST_F(DfrgFileTest, VirtualRunsBecomeSubRunsOfTheStoredRunBeforeThem) {
  // Unit 1: 10 stored + 6 virtual; unit 2: 16 stored right after on disk;
  // unit 3 elsewhere: 5 stored + 11 virtual.
  ASSERT_EQ(disk->placeFile(L"packed", FILE_ATTRIBUTE_COMPRESSED, 48 * 4096,
                            {{0, 1000, 10, 0}, {10, kVirtual, 6, 0}, {16, 1010, 16, 0}, {32, 2000, 5, 0},
                             {37, kVirtual, 11, 0}}),
            0u);
  ExtentList ext;
  ASSERT_TRUE(extentsOf(L"packed", ext));
  ASSERT_EQ(ext.size(), 2u);
  EXPECT_EQ(ext[0].vcn, ClusterRange(0, 31));
  EXPECT_EQ(ext[0].lcn, ClusterRange(1000, 1025));
  EXPECT_EQ(ext[0].subRuns(), (std::vector<SubRun>{{16, 10}, {16, 16}}));
  EXPECT_EQ(ext[1].vcn, ClusterRange(32, 47));
  EXPECT_EQ(ext[1].lcn, ClusterRange(2000, 2004));
  EXPECT_EQ(ext[1].subRuns(), (std::vector<SubRun>{{16, 5}}));
  EXPECT_EQ(CDfrgFile(*ctx, L"packed", false).getMoveGranularity(), 16u);

  // A virtual run in a file marked neither compressed nor sparse (a scripted
  // reply) still becomes a sub-run.
  ASSERT_EQ(disk->createFile(L"plain", 4096), 0u);
  vol->script = [](int64_t, void* b, DWORD* r) { return reply(b, r, {{8, 300}, {16, kVirtual}}, 0); };
  ASSERT_TRUE(extentsOf(L"plain", ext));
  vol->script = nullptr;
  ASSERT_EQ(ext.size(), 1u);
  EXPECT_EQ(ext[0].subRuns(), (std::vector<SubRun>{{16, 8}}));

  // A sparse file as a compressed one.
  ASSERT_EQ(disk->placeFile(L"sparse", FILE_ATTRIBUTE_SPARSE_FILE, 32 * 4096, {{0, 300, 16, 0}, {16, kVirtual, 16, 0}}),
            0u);
  ASSERT_TRUE(extentsOf(L"sparse", ext));
  ASSERT_EQ(ext.size(), 1u);
  EXPECT_EQ(ext[0].subRuns(), (std::vector<SubRun>{{32, 16}}));
}

TEST_F(DfrgFileTest, RunsMergeWithinOneReplyOnlyAndStopBetweenReplies) {
  // Plain runs that follow each other on disk are one extent (the simulated
  // disk stores such runs as one, so a scripted reply shows this).
  ASSERT_EQ(disk->createFile(L"f", 4096), 0u);
  vol->script = [](int64_t, void* b, DWORD* r) { return reply(b, r, {{10, 500}, {20, 510}, {25, 50}}, 0); };
  ExtentList ext;
  ASSERT_TRUE(extentsOf(L"f", ext));
  ASSERT_EQ(ext.size(), 2u);
  EXPECT_EQ(ext[0].lcn, ClusterRange(500, 519));
  EXPECT_EQ(ext[1].vcn, ClusterRange(20, 24));

  // 300 one-cluster runs with gaps between them, except that run 256, which
  // starts the second reply, continues run 255 on disk: it starts a new extent.
  vol->script = nullptr;
  vol->requests.clear();
  std::vector<SimRun> runs;
  for (uint64_t i = 0, lcn = 1000; i < 300; ++i) runs.push_back(SimRun{i, lcn += i == 256 ? 1 : 2, 1, 0});
  ASSERT_EQ(disk->placeFile(L"many", 0, 300 * 4096, runs, {256}), 0u);
  CDfrgFile many(*ctx, L"many", false);
  ASSERT_TRUE(many.getFileExtents(ext));
  ASSERT_EQ(ext.size(), 300u);
  EXPECT_EQ(ext[256].vcn, ClusterRange(256, 256));
  EXPECT_EQ(ext[255].lcn.end + 1, ext[256].lcn.start);
  EXPECT_EQ(vol->requests, (std::vector<int64_t>{0, 256}));

  // A stop request between the replies passes through.
  ctx->stopAll();
  resetCheckStateClock();
  try {
    many.getFileExtents(ext);
    FAIL() << "no stop";
  } catch (const CDfrgException& e) {
    EXPECT_EQ(e.code, ErrorStopRequested);
  }
  EXPECT_EQ(ext.size(), 256u) << "the first reply was read";
}

TEST_F(DfrgFileTest, BrokenRepliesAreRefused) {
  ASSERT_EQ(disk->createFile(L"f", 4096), 0u);
  CDfrgFile file(*ctx, L"f", false);
  ExtentList ext;

  // An entry after the first with NextVcn 0, reported at Debug level.
  vol->script = [](int64_t, void* b, DWORD* r) { return reply(b, r, {{4, 100}, {0, 200}}, 0); };
  LogManager::release();
  LogManager* logs = LogManager::instance();
  logs->setGenericFactory(LogObjectFactory{testing_log::createTestLogObject, destroyLogObject});
  auto* out = dynamic_cast<testing_log::RecordingAppender*>(logs->createAppender("Recording"));
  EXPECT_FALSE(file.getFileExtents(ext));
  std::vector<testing_log::SeenEvent> seen = out->seen();
  LogManager::release();
  ASSERT_EQ(seen.size(), 1u);
  EXPECT_EQ(seen[0].message, "The File has a not first Zero VCN entry !");
  EXPECT_EQ(seen[0].priority, kLogDebug);
  EXPECT_NE(seen[0].path.find("getFileExtents"), std::string::npos) << seen[0].path;
  ASSERT_EQ(seen[0].properties.size(), 1u);
  EXPECT_EQ(seen[0].properties[0].name() + "=" + seen[0].properties[0].value(), "FileSystem=FAT 32");

  // A run that ends before it starts.
  vol->script = [](int64_t, void* b, DWORD* r) { return reply(b, r, {{4, 100}, {3, 200}}, 0); };
  try {
    file.getFileExtents(ext);
    ADD_FAILURE() << "accepted";
  } catch (const CDfrgException& e) {
    EXPECT_EQ(e.code, 87);
  }

  // A failure other than ERROR_MORE_DATA keeps what was read before.
  vol->script = [](int64_t vcn, void* b, DWORD* r) {
    return vcn == 0 ? reply(b, r, {{4, 100}}, ERROR_MORE_DATA) : reply(b, r, {}, ERROR_ACCESS_DENIED);
  };
  EXPECT_FALSE(file.getFileExtents(ext));
  EXPECT_EQ(ext.size(), 1u);

  // ERROR_MORE_DATA without entries would never end.
  vol->script = [](int64_t, void* b, DWORD* r) { return reply(b, r, {}, ERROR_MORE_DATA); };
  EXPECT_FALSE(file.getFileExtents(ext));

  // A count larger than the bytes returned is cut to what was returned.
  vol->script = [](int64_t, void* b, DWORD* r) {
    BOOL ok = reply(b, r, {{4, 100}}, 0);
    uint32_t lie = 100000;
    std::memcpy(b, &lie, 4);
    return ok;
  };
  ASSERT_TRUE(file.getFileExtents(ext));
  EXPECT_EQ(ext.size(), 1u);
}

}  // namespace
}  // namespace glidewell
