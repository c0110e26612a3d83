// What the host measures on volumes: moved clusters, lost data, cluster maps.
#include <gtest/gtest.h>

#include "cli/cluster_map.h"
#include "cli/volume_metrics.h"
#include "sim/sim_disk.h"

namespace glidewell {
namespace {

SimRun stored(uint64_t vcn, uint64_t lcn, uint64_t length) { return SimRun{vcn, lcn, length, 0}; }
SimRun hole(uint64_t vcn, uint64_t length) { return SimRun{vcn, kNoCluster, length, 0}; }

SimFileInfo file(const std::wstring& path, std::vector<SimRun> runs, uint64_t size = 0) {
  SimFileInfo f;
  f.path = path;
  f.runs = std::move(runs);
  f.size = size;
  return f;
}

TEST(MovedClusters, CountsEveryStoredVcnThatSitsElsewhereHoweverTheRunsAreCut) {
  // Before: one run of 10 at LCN 100. After: VCN 0-3 stayed, 4-9 moved.
  // The after map is cut at other places than the before map.
  std::vector<SimFileInfo> before = {file(L"a", {stored(0, 100, 10)})};
  std::vector<SimFileInfo> after = {file(L"a", {stored(0, 100, 2), stored(2, 102, 2), stored(4, 500, 6)})};
  EXPECT_EQ(countMovedClusters(before, after), 6u);
  // A file that was in pieces and now sits in one run, partly where it was.
  before = {file(L"b", {stored(0, 10, 3), stored(3, 50, 3), stored(6, 16, 4)})};
  after = {file(L"b", {stored(0, 10, 10)})};
  EXPECT_EQ(countMovedClusters(before, after), 3u);  // only VCN 3-5 changed place
  // Nothing moved.
  EXPECT_EQ(countMovedClusters(before, before), 0u);
  // Holes (kept or filled in), and files on one side only, are not moves.
  before = {file(L"sparse", {stored(0, 100, 16), hole(16, 16), stored(32, 200, 16), hole(48, 16)}),
            file(L"gone", {stored(0, 300, 5)})};
  after = {file(L"sparse", {stored(0, 400, 16), hole(16, 16), stored(32, 200, 16), stored(48, 600, 16)}),
           file(L"new", {stored(0, 300, 5)})};
  EXPECT_EQ(countMovedClusters(before, after), 16u);
}

TEST(ContentCheck, NamesTheFirstThingLost) {
  std::vector<SimFileInfo> before = {file(L"d\\x", {stored(0, 10, 4)}, 16000), file(L"d\\y", {stored(0, 20, 2)}, 8000)};
  before.insert(before.begin(), file(L"d", {}));
  before[0].attributes = FILE_ATTRIBUTE_DIRECTORY;
  EXPECT_EQ(compareContents(before, before), "");

  std::vector<SimFileInfo> after = before;
  after[1].runs = {stored(0, 30, 1), stored(1, 40, 3)};  // moved, still four clusters
  EXPECT_EQ(compareContents(before, after), "");

  after[1].runs = {stored(0, 30, 3)};
  EXPECT_EQ(compareContents(before, after), "file d\\x holds 3 clusters instead of 4");
  after = before;
  after[2].size = 7999;
  EXPECT_EQ(compareContents(before, after), "file d\\y has 7999 bytes instead of 8000");
  after = before;
  after.pop_back();
  EXPECT_EQ(compareContents(before, after), "file d\\y is missing");
  after = before;
  after.erase(after.begin());
  EXPECT_EQ(compareContents(before, after), "directory d is missing");
  after = before;
  after.push_back(file(L"d\\z", {}));
  EXPECT_EQ(compareContents(before, after), "d\\z appeared");
}

TEST(ClusterMap, RangesFromAVolumeMarkFragmentedFilesAndTheFileSystem) {
  SimGeometry g;
  g.totalClusters = 256;
  SimDisk disk(g);
  ASSERT_EQ(disk.reserveSystemClusters(0, 16), 0u);
  ASSERT_EQ(disk.placeFile(L"whole", 0, 8 * 4096, {stored(0, 32, 8)}), 0u);
  ASSERT_EQ(disk.placeFile(L"broken", 0, 8 * 4096, {stored(0, 64, 4), stored(4, 128, 4)}), 0u);
  ASSERT_EQ(disk.createDirectory(L"dir"), 0u);
  std::vector<MapRange> ranges = clusterMapRanges(takeSnapshot(disk));
  auto stateAt = [&](uint64_t lcn) {
    CellState s = CellState::kFree;
    for (const MapRange& r : ranges) {
      if (r.first <= lcn && lcn <= r.last) s = r.state;
    }
    return s;
  };
  EXPECT_EQ(stateAt(0), CellState::kSystem);
  EXPECT_EQ(stateAt(15), CellState::kSystem);
  EXPECT_EQ(stateAt(16), CellState::kFree);
  EXPECT_EQ(stateAt(39), CellState::kContiguous);
  EXPECT_EQ(stateAt(64), CellState::kFragmented);
  EXPECT_EQ(stateAt(131), CellState::kFragmented);
  EXPECT_EQ(stateAt(132), CellState::kFree);
}

TEST(ClusterMap, EachCellShowsWhatHoldsMostOfItWithBrokenFilesCountedTwice) {
  // 10 cells of 10 clusters.
  std::vector<MapRange> ranges = {
      {0, 5, CellState::kContiguous},   // cell 0: 6 of 10 used
      {10, 13, CellState::kContiguous},  // cell 1: 4 used, 6 free
      {20, 22, CellState::kFragmented},  // cell 2: 3 broken (counted 6) against 7 free... free wins
      {30, 33, CellState::kFragmented},  // cell 3: 4 broken (8) against 6 free
      {40, 44, CellState::kSystem},      // cell 4: 5 against 5 free: the tie goes to the later state
      {45, 49, CellState::kFree},
      {55, 74, CellState::kContiguous},  // cells 5-7: a range across cell borders
      {95, 500, CellState::kSystem},     // past the end of the volume: cut
  };
  std::vector<CellState> cells = buildCells(100, ranges, 10);
  ASSERT_EQ(cells.size(), 10u);
  EXPECT_EQ(cells[0], CellState::kContiguous);
  EXPECT_EQ(cells[1], CellState::kFree);
  EXPECT_EQ(cells[2], CellState::kFree);
  EXPECT_EQ(cells[3], CellState::kFragmented);
  EXPECT_EQ(cells[4], CellState::kSystem);
  EXPECT_EQ(cells[5], CellState::kContiguous);  // 55-59 against 50-54 free: a tie
  EXPECT_EQ(cells[6], CellState::kContiguous);
  EXPECT_EQ(cells[7], CellState::kContiguous);
  EXPECT_EQ(cells[8], CellState::kFree);
  EXPECT_EQ(cells[9], CellState::kSystem);
}

TEST(ClusterMap, CellBordersDoNotLoseOrDoubleClusters) {
  // 7 clusters in 3 cells: [0,2) [2,4) [4,7). Every cluster used once.
  std::vector<CellState> cells = buildCells(7, {{0, 6, CellState::kContiguous}}, 3);
  EXPECT_EQ(cells, std::vector<CellState>(3, CellState::kContiguous));
  // One cluster of a broken file counts as two: it holds a 3-cluster cell
  // (2 against 2 free) but not a 4-cluster one (2 against 3).
  cells = buildCells(7, {{6, 6, CellState::kFragmented}}, 3);
  EXPECT_EQ(cells[2], CellState::kFragmented);
  cells = buildCells(7, {{6, 6, CellState::kFragmented}}, 2);
  EXPECT_EQ(cells[1], CellState::kFree);
  // More cells than clusters: one cell per cluster.
  EXPECT_EQ(buildCells(5, {}, 100).size(), 5u);
  EXPECT_TRUE(buildCells(0, {}, 100).empty());
  // Cells of a huge volume: no overflow in the cell arithmetic.
  uint64_t huge = uint64_t{1} << 62;
  cells = buildCells(huge, {{huge - 10, huge - 1, CellState::kSystem}, {0, huge / 2, CellState::kContiguous}}, 4);
  EXPECT_EQ(cells, (std::vector<CellState>{CellState::kContiguous, CellState::kContiguous, CellState::kFree,
                                           CellState::kFree}));
}

TEST(ClusterMap, PictureDrawsEveryCellInItsColourAndTheLegend) {
  ClusterMapPicture p;
  p.title = "C: test";
  p.caption = "caption";
  p.columns = 4;
  p.cells = {CellState::kFree, CellState::kSystem, CellState::kContiguous, CellState::kFragmented, CellState::kFree};
  int w = 0, h = 0;
  std::vector<uint8_t> pixels = renderClusterMap(p, &w, &h);
  ASSERT_EQ(pixels.size(), size_t(w) * h * 3);
  auto colourCount = [&](uint8_t r, uint8_t g, uint8_t b) {
    size_t n = 0;
    for (size_t i = 0; i + 2 < pixels.size(); i += 3) n += pixels[i] == r && pixels[i + 1] == g && pixels[i + 2] == b;
    return n;
  };
  // Cells are 5x5; the legend adds one 14x14 swatch of each colour.
  EXPECT_EQ(colourCount(222, 228, 234), 2 * 25 + 196u);  // free
  EXPECT_EQ(colourCount(220, 60, 46), 25 + 196u);        // fragmented
  EXPECT_EQ(colourCount(52, 118, 206), 25 + 196u);       // in one piece
  // The legend is wider than four cells, so the picture is as wide as it.
  EXPECT_GT(w, 4 * 6 + 24);
  std::string error;
  p.cells.clear();
  EXPECT_FALSE(writeClusterMapPng("/nonexistent-dir/x.png", p, &error));
  EXPECT_EQ(error, "nothing to draw");
}

}  // namespace
}  // namespace glidewell
