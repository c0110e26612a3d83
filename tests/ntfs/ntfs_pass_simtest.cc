// Catches engine passes over real NTFS volumes that lose or change a byte of
// any stream, leave the volume unclean, fail to defragment (case twins and
// attribute-list files included), break when killed at any instant, or give
// results of another quality than the simulated disk built from the same
// volume's dump.
#include <gtest/gtest.h>

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fcntl.h>

#include <chrono>
#include <random>
#include <thread>

#include "cli/drive_pass.h"
#include "cli/ntfs_drive.h"
#include "ntfs/ntfs_volume.h"
#include "support/temp_dir.h"
#include "ntfs_image_builder.h"
#include "ntfs_test_util.h"

extern char** environ;

namespace glidewell {
namespace {

using namespace ntfstest;

// The pieces a file's stored clusters lie in.
size_t piecesOf(const std::string& image, const std::vector<std::u16string>& path) {
  std::string error;
  std::unique_ptr<NtfsVolume> v = NtfsVolume::open(image, &error);
  EXPECT_NE(v, nullptr) << error;
  uint64_t mft = 0;
  NtfsStreamMap map;
  if (!v || v->lookup(path, &mft) != kNtfsOk || v->streamMap(mft, &map) != kNtfsOk) return 0;
  size_t pieces = 0;
  int64_t end = -1;
  for (const NtfsRun& r : map.runs) {
    if (r.lcn < 0) continue;
    if (r.lcn != end) ++pieces;
    end = r.lcn + r.length;
  }
  return pieces;
}

class NtfsPassTest : public ::testing::Test {
 protected:
  // An aged volume; with twins, also case twins (which the simulated disk,
  // being case-insensitive, cannot hold) and an attribute-list file.
  void makeVolume(bool twins) {
    ASSERT_EQ(makeImage(image, 96 << 20), "");
    AgingPlan plan;
    plan.seed = 11;
    plan.caseTwins = twins;
    ASSERT_EQ(ageImage(image, plan), "");
    if (twins) {
      ASSERT_EQ(writeInterleaved(image, "Twin.bin", "twin.BIN", 30), "");
      ASSERT_EQ(writeInterleaved(image, "listed.bin", "scattered.bin", 500), "");
    }
    original = manifest(image);
    ASSERT_EQ(original.find("PROBLEM"), std::string::npos) << original;
  }

  NtfsPassOutcome pass(const std::string& dumpPath = "") {
    NtfsPassSettings s;
    s.volumes = {image};
    s.installDir = dir.native() + "/";
    s.dumpPath = dumpPath;
    return runNtfsPass(s);
  }

  TempDir dir;
  std::string image = dir.file("aged.img");
  std::string original;
};

TEST_F(NtfsPassTest, APassDefragmentsTheVolumeAndKeepsEveryStream) {
  makeVolume(true);
  for (const char16_t* name : {u"Twin.bin", u"twin.BIN", u"listed.bin"}) EXPECT_GT(piecesOf(image, {name}), 1u);
  NtfsPassOutcome o = pass();
  ASSERT_TRUE(o.completed);
  EXPECT_EQ(o.errorCode, 0);
  const NtfsVolumeStats& before = o.before[0];
  const NtfsVolumeStats& after = o.after[0];
  std::printf("fragmented files %llu -> %llu, extents %llu -> %llu, free runs %llu -> %llu\n",
              (unsigned long long)before.fragmentedFiles, (unsigned long long)after.fragmentedFiles,
              (unsigned long long)before.extents, (unsigned long long)after.extents,
              (unsigned long long)before.freeRuns, (unsigned long long)after.freeRuns);
  EXPECT_GT(before.fragmentedFiles, 40u);
  EXPECT_LE(after.fragmentedFiles * 10, before.fragmentedFiles);
  EXPECT_LT(after.freeRuns, before.freeRuns);
  EXPECT_EQ(after.files, before.files);
  for (const char16_t* name : {u"Twin.bin", u"twin.BIN", u"listed.bin"}) {
    EXPECT_EQ(piecesOf(image, {name}), 1u) << "not defragmented";
  }
  EXPECT_EQ(manifest(image), original);
  EXPECT_EQ(ntfsfixProblem(image), "");
}

TEST_F(NtfsPassTest, KilledAtAnyInstantThePassLosesNothingAndThenCompletes) {
  makeVolume(true);
  const std::string pristine = dir.file("pristine.img");
  std::string out;
  ASSERT_EQ(runShell("cp --sparse=always '" + image + "' '" + pristine + "'", &out), 0) << out;
  auto runCli = [&](pid_t* pid) {
    std::string installDir = dir.file("home");
    const char* argv[] = {GW_GLIDEWELL_CLI, "run", image.c_str(), "--dir", installDir.c_str(), nullptr};
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    int rc = posix_spawn(pid, GW_GLIDEWELL_CLI, &actions, nullptr, const_cast<char**>(argv), environ);
    posix_spawn_file_actions_destroy(&actions);
    return rc;
  };
  // How long a whole pass takes here, so the kills spread over all of it.
  auto start = std::chrono::steady_clock::now();
  pid_t pid;
  ASSERT_EQ(runCli(&pid), 0);
  int status = 0;
  waitpid(pid, &status, 0);
  ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  const auto passMs = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start);
  ASSERT_EQ(manifest(image), original);

  std::mt19937 rng(static_cast<uint32_t>(std::random_device{}()));
  const int kKills = 24;
  for (int k = 0; k < kKills; ++k) {
    ASSERT_EQ(runShell("cp --sparse=always '" + pristine + "' '" + image + "'", &out), 0) << out;
    auto delay = std::chrono::milliseconds(std::uniform_int_distribution<long>(0, passMs.count())(rng));
    ASSERT_EQ(runCli(&pid), 0);
    std::this_thread::sleep_for(delay);
    kill(pid, SIGKILL);
    waitpid(pid, &status, 0);
    SCOPED_TRACE("killed after " + std::to_string(delay.count()) + " ms of a " + std::to_string(passMs.count()) +
                 " ms pass");
    ASSERT_EQ(manifest(image), original);
    ASSERT_EQ(ntfsfixProblem(image), "");
  }
  // The same pass then runs to its end on the volume the last kill left.
  ASSERT_EQ(runCli(&pid), 0);
  waitpid(pid, &status, 0);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  EXPECT_EQ(manifest(image), original);
  EXPECT_EQ(piecesOf(image, {u"listed.bin"}), 1u);
}

TEST_F(NtfsPassTest, TheVolumesDumpDefragmentsAsWellInTheSimulator) {
  makeVolume(false);
  const std::string dump = dir.file("volume.vdf");
  NtfsPassOutcome dumped = pass(dump);
  EXPECT_EQ(manifest(image), original) << "dump mode wrote to the volume";
  // The dump replays as a simulated drive; one pass over each.
  std::string simDir = dir.file("sim") + "/";
  std::string out;
  ASSERT_EQ(runShell("mkdir -p '" + simDir + "volumes' && cp '" + dump + "' '" + simDir + "volumes/C.vdf'", &out), 0);
  PassResult sim = runPass(simDir, {L'C'}, 0);
  ASSERT_EQ(sim.drives.size(), 1u);
  const SimStats& simBefore = sim.drives[0].before.stats;
  const SimStats& simAfter = sim.drives[0].after.stats;
  NtfsPassOutcome real = pass();
  const NtfsVolumeStats& realBefore = real.before[0];
  const NtfsVolumeStats& realAfter = real.after[0];
  std::printf("simulator: fragmented %llu -> %llu, free runs %llu -> %llu; real: fragmented %llu -> %llu, free runs "
              "%llu -> %llu\n",
              (unsigned long long)simBefore.fragmentedFiles, (unsigned long long)simAfter.fragmentedFiles,
              (unsigned long long)simBefore.freeRuns, (unsigned long long)simAfter.freeRuns,
              (unsigned long long)realBefore.fragmentedFiles, (unsigned long long)realAfter.fragmentedFiles,
              (unsigned long long)realBefore.freeRuns, (unsigned long long)realAfter.freeRuns);
  auto near = [](uint64_t a, uint64_t b, uint64_t slack) { return a <= b + slack && b <= a + slack; };
  // The same layout to start from (the simulator counts a sparse file whose
  // stored pieces are apart as one extent with holes, which may differ by one)...
  EXPECT_TRUE(near(simBefore.fragmentedFiles, realBefore.fragmentedFiles, 1));
  EXPECT_EQ(simBefore.freeRuns, realBefore.freeRuns);
  // ...and results of the same quality.
  EXPECT_TRUE(near(simAfter.fragmentedFiles, realAfter.fragmentedFiles, 2 + realBefore.fragmentedFiles / 20));
  EXPECT_TRUE(near(simAfter.freeRuns, realAfter.freeRuns, 2 + realBefore.freeRuns / 10));
}

}  // namespace
}  // namespace glidewell
