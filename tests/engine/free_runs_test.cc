// Queries over the free runs that choose where files go.
#include <gtest/gtest.h>

#include "engine/file_walk.h"
#include "engine/move_primitives.h"

namespace glidewell {
namespace {

FreeExtentList runsOfLengths(std::initializer_list<uint64_t> lengths) {
  // Runs separated by one used cluster each, starting at LCN 10.
  FreeExtentList runs;
  uint64_t at = 10;
  for (uint64_t len : lengths) {
    runs.push_back(ClusterRange(at, at + len - 1));
    at += len + 1;
  }
  return runs;
}

uint64_t startOf(const FreeExtentList& runs, size_t index) {
  auto it = runs.begin();
  std::advance(it, index);
  return it->start;
}

TEST(BestFitTest, ExactFitStopsTheSearchAndOnlyAStrictlyShorterRunReplaces) {
  struct Case {
    std::initializer_list<uint64_t> lengths;
    uint64_t size;
    int excluded;  // index of the run whose start is excluded, or -1
    int expected;  // index of the chosen run, or -1 for none
  };
  const Case cases[] = {
      {{100, 50, 60, 50}, 50, -1, 1},  // the first exact fit
      {{100, 70, 60}, 55, -1, 2},      // the smallest that holds it
      {{100, 70, 60}, 101, -1, -1},    // none holds it
      {{80, 80, 90}, 70, -1, 0},       // an equal later run does not replace
      {{80, 80, 90}, 70, 0, 1},        // the excluded start is skipped
  };
  for (const Case& c : cases) {
    FreeExtentList runs = runsOfLengths(c.lengths);
    uint64_t excluded = c.excluded < 0 ? kNoCluster : startOf(runs, c.excluded);
    uint64_t expected = c.expected < 0 ? kNoCluster : startOf(runs, c.expected);
    EXPECT_EQ(findBestFit(runs, c.size, excluded), expected) << c.size << " " << c.excluded;
  }
}

TEST(FreeRunQueriesTest, NeighboursOfAPosition) {
  FreeExtentList runs;
  runs.push_back(ClusterRange(0, 9));
  runs.push_back(ClusterRange(50, 99));
  runs.push_back(ClusterRange(200, 299));
  EXPECT_EQ(getFreeRunLengthAt(runs, 50), 50u);
  EXPECT_EQ(getFreeRunLengthAt(runs, 51), 0u);
  EXPECT_EQ(getFreeRunLengthAt(runs, 400), 0u);
  EXPECT_EQ(getFreeRunLengthEndingAt(runs, 100), 50u);
  EXPECT_EQ(getFreeRunLengthEndingAt(runs, 101), 0u);
  EXPECT_EQ(getFreeRunLengthEndingAt(runs, 0), 0u);
  EXPECT_EQ(findFreeRunBefore(runs, 10), 0u);
  EXPECT_EQ(findFreeRunBefore(runs, 300), 200u);
  EXPECT_EQ(findFreeRunBefore(runs, 150), kNoCluster);
  EXPECT_EQ(findFreeRunBefore(runs, kNoCluster), kNoCluster);
  EXPECT_EQ(findFirstFit(runs, 60), 200u);
  EXPECT_EQ(findFirstFit(runs, 5), 0u);
  EXPECT_EQ(findFirstFit(runs, 101), kNoCluster);
}

TEST(PathTest, ParentAndLeaf) {
  EXPECT_EQ(parentPath(L"C:\\a\\b"), L"C:\\a");
  EXPECT_EQ(parentPath(L"C:\\a"), L"C:");
  EXPECT_EQ(parentPath(L"C:"), L"");
  EXPECT_EQ(parentPath(L"C:\\a\\b\\"), L"C:\\a");  // trailing separator dropped first
  EXPECT_EQ(leafName(L"C:\\a\\b.txt"), L"b.txt");
  EXPECT_EQ(leafName(L"C:"), L"C:");
  EXPECT_EQ(leafName(L""), L"");
}

}  // namespace
}  // namespace glidewell
