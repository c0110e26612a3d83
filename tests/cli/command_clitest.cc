// The built glidewell command, run as a subprocess: its help, its one-line
// errors with their exit status, and the commands that need no engine run.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "cli/host_files.h"
#include "cli/image_io.h"
#include "cli_test_util.h"
#include "support/temp_dir.h"

namespace glidewell {
namespace {

class CommandTest : public ::testing::Test {
 protected:
  void SetUp() override {
    image_ = writeAgedImage(dir_.file("small.vdf"), 5);
    imageBytes_ = readWholeFile(image_);
  }

  CommandResult run(const std::vector<std::string>& args) { return runGlidewell(args, dir_.native()); }

  // The command failed with `status` and said so in one line naming `words`,
  // and changed nothing: the image is as it was and no install directory
  // was made.
  void expectRefused(const CommandResult& r, int status, const std::string& words) {
    EXPECT_EQ(r.status, status) << r.err;
    ASSERT_EQ(lines(r.err).size(), 1u) << r.err;
    EXPECT_EQ(r.err.rfind("glidewell: ", 0), 0u) << r.err;
    EXPECT_NE(r.err.find(words), std::string::npos) << r.err;
    EXPECT_EQ(readWholeFile(image_), imageBytes_);
    EXPECT_FALSE(pathExists(dir_.file("glidewell-home"))) << "an install directory was prepared";
  }

  TempDir dir_;
  std::string image_;
  std::vector<uint8_t> imageBytes_;
};

TEST_F(CommandTest, HelpEverywhere) {
  for (std::vector<std::string> args :
       std::vector<std::vector<std::string>>{{"--help"}, {"demo", "--help"}, {"analyze", "--help"}, {"age", "--help"},
                                             {"run", "--help"}, {"config", "--help"}, {"config", "get", "--help"},
                                             {"config", "set", "--help"}, {"config", "list", "--help"},
                                             {"stats", "--help"}}) {
    CommandResult r = run(args);
    EXPECT_EQ(r.status, 0) << args[0];
    EXPECT_NE(r.out.find("Usage"), std::string::npos) << r.out;
    EXPECT_EQ(r.err, "");
  }
  EXPECT_NE(run({"run", "--help"}).out.find("--seconds"), std::string::npos);
}

TEST_F(CommandTest, ImagesThatAreMissingOrDoNotLoadAreNamedWithTheReason) {
  std::string truncated = dir_.file("truncated.vdf"), text = dir_.file("text.vdf"), empty = dir_.file("empty.vdf");
  std::vector<uint8_t> head(imageBytes_.begin(), imageBytes_.begin() + 300);
  writeFileAtomically(truncated, head);
  std::ofstream(text) << "just some text, not a volume\n";
  std::ofstream(empty).flush();
  expectRefused(run({"analyze", truncated}), 1, truncated + " is not a volume image: ");
  expectRefused(run({"run", truncated}), 1, "truncated");
  expectRefused(run({"analyze", text}), 1, "VDFH");
  expectRefused(run({"analyze", empty}), 1, empty + " is not a volume image");
  expectRefused(run({"run", dir_.native()}), 1, "is not a regular file");
  std::string missing = dir_.file("missing.vdf");
  expectRefused(run({"analyze", missing}), 1, "cannot open " + missing + ": No such file or directory");
  // One bad image among good ones: nothing is copied or run.
  expectRefused(run({"run", image_, missing}), 1, "cannot open " + missing);
}

TEST_F(CommandTest, BadOptionsAreUsageErrors) {
  expectRefused(run({"run", image_, "--bogus"}), 2, "--bogus");
  expectRefused(run({"frobnicate"}), 2, "frobnicate");
  expectRefused(run({"demo", "--clusters", "10"}), 2, "--clusters");
  expectRefused(run({"demo", "--fill", "1.5"}), 2, "--fill");
  expectRefused(run({"run", image_, "--seconds", "-1"}), 2, "--seconds");
  expectRefused(run({"run", image_, "--mode", "2"}), 2, "--mode");
  expectRefused(run({"run"}), 2, "IMAGE");
  expectRefused(run({"analyze"}), 2, "IMAGE");
  expectRefused(run({"age", dir_.file("x.vdf"), "--letter", "CD"}), 2, "--letter");
  expectRefused(run({"config", "get"}), 2, "NAME");
  expectRefused(run({"config", "set", "MaxClusterMoveCount", "lots"}), 2, "lots");
  expectRefused(run({"config", "set", "NoSuchSetting", "1"}), 2, "NoSuchSetting");
  expectRefused(run({"run", image_, image_}), 2, "given twice");
  expectRefused(run({"run", image_, "--activity", "5"}), 2, "--activity works with --mode 0 only");
  expectRefused(run({"run", image_, "--mode", "0", "--activity", "-1"}), 2, "--activity");
  expectRefused(run({"run", image_, "--mode", "0", "--maps", dir_.file("maps")}), 2, "--maps works with --mode 1");
  expectRefused(run({"run", image_, image_, "--mode", "0"}), 2, "given twice");
}

TEST_F(CommandTest, DirectoriesThatCannotBeMadeAreNamed) {
  // A regular file on the way: no directory can be made below it (as root too).
  std::string file = dir_.file("plainfile");
  std::ofstream(file) << "x";
  expectRefused(run({"run", image_, "--dir", file + "/home"}), 1, "cannot create directory " + file + "/home");
  expectRefused(run({"demo", "--dir", file + "/demo"}), 1, "cannot create directory " + file + "/demo");
  expectRefused(run({"config", "set", "DoMoveLeft", "1", "--dir", file + "/home"}), 1, file + "/home");
  expectRefused(run({"age", file + "/x.vdf", "--clusters", "100"}), 1, "cannot create " + file + "/x.vdf.tmp");
  expectRefused(run({"stats", "--dir", dir_.file("nowhere")}), 1, "no registry database at");
  expectRefused(run({"config", "list"}), 1, "no registry database at " + dir_.file("glidewell-home/registry.db"));
}

TEST_F(CommandTest, AnalyzeMeasuresAnImageAndDrawsItsMap) {
  std::unique_ptr<SimDisk> disk = loadImage(image_).disk;
  SimStats stats = disk->stats();
  std::string png = dir_.file("map.png");
  CommandResult r = run({"analyze", image_, "--png", png});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(tableValue(r.out, "files", 1), static_cast<int64_t>(stats.files));
  EXPECT_EQ(tableValue(r.out, "fragmented files", 1), static_cast<int64_t>(stats.fragmentedFiles));
  EXPECT_EQ(tableValue(r.out, "extents (fragments)", 1), static_cast<int64_t>(stats.fragments));
  EXPECT_EQ(tableValue(r.out, "free runs", 1), static_cast<int64_t>(stats.freeRuns));
  EXPECT_EQ(tableValue(r.out, "largest free run", 1), static_cast<int64_t>(stats.largestFreeRun));
  EXPECT_NE(r.out.find("check: verify() holds"), std::string::npos);
  std::vector<uint8_t> bytes = readWholeFile(png);
  ASSERT_GT(bytes.size(), 8u);
  EXPECT_EQ(std::string(bytes.begin() + 1, bytes.begin() + 4), "PNG");
}

TEST_F(CommandTest, AgeMakesTheSameImageFromTheSameSeed) {
  std::string a = dir_.file("a.vdf"), b = dir_.file("b.vdf"), c = dir_.file("c.vdf");
  ASSERT_EQ(run({"age", a, "--seed", "9", "--clusters", "2048", "--letter", "e"}).status, 0);
  ASSERT_EQ(run({"age", b, "--seed", "9", "--clusters", "2048", "--letter", "E"}).status, 0);
  CommandResult r = run({"age", c, "--seed", "10", "--clusters", "2048", "--fill", "0.3", "--churn", "0"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(readWholeFile(a), readWholeFile(b));
  EXPECT_NE(readWholeFile(a), readWholeFile(c));
  LoadedImage e = loadImage(a);
  EXPECT_EQ(e.letter, L'E');
  EXPECT_EQ(e.disk->totalClusters(), 2048u);
  EXPECT_EQ(e.disk->verify(), "");
  // What it prints is the image as it reads back.
  EXPECT_EQ(tableValue(r.out, "fragmented files", 1), static_cast<int64_t>(loadImage(c).disk->stats().fragmentedFiles));
}

TEST_F(CommandTest, ConfigWritesTheSettingsTheEngineReads) {
  ASSERT_EQ(run({"config", "set", "maxclustermovecount", "0x20"}).status, 0);
  ASSERT_EQ(run({"config", "set", "c:/enabled", "0"}).status, 0);
  ASSERT_EQ(run({"config", "set", "dumpPath", "d:\\dump.vdf"}).status, 0);
  EXPECT_TRUE(pathExists(dir_.file("glidewell-home/registry.db"))) << "$GLIDEWELL_HOME is the default";
  CommandResult r = run({"config", "get", "MaxClusterMoveCount"});
  EXPECT_EQ(r.out, "32\n");
  EXPECT_EQ(run({"config", "get", "C:/enabled"}).out, "0\n");
  EXPECT_EQ(run({"config", "get", "dumppath"}).out, "d:\\dump.vdf\n");
  // Not stored: the engine's default, and a note on stderr.
  r = run({"config", "get", "DoMoveBetterPlace"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "1\n");
  EXPECT_NE(r.err.find("not stored"), std::string::npos);
  r = run({"config", "get", "D:/Name"});
  EXPECT_EQ(r.status, 1);
  r = run({"config", "list"});
  EXPECT_EQ(r.status, 0);
  EXPECT_NE(r.out.find("MaxClusterMoveCount  REG_DWORD  32"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("C:/enabled           REG_DWORD  0"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("makeDump             default    0"), std::string::npos) << r.out;
  // --dir wins over $GLIDEWELL_HOME.
  ASSERT_EQ(run({"config", "set", "DoMoveLeft", "1", "--dir", dir_.file("other")}).status, 0);
  EXPECT_EQ(run({"config", "get", "DoMoveLeft", "--dir", dir_.file("other")}).out, "1\n");
  EXPECT_EQ(run({"config", "get", "DoMoveLeft"}).out, "0\n");
}

}  // namespace
}  // namespace glidewell
