// The three movers on a simulated volume: where files go, in what pieces,
// and what is counted and logged when moves fail. Every test ends with the
// disk verified (see the fixture).
#include "dfrg_thread_peer.h"
#include "sim_engine_fixture.h"

#include "engine/move_primitives.h"

namespace glidewell {
namespace {

using Pieces = std::vector<std::pair<uint64_t, uint64_t>>;

class DefragFileTest : public SimEngineTest {
 protected:
  bool defrag(const std::wstring& name, ExtentList* out = nullptr) {
    CDfrgFile& file = open(name);
    ExtentList extents = extentsOf(file);
    snapshot();
    bool defragged = false;
    EXPECT_TRUE(worker.defragFile(ctx(), file, extents, defragged));
    if (out != nullptr) *out = extents;
    return defragged;
  }
};

enum class Mover { kDefrag, kLeftBorder, kBetterPlace };

// One file "f" on a 6000-cluster volume where only `freeRuns` are free.
struct PlacementCase {
  const char* name;
  Mover mover;
  bool compressed;  // pieces are (lcn, units of 12 stored clusters)
  Pieces pieces;
  Pieces freeRuns;  // inclusive (first, last)
  bool moved;
  Pieces after;      // the file's clusters afterwards
  int moves;         // -1: not checked
  int64_t firstLcn;  // -1: not checked
  uint64_t largestMove;  // 0: not checked
};

class PlacementTest : public DefragFileTest, public ::testing::WithParamInterface<PlacementCase> {};

TEST_P(PlacementTest, FileEndsWhereTheMoverChooses) {
  const PlacementCase& c = GetParam();
  makeDisk(6000);
  if (c.compressed) {
    placeCompressed(L"f", c.pieces);
  } else {
    place(L"f", c.pieces);
  }
  keepFreeOnly(c.freeRuns);
  bool moved = false;
  if (c.mover == Mover::kDefrag) {
    ExtentList after;
    moved = defrag(L"f", &after);
    EXPECT_EQ(worker.passCounters().defragged, c.moved ? 1 : 0);
    if (c.moved) {
      EXPECT_EQ(after.size(), 1u);
    }
  } else {
    CDfrgFile& file = open(L"f");
    ExtentList extents = extentsOf(file);
    snapshot();
    if (c.mover == Mover::kLeftBorder) {
      EXPECT_TRUE(worker.moveToLeftBorder(ctx(), file, extents, moved));
      EXPECT_EQ(extents.size(), 1u);
    } else {
      EXPECT_TRUE(worker.moveToBetterPlace(ctx(), file, extents, moved));
    }
    EXPECT_EQ(worker.passCounters().moved, c.moved ? 1 : 0);
  }
  EXPECT_EQ(moved, c.moved);
  EXPECT_EQ(layout(L"f"), c.after);
  auto moves = probe->moveList();
  if (c.moves >= 0) {
    EXPECT_EQ(static_cast<int>(moves.size()), c.moves);
  }
  if (c.firstLcn >= 0) {
    ASSERT_FALSE(moves.empty());
    EXPECT_EQ(moves.front().StartingLcn.QuadPart, c.firstLcn);
  }
  if (c.largestMove > 0) {
    for (auto& m : moves) EXPECT_LE(m.ClusterCount, c.largestMove);
  }
}

const PlacementCase kPlacements[] = {
    // Best fit: an exact fit ends the search; otherwise the smallest run that holds the file.
    {"ExactFit", Mover::kDefrag, false, {{1000, 25}, {1100, 25}}, {{100, 199}, {300, 349}, {400, 459}, {500, 549}},
     true, {{300, 50}}, -1, -1, 0},
    {"SmallestRunThatHolds", Mover::kDefrag, false, {{1000, 30}, {1100, 25}}, {{100, 199}, {300, 369}, {400, 459}},
     true, {{400, 55}}, -1, -1, 0},
    {"OnePieceLeftAlone", Mover::kDefrag, false, {{1000, 30}}, {{100, 199}}, false, {{1000, 30}}, 0, -1, 0},
    // Left border: a small gap before a long file parks it in the first run that holds it, then moves it back.
    {"ParkAndReturn", Mover::kLeftBorder, false, {{1000, 100}}, {{990, 999}, {5000, 5199}}, true, {{990, 100}}, 2,
     5000, 0},
    {"SlideInPiecesOfTheGap", Mover::kLeftBorder, false, {{1000, 100}}, {{960, 999}}, true, {{960, 100}}, 3, 960, 40},
    {"AtMostThreeGapsSlides", Mover::kLeftBorder, false, {{1000, 30}}, {{990, 999}, {5000, 5199}}, true, {{990, 30}},
     3, 990, 10},
    // The file is short enough to slide (24 <= 3 * 10), but the gap is smaller than a compression unit.
    {"GapSmallerThanAUnitParks", Mover::kLeftBorder, true, {{1008, 2}}, {{998, 1007}, {5000, 5199}}, true,
     {{998, 24}}, 2, 5000, 0},
    {"NoGapNoMove", Mover::kLeftBorder, false, {{1000, 30}}, {{1030, 1999}}, false, {{1000, 30}}, 0, -1, 0},
    // Better place: free on both sides and no better run hands over to the left move (slid by the whole gap).
    {"HandedToTheLeftMove", Mover::kBetterPlace, false, {{1000, 50}}, {{950, 999}, {1050, 1099}}, true, {{950, 50}},
     -1, -1, 0},
    // The rest of a tighter run stays free on the side that faces the old place.
    {"EndOfATighterRun", Mover::kBetterPlace, false, {{1000, 50}}, {{1050, 1059}, {3000, 3054}}, true, {{3005, 50}},
     -1, -1, 0},
    {"RunLargerThanTheHoleLeft", Mover::kBetterPlace, false, {{1000, 50}}, {{1050, 1059}, {3000, 3199}}, false,
     {{1000, 50}}, 0, -1, 0},
    {"NoFreeNeighbours", Mover::kBetterPlace, false, {{1000, 50}}, {{3000, 3049}}, false, {{1000, 50}}, 0, -1, 0},
};

INSTANTIATE_TEST_SUITE_P(Movers, PlacementTest, ::testing::ValuesIn(kPlacements),
                         [](const ::testing::TestParamInfo<PlacementCase>& info) { return info.param.name; });

// How a defragmented file is cut into moves: MaxClusterMoveCount 0 moves it in
// one call, the default 1024 in pieces, compressed files in whole units.
struct MoveSizeCase {
  const char* name;
  int maxMove;  // -1: the default
  bool compressed;
  Pieces pieces;
  std::vector<DWORD> moves;
};

class MoveSizeTest : public DefragFileTest, public ::testing::WithParamInterface<MoveSizeCase> {};

TEST_P(MoveSizeTest, FileMovesInPiecesOfTheSetting) {
  const MoveSizeCase& c = GetParam();
  if (c.maxMove >= 0) config->overrideMaxClusterMoveCount(c.maxMove);
  makeDisk(20000);
  if (c.compressed) {
    placeCompressed(L"f", c.pieces);
  } else {
    place(L"f", c.pieces);
  }
  EXPECT_TRUE(defrag(L"f"));
  std::vector<DWORD> counts;
  for (auto& m : probe->moveList()) {
    counts.push_back(m.ClusterCount);
    if (c.compressed) {
      EXPECT_EQ(m.StartingVcn.QuadPart % 16, 0);
    }
  }
  EXPECT_EQ(counts, c.moves);
  EXPECT_EQ(layout(L"f").size(), 1u);
}

INSTANTIATE_TEST_SUITE_P(
    Settings, MoveSizeTest,
    ::testing::Values(MoveSizeCase{"Unbounded", 0, false, {{10000, 1000}, {12000, 1000}, {14000, 1000}}, {3000}},
                      MoveSizeCase{"Default", -1, false, {{10000, 1500}, {12000, 1000}}, {1024, 1024, 452}},
                      // 1000 rounded down to a multiple of 16
                      MoveSizeCase{"CompressedUnits", 1000, true, {{10000, 64}, {12000, 64}}, {992, 992, 64}}),
    [](const ::testing::TestParamInfo<MoveSizeCase>& info) { return info.param.name; });

TEST_F(DefragFileTest, CompressionUnitLargerThanTheMoveSizeIsImpossibleAndGivenUp) {
  config->overrideMaxClusterMoveCount(8);
  makeDisk(4000);
  placeCompressed(L"packed", {{1000, 2}, {2000, 2}}, 16);
  EXPECT_FALSE(defrag(L"packed"));
  EXPECT_TRUE(probe->moveList().empty());
  EXPECT_EQ(layout(L"packed"), (Pieces{{1000, 32}, {2000, 32}}));
  auto gaveUp = logged("Error defragmenting File. Giving up.");
  ASSERT_EQ(gaveUp.size(), 1u);
  EXPECT_EQ(gaveUp[0].priority, kLogWarning);
  EXPECT_EQ(property(gaveUp[0], "Error"), "-18");
  EXPECT_EQ(property(gaveUp[0], "Number of Clusters"), "64");
  EXPECT_EQ(worker.passCounters().errors, 1);
  EXPECT_EQ(worker.passCounters().defragged, 0);
}

class RefusedMoveTest : public DefragFileTest, public ::testing::WithParamInterface<std::pair<DWORD, int>> {};

TEST_P(RefusedMoveTest, ThreeAttemptsThenTheWarning) {
  makeDisk(4000);
  place(L"f", {{1000, 20}, {2000, 20}});
  keepFreeOnly({{100, 139}, {200, 249}, {300, 399}});
  disk->failMoves(3, GetParam().first);
  EXPECT_FALSE(defrag(L"f"));
  auto moves = probe->moveList();
  ASSERT_EQ(moves.size(), 3u);
  // The second attempt's target is excluded from the third search.
  EXPECT_EQ(moves[0].StartingLcn.QuadPart, 100);
  EXPECT_EQ(moves[1].StartingLcn.QuadPart, 100);
  EXPECT_EQ(moves[2].StartingLcn.QuadPart, 200);
  auto gaveUp = logged("Error defragmenting File. Giving up.");
  ASSERT_EQ(gaveUp.size(), 1u);
  EXPECT_EQ(property(gaveUp[0], "Error"), std::to_string(GetParam().second));
  EXPECT_EQ(property(gaveUp[0], "Target LCN"), "200");
  EXPECT_EQ(worker.passCounters().errors, 1);
  EXPECT_EQ(layout(L"f"), (Pieces{{1000, 20}, {2000, 20}}));
}

INSTANTIATE_TEST_SUITE_P(Errors, RefusedMoveTest,
                         ::testing::Values(std::make_pair(DWORD{5}, 5), std::make_pair(DWORD{87}, 87),
                                           std::make_pair(DWORD{1117}, -20)));

TEST_F(DefragFileTest, OneRefusedMoveIsRetriedAndSucceeds) {
  makeDisk(4000);
  place(L"f", {{1000, 20}, {2000, 20}});
  disk->failMoves(1, ERROR_ACCESS_DENIED);
  EXPECT_TRUE(defrag(L"f"));
  EXPECT_EQ(layout(L"f").size(), 1u);
  EXPECT_EQ(worker.passCounters().errors, 0);
  EXPECT_EQ(worker.passCounters().defragged, 1);
}

// Free space made of runs of 99 clusters, none of which holds a 100-cluster
// file: 4096 clusters beyond the file's size are the margin between a file
// deferred for later and one that can only be helped by freeing space.
class SpaceOnlyTest : public DefragFileTest, public ::testing::WithParamInterface<bool> {};

TEST_P(SpaceOnlyTest, TheMarginDecidesBetweenDeferredAndSpaceOnly) {
  const bool spaceOnly = GetParam();
  makeDisk(20000);
  place(L"f", {{19000, 50}, {19500, 50}});
  Pieces runs;
  for (uint64_t at = 0, left = spaceOnly ? 100 + 4095 : 100 + 4096; left > 0;) {
    uint64_t len = std::min<uint64_t>(99, left);
    runs.push_back({at, at + len - 1});
    at += len + 1;
    left -= len;
  }
  keepFreeOnly(runs);
  DfrgThreadTestPeer::scanInProgress(worker) = true;
  EXPECT_FALSE(defrag(L"f"));
  EXPECT_EQ(worker.passCounters().nonDefraggable, 1);
  EXPECT_EQ(worker.passCounters().spaceOnly, spaceOnly ? 1 : 0);
  EXPECT_EQ(worker.deferredFiles(), spaceOnly ? std::vector<std::wstring>{} : std::vector<std::wstring>{L"C:\\f"});
  EXPECT_TRUE(probe->moveList().empty());
}

INSTANTIATE_TEST_SUITE_P(Margin, SpaceOnlyTest, ::testing::Bool());

TEST(DeferredListTest, TheThousandAndFirstFileEmptiesTheListAndStopsDeferring) {
  DfrgThread worker("");
  for (int i = 0; i < 1000; ++i) worker.deferFile(L"C:\\f" + std::to_wstring(i));
  EXPECT_EQ(worker.deferredFiles().size(), 1000u);
  EXPECT_FALSE(worker.deferredOverflow());
  worker.deferFile(L"C:\\one-too-many");
  EXPECT_TRUE(worker.deferredFiles().empty());
  EXPECT_TRUE(worker.deferredOverflow());
  worker.resetPassStatistics();
  EXPECT_FALSE(worker.deferredOverflow());
}

}  // namespace
}  // namespace glidewell
