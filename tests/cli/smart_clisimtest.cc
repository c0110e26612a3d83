// The smart driver run by the glidewell command: catches a mode machine that
// never reaches react mode, react work the counters do not show, invalidated
// tracking that does not send the volume back to scan, and stops that lose
// the state files or the drive images.
#include <gtest/gtest.h>

#include <regex>

#include "cli/host_files.h"
#include "cli/image_io.h"
#include "cli_test_util.h"
#include "sim/sim_aging.h"
#include "support/temp_dir.h"

namespace glidewell {
namespace {

class SmartCommand : public ::testing::Test {
 protected:
  CommandResult run(const std::vector<std::string>& args, int sigtermAfterMs = 0) {
    return runGlidewell(args, dir_.native(), sigtermAfterMs);
  }
  // An aged, fragmented volume with many small files besides, so that users
  // at work touch many different files.
  std::string manyFilesImage(const std::string& name) {
    SimAgingOptions o;
    o.seed = 31;
    o.totalClusters = 1u << 18;
    o.fillRatio = 0.3;
    std::string error;
    std::unique_ptr<SimDisk> disk = ageDisk(o, &error);
    EXPECT_NE(disk, nullptr) << error;
    EXPECT_EQ(disk->createDirectory(L"s"), 0u);
    for (int i = 0; i < 20000; ++i) EXPECT_EQ(disk->createFile(L"s\\f" + std::to_wstring(i), 4096), 0u);
    std::string path = dir_.file(name);
    saveImage(*disk, L'C', path);
    return path;
  }
  // "run: processed N" of every plain status line that shows C: in react mode.
  static std::vector<long> processedInReact(const std::string& out) {
    std::vector<long> seen;
    std::regex line(R"(\| C: react, .*\| run: processed (\d+),)");
    for (const std::string& l : lines(out)) {
      std::smatch m;
      if (std::regex_search(l, m, line)) seen.push_back(std::stol(m[1]));
    }
    return seen;
  }
  static bool has(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

  TempDir dir_;
};

TEST_F(SmartCommand, ScanToReactTreatsChangedFilesAndInvalidatedTrackingGoesBackToScan) {
  std::string image = manyFilesImage("c.vdf");
  std::vector<uint8_t> original = readWholeFile(image);
  std::string home = dir_.file("home");

  // Light activity: the fragmented volume is scanned clean, then only the
  // files users change are treated, and the run counters show them.
  CommandResult a = run({"run", "--mode", "0", "--seconds", "7", "--activity", "40", "--dir", home, image});
  ASSERT_EQ(a.status, 0) << a.out << a.err;
  EXPECT_TRUE(has(a.out, "C: starts in scan, nothing stored yet")) << a.out;
  EXPECT_TRUE(has(a.out, "C: scan -> react")) << a.out;
  EXPECT_FALSE(has(a.out, "react -> scan")) << a.out;
  std::vector<long> react = processedInReact(a.out);
  ASSERT_GE(react.size(), 2u) << a.out;
  EXPECT_GT(react.back(), react.front()) << a.out;
  EXPECT_TRUE(has(a.out, "check: C: verify() holds")) << a.out;
  EXPECT_TRUE(has(a.out, "updated " + image)) << a.out;
  EXPECT_NE(readWholeFile(image), original);
  EXPECT_EQ(loadImage(image).disk->verify(), "");

  // Heavy activity: more than 20000 files change between two react steps,
  // the watcher gives up, and the volume goes back to scan mode.
  CommandResult b = run({"run", "--mode", "0", "--seconds", "8", "--activity", "10000", "--dir", home, image});
  ASSERT_EQ(b.status, 0) << b.out << b.err;
  EXPECT_TRUE(has(b.out, "C: starts in react")) << b.out;
  EXPECT_TRUE(has(b.out, "C: react -> scan")) << b.out;
  EXPECT_TRUE(has(fileText(home + "/glidewell.log"), "Change tracking invalidated. Switching to scan mode."));
  EXPECT_TRUE(has(b.out, "check: C: verify() holds")) << b.out;
  EXPECT_EQ(loadImage(image).disk->verify(), "");

  CommandResult stats = run({"stats", "--dir", home});
  ASSERT_EQ(stats.status, 0) << stats.err;
  EXPECT_TRUE(std::regex_search(stats.out, std::regex(R"(engine status: [134] \()"))) << stats.out;
  EXPECT_TRUE(std::regex_search(stats.out, std::regex(R"(\n  C: (scan|react), set [0-9.]+ (s|min) ago\n)")))
      << stats.out;
}

TEST_F(SmartCommand, SigtermStopsCleanlyAndKeepsTheStateAndTheImage) {
  std::string image = writeAgedImage(dir_.file("c.vdf"), 8, 0.5);
  std::vector<uint8_t> original = readWholeFile(image);
  std::string home = dir_.file("home");
  CommandResult r = run({"run", "--mode", "0", "--activity", "20", "--dir", home, image}, 3000);
  ASSERT_EQ(r.status, 0) << r.out << r.err;
  EXPECT_TRUE(has(r.out, "interrupted after")) << r.out;
  EXPECT_TRUE(has(r.out, "C: scan -> react")) << r.out;
  // The worker saved where it was, and the tracker of a volume in react mode
  // saved that it was watching, so the next run goes on without a scan.
  std::vector<uint8_t> resume = readWholeFile(home + "/state/resumeInfo");
  ASSERT_GE(resume.size(), 4u);
  EXPECT_EQ(resume[0], 3);
  std::vector<uint8_t> tracking = readWholeFile(home + "/state/changeTrack_C_manual");
  ASSERT_GE(tracking.size(), 25u);
  EXPECT_EQ(tracking[24], 1) << "the tracker did not save that it was watching";
  EXPECT_NE(readWholeFile(image), original);
  EXPECT_EQ(loadImage(image).disk->verify(), "");
}

}  // namespace
}  // namespace glidewell
