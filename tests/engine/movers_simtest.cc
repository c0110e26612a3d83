// The three movers on a simulated volume: where files go, in what pieces,
// and what is counted and logged when moves fail. Every test ends with the
// disk verified (see the fixture).
#include "tests/engine/sim_engine_fixture.h"

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

TEST_F(DefragFileTest, ExactFitEndsTheSearchAndTheFileIsWholeThere) {
  makeDisk(2000);
  place(L"f", {{1000, 25}, {1100, 25}});
  keepFreeOnly({{100, 199}, {300, 349}, {400, 459}, {500, 549}});
  ExtentList after;
  EXPECT_TRUE(defrag(L"f", &after));
  EXPECT_EQ(layout(L"f"), (Pieces{{300, 50}}));
  EXPECT_EQ(after.size(), 1u);
  EXPECT_EQ(worker.defraggedCount, 1);
}

TEST_F(DefragFileTest, SmallestRunThatHoldsTheFileIsChosen) {
  makeDisk(2000);
  place(L"f", {{1000, 30}, {1100, 25}});
  keepFreeOnly({{100, 199}, {300, 369}, {400, 459}});
  EXPECT_TRUE(defrag(L"f"));
  EXPECT_EQ(layout(L"f"), (Pieces{{400, 55}}));
}

TEST_F(DefragFileTest, FileInOnePieceIsLeftAloneAndItsFlagUntouched) {
  makeDisk(2000);
  place(L"f", {{1000, 30}});
  CDfrgFile& file = open(L"f");
  ExtentList extents = extentsOf(file);
  snapshot();
  bool defragged = true;  // the caller's value stays
  EXPECT_TRUE(worker.defragFile(ctx(), file, extents, defragged));
  EXPECT_TRUE(defragged);
  EXPECT_TRUE(probe->moveList().empty());
  EXPECT_EQ(worker.defraggedCount, 0);
}

TEST_F(DefragFileTest, WholeFileMovesInOneCallWhenTheMoveSizeIsUnbounded) {
  config->overrideMaxClusterMoveCount(0);
  makeDisk(20000);
  place(L"big", {{10000, 1000}, {12000, 1000}, {14000, 1000}});
  EXPECT_TRUE(defrag(L"big"));
  auto moves = probe->moveList();
  ASSERT_EQ(moves.size(), 1u);
  EXPECT_EQ(moves[0].ClusterCount, 3000u);
}

TEST_F(DefragFileTest, LargeFileMovesInPiecesOfTheSetting) {
  makeDisk(20000);
  place(L"big", {{10000, 1500}, {12000, 1000}});
  EXPECT_TRUE(defrag(L"big"));
  auto moves = probe->moveList();
  ASSERT_EQ(moves.size(), 3u);
  EXPECT_EQ(moves[0].ClusterCount, 1024u);
  EXPECT_EQ(moves[1].ClusterCount, 1024u);
  EXPECT_EQ(moves[2].ClusterCount, 452u);
  EXPECT_EQ(layout(L"big").size(), 1u);
}

TEST_F(DefragFileTest, CompressedFileMovesInWholeUnits) {
  config->overrideMaxClusterMoveCount(1000);
  makeDisk(20000);
  placeCompressed(L"packed", {{10000, 64}, {12000, 64}});
  EXPECT_TRUE(defrag(L"packed"));
  auto moves = probe->moveList();
  ASSERT_EQ(moves.size(), 3u);
  EXPECT_EQ(moves[0].ClusterCount, 992u);  // 1000 rounded down to a multiple of 16
  EXPECT_EQ(moves[1].ClusterCount, 992u);
  EXPECT_EQ(moves[2].ClusterCount, 64u);
  for (auto& m : moves) EXPECT_EQ(m.StartingVcn.QuadPart % 16, 0);
  EXPECT_EQ(layout(L"packed").size(), 1u);
}

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
  EXPECT_EQ(worker.errorCount, 1);
  EXPECT_EQ(worker.defraggedCount, 0);
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
  EXPECT_EQ(worker.errorCount, 1);
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
  EXPECT_EQ(worker.errorCount, 0);
  EXPECT_EQ(worker.defraggedCount, 1);
}

// Free space made of runs of 99 clusters, none of which holds a 100-cluster file.
class SpaceOnlyTest : public DefragFileTest {
 protected:
  void build(uint64_t freeClusters) {
    makeDisk(20000);
    place(L"f", {{19000, 50}, {19500, 50}});
    std::vector<std::pair<uint64_t, uint64_t>> runs;
    uint64_t at = 0;
    while (freeClusters > 0) {
      uint64_t len = std::min<uint64_t>(99, freeClusters);
      runs.push_back({at, at + len - 1});
      at += len + 1;
      freeClusters -= len;
    }
    keepFreeOnly(runs);
    worker.scanInProgress = true;
  }
};

TEST_F(SpaceOnlyTest, EnoughSpaceOverallMeansNotSpaceOnlyAndTheFileIsDeferred) {
  build(100 + 4096);
  EXPECT_FALSE(defrag(L"f"));
  EXPECT_EQ(worker.nonDefraggableCount, 1);
  EXPECT_EQ(worker.spaceOnlyCount, 0);
  ASSERT_EQ(worker.deferred.size(), 1u);
  EXPECT_EQ(worker.deferred[0], L"C:\\f");
  EXPECT_TRUE(probe->moveList().empty());
}

TEST_F(SpaceOnlyTest, LessThanTheMarginIsSpaceOnlyAndNotDeferred) {
  build(100 + 4095);
  EXPECT_FALSE(defrag(L"f"));
  EXPECT_EQ(worker.nonDefraggableCount, 1);
  EXPECT_EQ(worker.spaceOnlyCount, 1);
  EXPECT_TRUE(worker.deferred.empty());
}

TEST(DeferredListTest, TheThousandAndFirstFileEmptiesTheListAndStopsDeferring) {
  DfrgThread worker("");
  for (int i = 0; i < 1000; ++i) worker.deferFile(L"C:\\f" + std::to_wstring(i));
  EXPECT_EQ(worker.deferred.size(), 1000u);
  EXPECT_FALSE(worker.deferredOverflow);
  worker.deferFile(L"C:\\one-too-many");
  EXPECT_TRUE(worker.deferred.empty());
  EXPECT_TRUE(worker.deferredOverflow);
  worker.resetPassStatistics();
  EXPECT_FALSE(worker.deferredOverflow);
}

class LeftBorderTest : public SimEngineTest {
 protected:
  bool moveLeft(const std::wstring& name) {
    CDfrgFile& file = open(name);
    ExtentList extents = extentsOf(file);
    snapshot();
    bool moved = false;
    EXPECT_TRUE(worker.moveToLeftBorder(ctx(), file, extents, moved));
    EXPECT_EQ(extents.size(), 1u);
    return moved;
  }
};

TEST_F(LeftBorderTest, SmallGapBeforeALongFileParksItAndMovesItBack) {
  makeDisk(6000);
  place(L"f", {{1000, 100}});
  keepFreeOnly({{990, 999}, {5000, 5199}});
  EXPECT_TRUE(moveLeft(L"f"));
  auto moves = probe->moveList();
  ASSERT_EQ(moves.size(), 2u);
  EXPECT_EQ(moves[0].StartingLcn.QuadPart, 5000);  // the first run that holds it
  EXPECT_EQ(moves[1].StartingLcn.QuadPart, 990);
  EXPECT_EQ(layout(L"f"), (Pieces{{990, 100}}));
  EXPECT_EQ(worker.movedCount, 1);
}

TEST_F(LeftBorderTest, GapOfThirtyOrMoreSlidesInPiecesNoLongerThanTheGap) {
  makeDisk(6000);
  place(L"f", {{1000, 100}});
  keepFreeOnly({{960, 999}});
  EXPECT_TRUE(moveLeft(L"f"));
  auto moves = probe->moveList();
  ASSERT_EQ(moves.size(), 3u);
  for (auto& m : moves) EXPECT_LE(m.ClusterCount, 40u);
  EXPECT_EQ(moves[0].StartingLcn.QuadPart, 960);
  EXPECT_EQ(layout(L"f"), (Pieces{{960, 100}}));
}

TEST_F(LeftBorderTest, FileAtMostThreeTimesTheGapSlides) {
  makeDisk(6000);
  place(L"f", {{1000, 30}});
  keepFreeOnly({{990, 999}, {5000, 5199}});
  EXPECT_TRUE(moveLeft(L"f"));
  EXPECT_EQ(probe->moveList().size(), 3u);  // three slides of 10, no parking
  EXPECT_EQ(layout(L"f"), (Pieces{{990, 30}}));
}

TEST_F(LeftBorderTest, GapSmallerThanTheCompressionUnitParksTheFile) {
  makeDisk(6000);
  placeCompressed(L"c", {{1008, 4}});  // 4 units of 12 stored clusters
  keepFreeOnly({{998, 1007}, {5000, 5199}});
  EXPECT_TRUE(moveLeft(L"c"));
  auto moves = probe->moveList();
  ASSERT_GE(moves.size(), 2u);
  EXPECT_EQ(moves.front().StartingLcn.QuadPart, 5000);
  EXPECT_EQ(layout(L"c"), (Pieces{{998, 48}}));
}

TEST_F(LeftBorderTest, NoGapBeforeTheFileMovesNothing) {
  makeDisk(6000);
  place(L"f", {{1000, 30}});
  keepFreeOnly({{1030, 1999}});
  EXPECT_FALSE(moveLeft(L"f"));
  EXPECT_TRUE(probe->moveList().empty());
}

class BetterPlaceTest : public SimEngineTest {
 protected:
  bool moveBetter(const std::wstring& name) {
    CDfrgFile& file = open(name);
    ExtentList extents = extentsOf(file);
    snapshot();
    bool moved = false;
    EXPECT_TRUE(worker.moveToBetterPlace(ctx(), file, extents, moved));
    return moved;
  }
};

TEST_F(BetterPlaceTest, FreeSpaceOnBothSidesAndNoBetterRunIsHandedToTheLeftMove) {
  makeDisk(6000);
  place(L"f", {{1000, 50}});
  keepFreeOnly({{950, 999}, {1050, 1099}});
  EXPECT_TRUE(moveBetter(L"f"));
  EXPECT_EQ(layout(L"f"), (Pieces{{950, 50}}));  // slid by the whole gap
}

TEST_F(BetterPlaceTest, FileGoesToTheEndOfATighterRunOnItsRight) {
  makeDisk(6000);
  place(L"f", {{1000, 50}});
  keepFreeOnly({{1050, 1059}, {3000, 3054}});
  EXPECT_TRUE(moveBetter(L"f"));
  // The rest of the run stays free on the side that faces the old place.
  EXPECT_EQ(layout(L"f"), (Pieces{{3005, 50}}));
  EXPECT_EQ(worker.movedCount, 1);
}

TEST_F(BetterPlaceTest, RunLargerThanTheHoleTheMoveWouldLeaveIsNotUsed) {
  makeDisk(6000);
  place(L"f", {{1000, 50}});
  keepFreeOnly({{1050, 1059}, {3000, 3199}});  // 200 > 0 + 50 + 10
  EXPECT_FALSE(moveBetter(L"f"));
  EXPECT_TRUE(probe->moveList().empty());
}

TEST_F(BetterPlaceTest, FileWithoutFreeNeighboursStays) {
  makeDisk(6000);
  place(L"f", {{1000, 50}});
  keepFreeOnly({{3000, 3049}});
  EXPECT_FALSE(moveBetter(L"f"));
  EXPECT_TRUE(probe->moveList().empty());
}

}  // namespace
}  // namespace glidewell
