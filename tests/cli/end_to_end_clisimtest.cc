// The glidewell command running the engine through its exports on small
// simulated volumes: the pass defragments, the images stay whole, and a run
// that fails leaves the originals alone.
#include <gtest/gtest.h>

#include <fstream>

#include "cli/host_files.h"
#include "cli/image_io.h"
#include "cli/volume_metrics.h"
#include "cli_test_util.h"
#include "support/temp_dir.h"

namespace glidewell {
namespace {

class EndToEnd : public ::testing::Test {
 protected:
  std::string makeImage(const std::string& name, uint64_t seed) { return writeAgedImage(dir_.file(name), seed, 0.5); }
  CommandResult run(const std::vector<std::string>& args) { return runGlidewell(args, dir_.native()); }

  TempDir dir_;
};

TEST_F(EndToEnd, RunDefragmentsTheImagesAndReplacesThemWhole) {
  std::string c = makeImage("c.vdf", 11), d = makeImage("d.vdf", 12);
  VolumeSnapshot beforeC = takeSnapshot(*loadImage(c).disk), beforeD = takeSnapshot(*loadImage(d).disk);
  ASSERT_GT(beforeC.stats.fragmentedFiles, 0u);
  ASSERT_GT(beforeD.stats.fragmentedFiles, 0u);
  std::string home = dir_.file("home");

  CommandResult r = run({"run", c, d, "--dir", home, "--maps", dir_.file("maps")});
  ASSERT_EQ(r.status, 0) << r.out << r.err;
  EXPECT_EQ(r.err, "");
  // Both drives' tables: fewer fragmented files after the pass.
  size_t second = r.out.find("\nD: \"Aged\"");
  ASSERT_NE(second, std::string::npos) << r.out;
  std::string tableC = r.out.substr(0, second), tableD = r.out.substr(second);
  EXPECT_EQ(tableValue(tableC, "fragmented files", 1), static_cast<int64_t>(beforeC.stats.fragmentedFiles));
  EXPECT_LT(tableValue(tableC, "fragmented files", 2), tableValue(tableC, "fragmented files", 1)) << tableC;
  EXPECT_LT(tableValue(tableD, "fragmented files", 2), tableValue(tableD, "fragmented files", 1)) << tableD;
  EXPECT_NE(tableC.find("check: C: verify() holds"), std::string::npos);
  EXPECT_NE(tableD.find("check: D: verify() holds"), std::string::npos);
  EXPECT_NE(r.out.find("the pass ended"), std::string::npos);

  // The originals now hold the result: they verify, keep every file, and
  // have as few fragmented files as the table said.
  for (auto [path, before, table] : {std::make_tuple(c, &beforeC, &tableC), std::make_tuple(d, &beforeD, &tableD)}) {
    VolumeSnapshot after = takeSnapshot(*loadImage(path).disk);
    EXPECT_EQ(after.verifyProblem, "");
    EXPECT_EQ(compareContents(before->files, after.files), "");
    EXPECT_EQ(static_cast<int64_t>(after.stats.fragmentedFiles), tableValue(*table, "fragmented files", 2));
    EXPECT_LE(after.stats.freeRuns, before->stats.freeRuns);
    EXPECT_GT(countMovedClusters(before->files, after.files), 0u);
  }
  // The install directory gave its copies back, and kept the engine's log
  // (which never reached the console) and statistics.
  EXPECT_FALSE(pathExists(home + "/volumes/C.vdf"));
  EXPECT_FALSE(pathExists(home + "/volumes/D.vdf"));
  EXPECT_NE(fileText(home + "/glidewell.log").find("Log started"), std::string::npos);
  EXPECT_EQ(r.out.find("Log started"), std::string::npos);
  EXPECT_TRUE(pathExists(dir_.file("maps/C-before.png")));
  EXPECT_TRUE(pathExists(dir_.file("maps/D-after.png")));
  // The engine writes its counters at most once a second and a pass this
  // short may end before the first write, so only the rows are certain.
  CommandResult stats = run({"stats", "--dir", home});
  ASSERT_EQ(stats.status, 0) << stats.err;
  EXPECT_GE(tableValue(stats.out, "last run", 1), 0) << stats.out;
  EXPECT_GE(tableValue(stats.out, "all time", 3), 0) << stats.out;
}

TEST_F(EndToEnd, ARunThatEndsInAnErrorLeavesTheOriginalsAlone) {
  std::string c = makeImage("c.vdf", 21);
  std::vector<uint8_t> original = readWholeFile(c);
  std::string home = dir_.file("home");
  // With its only drive switched off, the engine has nothing to do: -21.
  ASSERT_EQ(run({"config", "set", "C:/enabled", "0", "--dir", home}).status, 0);
  CommandResult r = run({"run", c, "--dir", home});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("the engine ended the run with error -21 (ErrorNoVolumesSelected)"), std::string::npos) << r.err;
  EXPECT_NE(r.err.find("the originals are unchanged"), std::string::npos) << r.err;
  EXPECT_EQ(readWholeFile(c), original);
  EXPECT_FALSE(pathExists(home + "/volumes/C.vdf")) << "an unchanged copy is not kept";
  // Switched on again, the same install directory runs.
  ASSERT_EQ(run({"config", "set", "C:/enabled", "1", "--dir", home}).status, 0);
  r = run({"run", c, "--dir", home});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_NE(readWholeFile(c), original);
}

TEST_F(EndToEnd, DemoPrintsTheTableAndDrawsBothMaps) {
  std::string demo = dir_.file("demo");
  CommandResult r = run({"demo", "--dir", demo, "--clusters", "4096", "--seed", "3"});
  ASSERT_EQ(r.status, 0) << r.out << r.err;
  EXPECT_LT(tableValue(r.out, "fragmented files", 2), tableValue(r.out, "fragmented files", 1)) << r.out;
  EXPECT_GT(tableValue(r.out, "clusters moved", 1), 0) << r.out;
  EXPECT_NE(r.out.find("check: C: verify() holds"), std::string::npos);
  for (const char* name : {"/cluster-map-before.png", "/cluster-map-after.png"}) {
    EXPECT_NE(r.out.find(demo + name), std::string::npos) << "the path is printed";
    std::vector<uint8_t> png = readWholeFile(demo + name);
    ASSERT_GT(png.size(), 8u);
    EXPECT_EQ(std::string(png.begin() + 1, png.begin() + 4), "PNG");
  }
  // The demo's drive stays in its directory for `glidewell stats --dir`.
  EXPECT_EQ(loadImage(demo + "/volumes/C.vdf").disk->verify(), "");
  // Not twice in the same place: the drive is there already.
  r = run({"demo", "--dir", demo});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("already holds drive images"), std::string::npos);
}

}  // namespace
}  // namespace glidewell
