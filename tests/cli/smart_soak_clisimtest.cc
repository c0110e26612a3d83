// The smart driver stopped at random moments and restarted, with users at
// work on two drives: catches a stop that takes the worker longer than a
// second to end, a restart that does not go on where the stop saved, volume
// modes lost or redone across a restart, lost data, and an engine status out
// of step with the modes. Short here (label sim); GLIDEWELL_SOAK_SECONDS and
// GLIDEWELL_SOAK_PERIOD_MS make it the soak test (label soak).
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <map>
#include <random>
#include <thread>

#include "cli/activity.h"
#include "cli/smart_host.h"
#include "cli/volume_modes.h"
#include "platform/text.h"
#include "sim/sim_aging.h"
#include "sim/sim_drives.h"
#include "sim/sim_volume_system.h"
#include "support/fake_env.h"
#include "support/temp_dir.h"
#include "support/volume_wrapper.h"

namespace glidewell {
namespace {

double setting(const char* name, double fallback) {
  const char* text = std::getenv(name);
  return text != nullptr && *text != '\0' ? std::atof(text) : fallback;
}

std::shared_ptr<SimDisk> agedDisk(uint64_t seed) {
  SimAgingOptions o;
  o.seed = seed;
  o.totalClusters = 1u << 15;
  o.maxFiles = 1500;
  o.fillRatio = 0.5;
  std::string error;
  std::shared_ptr<SimDisk> disk = ageDisk(o, &error);
  EXPECT_NE(disk, nullptr) << error;
  return disk;
}

TEST(SmartSoak, RandomStopsEndTheWorkerWithinASecondAndRestartsResumeWhatWasSaved) {
  const double seconds = setting("GLIDEWELL_SOAK_SECONDS", 16);
  const double periodMs = setting("GLIDEWELL_SOAK_PERIOD_MS", 2000);
  const uint64_t seed = static_cast<uint64_t>(setting("GLIDEWELL_SOAK_SEED", 0)) != 0
                            ? static_cast<uint64_t>(setting("GLIDEWELL_SOAK_SEED", 0))
                            : static_cast<uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count());
  SCOPED_TRACE("GLIDEWELL_SOAK_SEED=" + std::to_string(seed));
  std::mt19937_64 random(seed);

  TempDir dir;
  FakeEnv env;
  ScopedEnv scoped(&env);
  auto probe = std::make_shared<VolumeProbe>();
  std::map<wchar_t, std::shared_ptr<SimDisk>> disks{{L'C', agedDisk(seed % 1000)}, {L'D', agedDisk(seed % 1000 + 1)}};
  // Slow opens stretch the first scan passes of the two drives over about two
  // periods, so the first stop always lands inside one.
  size_t entries = disks[L'C']->listAll().size() + disks[L'D']->listAll().size();
  auto perFile = std::chrono::microseconds(static_cast<int64_t>(2000 * periodMs / static_cast<double>(entries)));
  probe->beforeOpen = [perFile](const std::wstring&) { std::this_thread::sleep_for(perFile); };
  for (auto& [letter, disk] : disks) {
    SimDrives::instance().plug(letter, disk);  // where the change watcher finds it
    env.addDrive(letter, L"Soak", [disk = disk, letter = letter, probe] {
      return wrapVolume(std::make_unique<SimVolumeSystem>(disk, letter), probe);
    });
  }
  std::string installDir = dir.native() + "/";
  UserActivity activity({disks[L'C'], disks[L'D']}, 50, seed);
  double slowestStop = 0;
  std::string stopTimes;  // seconds, for the message of a failure
  int stops = 0, resumedPasses = 0;
  {
    SmartEngineHost host(installDir);
    activity.start();
    std::optional<ResumeInfoView> saved;
    std::vector<StoredVolumeMode> savedModes;
    auto start = std::chrono::steady_clock::now();
    while (std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count() < seconds) {
      {
        std::lock_guard<std::mutex> g(probe->mutex);
        probe->opened.clear();
      }
      host.start();
      std::uniform_int_distribution<int> moment(200, static_cast<int>(periodMs));
      std::this_thread::sleep_for(std::chrono::milliseconds(moment(random)));
      double took = host.stop();
      slowestStop = std::max(slowestStop, took);
      stopTimes += (stopTimes.empty() ? "" : " ") + std::to_string(took).substr(0, 5);
      stops += 1;
      for (auto& [letter, disk] : disks) ASSERT_EQ(disk->verify(), "") << "after stop " << stops;

      // The run just stopped began where the one before it had stopped.
      std::vector<std::wstring> opened = probe->openedPaths();
      if (saved && !saved->resumePath.empty() && !opened.empty()) {
        EXPECT_EQ(narrow(opened[0]), narrow(saved->resumePath)) << "stop " << stops;
        resumedPasses += 1;
      }
      // A volume that was clean stayed clean without being scanned again:
      // its mode was not set anew.
      std::vector<StoredVolumeMode> modes = readVolumeModes(host.registry());
      for (const StoredVolumeMode& before : savedModes) {
        if (before.mode != 1) continue;
        for (const StoredVolumeMode& now : modes) {
          if (now.letter == before.letter) EXPECT_EQ(now.setAt, before.setAt) << "stop " << stops;
        }
      }
      // The engine status follows the modes: 4 exactly while every volume is clean.
      bool allReact = modes.size() == disks.size();
      for (const StoredVolumeMode& m : modes) allReact = allReact && m.mode == 1;
      EXPECT_EQ(readEngineStatus(host.registry()), allReact ? 4 : 3) << "stop " << stops;

      saved = readResumeInfo(installDir);
      ASSERT_TRUE(saved.has_value()) << "no whole resume info after stop " << stops;
      savedModes = modes;
    }
    activity.stop();
  }
  for (auto& [letter, disk] : disks) {
    EXPECT_EQ(disk->verify(), "");
    SimDrives::instance().unplug(letter);
  }
  EXPECT_LT(slowestStop, 1.0) << "stops took " << stopTimes;
  EXPECT_GE(stops, 4);
  EXPECT_GE(resumedPasses, 1) << "no stop landed inside a scan pass";
  EXPECT_GT(activity.counts().changes(), 0u);
}

}  // namespace
}  // namespace glidewell
