// demo, analyze and age: the commands that make or look at volumes.
#include <fmt/format.h>

#include <chrono>

#include "cli/commands.h"
#include "cli/drive_pass.h"
#include "cli/image_io.h"
#include "cli/ntfs_drive.h"
#include "cli/report_table.h"
#include "platform/text.h"
#include "sim/sim_aging.h"

namespace glidewell {

namespace {

constexpr uint64_t kMaxClusters = uint64_t{1} << 31;  // a 256 MiB bitmap in memory

std::unique_ptr<SimDisk> makeAgedDisk(const AgingChoice& a, const std::string& label) {
  if (a.clusters < 64 || a.clusters > kMaxClusters) {
    throw UsageError(fmt::format("--clusters must be from 64 to {}", kMaxClusters));
  }
  if (!(a.fill >= 0.0 && a.fill <= 0.98)) throw UsageError("--fill must be from 0 to 0.98");
  if (a.churn < 0) throw UsageError("--churn must not be negative");
  if (a.files < 1) throw UsageError("--files must be at least 1");
  SimAgingOptions options;
  options.seed = a.seed;
  options.totalClusters = a.clusters;
  options.fillRatio = a.fill;
  options.churnRounds = a.churn;
  options.maxFiles = a.files;
  options.label = widen(label);
  options.sourceDirectory = a.from;
  std::string error;
  std::unique_ptr<SimDisk> disk = ageDisk(options, &error);
  if (disk == nullptr) throw HostError("cannot make the volume: " + error);
  return disk;
}

std::string describeAging(const AgingChoice& a) {
  std::string text = fmt::format("seed {}, {} clusters, {:.0f}% full, {} churn rounds", a.seed, a.clusters,
                                 a.fill * 100, a.churn);
  if (!a.from.empty()) text += ", tree of " + a.from;
  return text;
}

double secondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

}  // namespace

int demoCommand(const DemoOptions& o) {
  std::string dir = o.dir.empty() ? makeTemporaryDirectory("glidewell-demo-") : asDirectory(o.dir);
  prepareDirectory(dir + "volumes");
  if (!imagesInInstallDirectory(dir).empty()) {
    throw HostError(dir + "volumes/ already holds drive images; give the demo an empty --dir");
  }
  fmt::print("Glidewell demo in {}\n", dir);
  auto start = std::chrono::steady_clock::now();
  std::unique_ptr<SimDisk> disk = makeAgedDisk(o.aging, "Demo");
  saveImage(*disk, L'C', driveImagePath(dir, L'C'));
  disk.reset();
  fmt::print("aged a volume as drive C: ({}) in {}\n", describeAging(o.aging), formatSeconds(secondsSince(start)));
  fmt::print("one pass through the exported functions:\n");
  std::fflush(stdout);

  PassResult pass = runPass(dir, {L'C'}, 0);
  printPassReport(pass);
  const DriveResult& c = pass.drives.front();
  if (c.after.geometry.totalClusters != 0) {
    std::vector<std::string> maps = writeDriveMaps(c, dir + "cluster-map-");
    fmt::print("\ncluster maps:  {}\n               {}\n", maps[0], maps[1]);
  }
  fmt::print("engine log:    {}glidewell.log\n", dir);
  fmt::print("statistics:    {} stats --dir {}\n", o.program, dir);
  return pass.succeeded() ? 0 : 1;
}

int analyzeCommand(const AnalyzeOptions& o) {
  if (isNtfsVolume(o.image)) return analyzeNtfsVolume(o.image);
  LoadedImage image = loadImage(o.image);
  VolumeSnapshot v = takeSnapshot(*image.disk);
  fmt::print("{}\n\n{}", describeVolume(image.letter, v), volumeTable(v).render());
  if (v.verifyProblem.empty()) {
    fmt::print("\ncheck: verify() holds\n");
  } else {
    fmt::print("\ncheck FAILED: {}\n", v.verifyProblem);
  }
  if (!o.png.empty()) {
    writeVolumeMap(v, fmt::format("{}: \"{}\"", narrow(std::wstring(1, image.letter)), narrow(v.geometry.label)),
                   o.png);
    fmt::print("cluster map: {}\n", o.png);
  }
  return v.verifyProblem.empty() ? 0 : 1;
}

int ageCommand(const AgeOptions& o) {
  char letter = o.letter;
  if (letter >= 'a' && letter <= 'z') letter = static_cast<char>(letter - 'a' + 'A');
  if (letter < 'A' || letter > 'Z') throw UsageError("--letter must be a drive letter from A to Z");
  auto start = std::chrono::steady_clock::now();
  std::unique_ptr<SimDisk> disk = makeAgedDisk(o.aging, o.label);
  saveImage(*disk, static_cast<wchar_t>(letter), o.out);
  // Show the image as it reads back, which is what the engine will see.
  LoadedImage image = loadImage(o.out);
  VolumeSnapshot v = takeSnapshot(*image.disk);
  fmt::print("wrote {} ({}) in {}\n\n{}\n\n{}", o.out, describeAging(o.aging), formatSeconds(secondsSince(start)),
             describeVolume(image.letter, v), volumeTable(v).render());
  return 0;
}

}  // namespace glidewell
