// run --mode 0: the images given become drives C:, D:, ... of this process,
// the smart driver runs over them through the engine object (with users at
// work on them when asked), and after a clean stop every drive must verify
// before its image is replaced.
#include <fmt/format.h>

#include <filesystem>
#include <memory>
#include <set>

#include "cli/activity.h"
#include "cli/commands.h"
#include "cli/drive_pass.h"
#include "cli/image_io.h"
#include "cli/smart_run.h"
#include "platform/text.h"
#include "sim/sim_drives.h"

namespace glidewell {

namespace {

std::string canonicalPath(const std::string& path) {
  std::error_code ec;
  std::filesystem::path p = std::filesystem::canonical(path, ec);
  return ec ? path : p.string();
}

struct Drive {
  wchar_t letter;
  std::string image;
  LoadedImage loaded;
  std::shared_ptr<SimDisk> disk;
  uint64_t loadedGeneration = 0;
};

// The drives are this process's simulated drives for as long as it lives.
class PluggedDrives {
 public:
  explicit PluggedDrives(std::vector<Drive>& drives) : drives_(drives) {
    for (Drive& d : drives_) SimDrives::instance().plug(d.letter, d.disk);
  }
  ~PluggedDrives() {
    for (Drive& d : drives_) SimDrives::instance().unplug(d.letter);
  }
  PluggedDrives(const PluggedDrives&) = delete;
  PluggedDrives& operator=(const PluggedDrives&) = delete;

 private:
  std::vector<Drive>& drives_;
};

std::string activityText(const ActivityCounts& c) {
  return fmt::format("activity: {} changes ({} created, {} extended, {} truncated, {} renamed, {} deleted; {} refused)",
                     c.changes(), c.created, c.extended, c.truncated, c.renamed, c.deleted, c.refused);
}

}  // namespace

int runSmartCommand(const RunOptions& o) {
  if (o.seconds < 0) throw UsageError("--seconds must not be negative");
  if (o.activity < 0) throw UsageError("--activity must not be negative");
  if (!o.maps.empty()) throw UsageError("--maps works with --mode 1 only");
  if (o.images.empty()) throw UsageError("run needs at least one image");
  if (o.images.size() > 24) throw UsageError("run takes at most 24 images (drives C: to Z:)");

  std::vector<Drive> drives;
  std::set<std::string> seen;
  for (size_t i = 0; i < o.images.size(); ++i) {
    if (!seen.insert(canonicalPath(o.images[i])).second) throw UsageError(o.images[i] + " is given twice");
    Drive d;
    d.letter = static_cast<wchar_t>(L'C' + i);
    d.image = o.images[i];
    d.loaded = loadImage(d.image);
    d.disk = std::shared_ptr<SimDisk>(std::move(d.loaded.disk));
    d.loadedGeneration = d.disk->generation();
    drives.push_back(std::move(d));
  }
  std::string dir = resolveInstallDirectory(o.dir);
  prepareDirectory(dir);
  if (!imagesInInstallDirectory(dir).empty()) {
    throw HostError(fmt::format("{}volumes/ holds drive images; the engine would work on them too. Remove them or "
                                "give another --dir",
                                dir));
  }
  std::vector<wchar_t> letters;
  std::vector<std::shared_ptr<SimDisk>> disks;
  for (const Drive& d : drives) {
    letters.push_back(d.letter);
    disks.push_back(d.disk);
    fmt::print("{}: {}\n", narrow(std::wstring(1, d.letter)), d.image);
  }

  SmartRunResult result;
  std::unique_ptr<UserActivity> activity;
  {
    PluggedDrives plugged(drives);
    SmartEngineHost host(dir);
    fmt::print("install directory {}, engine log {}\n", dir, host.logFile());
    if (o.activity > 0) {
      activity = std::make_unique<UserActivity>(disks, o.activity, o.seed);
      activity->start();
    }
    auto extra = [&]() -> std::string {
      if (!activity) return "";
      ActivityCounts c = activity->counts();
      return fmt::format("activity: {} changes ({} refused)", c.changes(), c.refused);
    };
    result = runSmartDriver(host, dir, letters, o.seconds, extra);
    if (activity) {
      activity->stop();
      fmt::print("{}\n", activityText(activity->counts()));
    }
  }

  bool intact = true;
  for (const Drive& d : drives) {
    std::string problem = d.disk->verify();
    SimStats stats = d.disk->stats();
    if (problem.empty()) {
      fmt::print("check: {}: verify() holds ({} files, {} directories, {} fragmented)\n",
                 narrow(std::wstring(1, d.letter)), stats.files, stats.directories, stats.fragmentedFiles);
    } else {
      fmt::print("check FAILED: {}: {}\n", narrow(std::wstring(1, d.letter)), problem);
      intact = false;
    }
  }
  if (!intact) {
    fmt::print(stderr, "glidewell: a drive does not verify; the originals are unchanged\n");
    return 1;
  }
  for (const Drive& d : drives) {
    if (d.disk->generation() == d.loadedGeneration) continue;
    saveImage(*d.disk, d.loaded.letter, d.image);
    fmt::print("updated {}\n", d.image);
  }
  if (result.end == SmartEnd::kEnded) {
    fmt::print(stderr, "glidewell: {}\n", result.describe());
    return 1;
  }
  return 0;
}

}  // namespace glidewell
