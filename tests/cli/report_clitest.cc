// The figures and tables the host prints.
#include <gtest/gtest.h>

#include "cli/report_table.h"
#include "cli_test_util.h"

namespace glidewell {
namespace {

TEST(ReportFormat, ChangesCarrySignAndShareAndNeverRoundToZero) {
  EXPECT_EQ(formatChange(141, 0), "-141 (-100%)");
  EXPECT_EQ(formatChange(423, 109), "-314 (-74%)");  // 74.2% shown whole, not rounded up
  EXPECT_EQ(formatChange(4, 6), "+2 (+50%)");
  EXPECT_EQ(formatChange(7, 7), "0");
  // Nothing before: no share to give.
  EXPECT_EQ(formatChange(0, 5), "+5");
  // A change under one percent is still a change.
  EXPECT_EQ(formatChange(211547, 211551), "+4 (+<1%)");
  // Counts past 32 bits.
  EXPECT_EQ(formatChange(uint64_t{1} << 40, 0), "-1099511627776 (-100%)");
}

TEST(ReportFormat, SizesAndTimes) {
  EXPECT_EQ(formatBytes(0), "0 B");
  EXPECT_EQ(formatBytes(1023), "1023 B");
  EXPECT_EQ(formatBytes(1024), "1.0 KiB");
  EXPECT_EQ(formatBytes(10162ull * 4096), "39.7 MiB");
  // Just below a unit boundary does not print "1024.0 KiB".
  EXPECT_EQ(formatBytes(1024ull * 1024 - 1), "1.0 MiB");
  EXPECT_EQ(formatBytes(uint64_t{4} << 30), "4.0 GiB");
  EXPECT_EQ(formatClusters(3, 4096), "3 (12.0 KiB)");
  EXPECT_EQ(formatSeconds(0.0712), "0.07 s");
  EXPECT_EQ(formatSeconds(12.34), "12.3 s");
  EXPECT_EQ(formatSeconds(125.4), "2 min 05 s");
  EXPECT_EQ(formatSeconds(-1), "0.00 s");
}

TEST(ReportTable, ColumnsLineUpWithNumbersRightAndTextLeft) {
  TextTable table({"", "before", "after"});
  table.addRow({"files", "5", "12345"});
  table.addRow({"fragmented files", "100", "0"});
  table.addRow({"short"});  // missing cells are blank
  EXPECT_EQ(table.render(),
            "                  before  after\n"
            "files                  5  12345\n"
            "fragmented files     100      0\n"
            "short\n");
  TextTable text({"name", "value"});
  text.alignLeft(1);
  text.addRow({"dumpPath", "c:\\volumeDump.vdf"});
  text.addRow({"DoMoveLeft", "0"});
  EXPECT_EQ(text.render(),
            "name        value\n"
            "dumpPath    c:\\volumeDump.vdf\n"
            "DoMoveLeft  0\n");
}

VolumeSnapshot volumeWith(uint64_t files, uint64_t fragmented, uint64_t fragments, uint64_t freeRuns,
                          uint64_t largest) {
  VolumeSnapshot v;
  v.geometry.totalClusters = 1000;
  v.stats.files = files;
  v.stats.fragmentedFiles = fragmented;
  v.stats.fragments = fragments;
  v.stats.freeRuns = freeRuns;
  v.stats.largestFreeRun = largest;
  return v;
}

TEST(ReportTable, ComparisonPutsEachFigureInItsRowAndColumn) {
  VolumeSnapshot before = volumeWith(50, 9, 70, 30, 100), after = volumeWith(50, 2, 55, 12, 160);
  std::string out = comparisonTable(before, after, 321, 1.5).render();
  EXPECT_EQ(tableValue(out, "files", 1), 50);
  EXPECT_EQ(tableValue(out, "fragmented files", 1), 9);
  EXPECT_EQ(tableValue(out, "fragmented files", 2), 2);
  EXPECT_EQ(tableValue(out, "extents (fragments)", 2), 55);
  EXPECT_EQ(tableValue(out, "free runs", 1), 30);
  EXPECT_EQ(tableValue(out, "free runs", 2), 12);
  EXPECT_NE(out.find("-7 (-77%)"), std::string::npos) << out;
  EXPECT_NE(out.find("100 (400.0 KiB)"), std::string::npos) << out;
  EXPECT_NE(out.find("160 (640.0 KiB)"), std::string::npos) << out;
  // Clusters moved and the time belong to the run: only in the "after" column.
  EXPECT_EQ(tableValue(out, "clusters moved", 1), 321);
  EXPECT_NE(out.find("1.50 s"), std::string::npos);

  std::string one = volumeTable(before).render();
  EXPECT_EQ(tableValue(one, "fragmented files", 1), 9);
  EXPECT_EQ(tableValue(one, "clusters moved", 1), -1);
}

TEST(ReportTable, VolumeLineGivesSizeAndShareInUse) {
  VolumeSnapshot v = volumeWith(1545, 0, 0, 0, 0);
  v.geometry.totalClusters = 65536;
  v.geometry.label = L"Demo";
  v.stats.freeClusters = 26214;  // 60% in use
  v.stats.directories = 48;
  EXPECT_EQ(describeVolume(L'C', v),
            "C: \"Demo\" NTFS 65536 clusters of 4096 bytes (256.0 MiB), 60% in use, 1545 files in 48 directories");
}

}  // namespace
}  // namespace glidewell
