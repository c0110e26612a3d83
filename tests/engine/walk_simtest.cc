// The walk over a volume and the per-file step: visiting order, resuming,
// junctions, files that cannot be opened, empty files.
#include "sim_engine_fixture.h"

#include <algorithm>

#include "engine/dfrg_exception.h"
#include "engine/file_walk.h"

namespace glidewell {
namespace {

class WalkTest : public SimEngineTest {
 protected:
  // A small tree: directories before files in name order, some fragmented files.
  void buildTree() {
    makeDisk(20000);
    ASSERT_EQ(disk->createDirectory(L"a"), 0u);
    ASSERT_EQ(disk->createDirectory(L"a\\deep"), 0u);
    ASSERT_EQ(disk->createDirectory(L"b"), 0u);
    place(L"a\\deep\\x.dat", {{1000, 10}, {1100, 10}});
    place(L"a\\one.txt", {{1200, 5}});
    place(L"a\\two.txt", {{1300, 5}, {1400, 5}});
    place(L"b\\three.bin", {{1500, 8}});
    place(L"root.sys", {{1600, 4}, {1700, 4}});
    ASSERT_EQ(disk->createFile(L"empty.txt", 0), 0u);
  }
  // Paths handed to processFile during a walk, in order.
  std::vector<std::wstring> walk(const std::wstring& dir, const std::wstring& resume, bool skip, bool reverse,
                                 int* count = nullptr) {
    size_t before = probe->openedPaths().size();
    worker.walkDirectory(ctx(), dir, resume, skip, reverse, false, count);
    auto all = probe->openedPaths();
    return std::vector<std::wstring>(all.begin() + static_cast<long>(before), all.end());
  }
};

TEST_F(WalkTest, DirectoriesComeBeforeTheirContentsEitherWayAndTheWalkCounts) {
  buildTree();
  config->setDoMoveBetterPlace(false);  // only defragmentation changes files here
  int changed = 0;
  auto order = walk(L"C:", L"", false, false, &changed);
  std::vector<std::wstring> expected = {L"C:\\a",          L"C:\\a\\deep",   L"C:\\a\\deep\\x.dat",
                                        L"C:\\a\\one.txt", L"C:\\a\\two.txt", L"C:\\b",
                                        L"C:\\b\\three.bin", L"C:\\empty.txt", L"C:\\root.sys"};
  EXPECT_EQ(order, expected);
  EXPECT_EQ(worker.passCounters().processed, static_cast<int64_t>(expected.size()));
  EXPECT_EQ(changed, 3);  // the three fragmented files
  EXPECT_EQ(layout(L"a\\two.txt").size(), 1u);
  EXPECT_EQ(layout(L"root.sys").size(), 1u);
  EXPECT_EQ(worker.currentFile(), L"C:\\root.sys");
  // Reverse: every directory back to front, a directory still before its contents.
  std::vector<std::wstring> reverse = {expected[8], expected[7], expected[5], expected[6], expected[0],
                                       expected[4], expected[3], expected[1], expected[2]};
  EXPECT_EQ(walk(L"C:", L"", false, true), reverse);
}

TEST_F(WalkTest, ResumedWalkIsTheUninterruptedOrderFromTheResumePointOrAfterIt) {
  buildTree();
  auto full = walk(L"C:", L"", false, false);
  for (size_t k = 0; k < full.size(); ++k) {
    // Every resume point, on a fresh worker over the same (now tidy) disk.
    DfrgThread resumed("");
    resumed.setConfig(config.get());
    size_t before = probe->openedPaths().size();
    resumed.walkDirectory(ctx(), parentPath(full[k]), full[k], false, false, false, nullptr);
    auto all = probe->openedPaths();
    std::vector<std::wstring> order(all.begin() + static_cast<long>(before), all.end());
    EXPECT_EQ(order, std::vector<std::wstring>(full.begin() + static_cast<long>(k), full.end()))
        << "resumed at " << narrowPath(full[k]);
  }
  EXPECT_EQ(walk(L"C:\\a", L"C:\\a\\one.txt", true, false), std::vector<std::wstring>(full.begin() + 4, full.end()));
  // A leaf that no longer exists: the rest of its directory is passed over,
  // and the walk climbs on after that directory.
  EXPECT_EQ(walk(L"C:\\a", L"C:\\a\\vanished.txt", false, false),
            std::vector<std::wstring>(full.begin() + 5, full.end()));
}

TEST_F(WalkTest, JunctionsAreNeitherProcessedNorEntered) {
  buildTree();
  probe->junctions.insert(L"a");
  auto order = walk(L"C:", L"", false, false);
  for (auto& p : order) EXPECT_EQ(p.rfind(L"C:\\a", 0), std::wstring::npos) << narrowPath(p);
  EXPECT_EQ(layout(L"a\\two.txt").size(), 2u);  // untouched behind the junction
}

TEST_F(WalkTest, FilesThatCannotBeOpenedAreCountedAndOnlyUnexpectedErrorsLogged) {
  buildTree();
  for (DWORD quiet : {2u, 3u, 5u, 15u, 32u, 64u, 65u, 67u, 123u}) {
    probe->failOpen[L"C:\\root.sys"] = quiet;
    int64_t before = worker.passCounters().processed;
    EXPECT_TRUE(worker.processFile(ctx(), L"C:\\root.sys", nullptr, false));
    EXPECT_EQ(worker.passCounters().processed, before + 1);
  }
  EXPECT_TRUE(logged("Error during processFile.").empty());

  probe->failOpen[L"C:\\root.sys"] = 1117;  // an I/O device error is worth a line
  int result = -7;
  EXPECT_TRUE(worker.processFile(ctx(), L"C:\\root.sys", &result, false));
  EXPECT_EQ(result, -7);  // not examined: the result is left alone
  auto errors = logged("Error during processFile.");
  ASSERT_EQ(errors.size(), 1u);
  EXPECT_EQ(errors[0].priority, kLogError);
  EXPECT_EQ(property(errors[0], "Error"), "1117");
  EXPECT_EQ(property(errors[0], "FileName"), "C:\\root.sys");
  EXPECT_EQ(worker.currentFile(), L"C:\\root.sys");
  EXPECT_EQ(layout(L"root.sys").size(), 2u);

  result = -1;  // an empty file is counted and left alone
  EXPECT_TRUE(worker.processFile(ctx(), L"C:\\empty.txt", &result, false));
  EXPECT_EQ(result, -1);
  EXPECT_TRUE(probe->moveList().empty());
}

TEST_F(WalkTest, LockedFileIsSkippedSilentlyAndTheRestIsDone) {
  buildTree();
  ASSERT_EQ(disk->setLocked(L"a\\two.txt", true), 0u);
  config->setDoMoveBetterPlace(false);
  int changed = 0;
  walk(L"C:", L"", false, false, &changed);
  EXPECT_EQ(changed, 2);
  EXPECT_EQ(layout(L"a\\two.txt").size(), 2u);
  EXPECT_EQ(layout(L"root.sys").size(), 1u);
  EXPECT_TRUE(logged("Error during processFile.").empty());
}

TEST_F(WalkTest, LostVolumeAndStopEndTheWalk) {
  buildTree();
  snapshot();
  disk->setVanished(true);  // files can no longer be opened
  ctx().stopAll();
  resetCheckStateClock();
  try {
    walk(L"C:", L"", false, false);
    FAIL() << "the stop was not seen";
  } catch (const CDfrgException& e) {
    EXPECT_EQ(e.code, ErrorStopRequested);
  }
}

}  // namespace
}  // namespace glidewell
