#include "cli/drive_pass.h"

#include <fmt/format.h>

#include "cli/console.h"
#include "cli/host_files.h"
#include "cli/image_io.h"
#include "cli/log_config_file.h"
#include "cli/report_table.h"
#include "platform/text.h"

namespace glidewell {

namespace {

constexpr int kMapColumns = 128;
constexpr size_t kMapCells = kMapColumns * 64;

std::string letterText(wchar_t letter) { return narrow(std::wstring(1, letter)); }

}  // namespace

bool PassResult::succeeded() const {
  if (run.end != RunEnd::kCompleted && run.end != RunEnd::kStopped) return false;
  for (const DriveResult& d : drives) {
    if (!d.intact()) return false;
  }
  return true;
}

std::string driveImagePath(const std::string& installDir, wchar_t letter) {
  return installDir + "volumes/" + letterText(letter) + ".vdf";
}

std::vector<wchar_t> imagesInInstallDirectory(const std::string& installDir) {
  std::vector<wchar_t> letters;
  for (wchar_t l = L'A'; l <= L'Z'; ++l) {
    if (pathExists(driveImagePath(installDir, l))) letters.push_back(l);
  }
  return letters;
}

PassResult runPass(const std::string& installDir, const std::vector<wchar_t>& letters, double stopAfterSeconds) {
  PassResult pass;
  uint64_t entries = 0;
  for (wchar_t letter : letters) {
    DriveResult d;
    d.letter = letter;
    d.image = driveImagePath(installDir, letter);
    d.before = takeSnapshot(*loadImage(d.image).disk);
    entries += d.before.stats.files + d.before.stats.directories;
    pass.drives.push_back(std::move(d));
  }
  std::string logFile = installLogConfig(installDir);

  ProgressDisplay progress(stdout, isTerminal(stdout), terminalColumns(stdout));
  EngineRunSettings settings;
  settings.installDir = installDir;
  settings.stopAfterSeconds = stopAfterSeconds;
  settings.totalEntries = entries;
  settings.progress = &progress;
  pass.run = runEngineOnce(settings);

  for (DriveResult& d : pass.drives) {
    try {
      d.after = takeSnapshot(*loadImage(d.image).disk);
    } catch (const HostError& e) {
      d.problem = e.what();
      continue;
    }
    d.movedClusters = countMovedClusters(d.before.files, d.after.files);
    if (!d.after.verifyProblem.empty()) {
      d.problem = "the image does not verify: " + d.after.verifyProblem;
    } else {
      std::string lost = compareContents(d.before.files, d.after.files);
      if (!lost.empty()) d.problem = "the image lost data: " + lost;
    }
  }
  return pass;
}

void printPassReport(const PassResult& pass) {
  for (const DriveResult& d : pass.drives) {
    fmt::print("\n{}\n\n", describeVolume(d.letter, d.before));
    if (!d.after.files.empty() || d.after.geometry.totalClusters != 0) {
      fmt::print("{}", comparisonTable(d.before, d.after, d.movedClusters, pass.run.seconds).render());
    }
    if (d.intact()) {
      fmt::print("\ncheck: {}: verify() holds, and all {} files and {} directories kept their size and clusters\n",
                 letterText(d.letter), d.after.stats.files, d.after.stats.directories);
    } else {
      fmt::print("\ncheck FAILED: {}: {}\n", letterText(d.letter), d.problem);
    }
  }
  if (pass.run.end == RunEnd::kFailed) {
    fmt::print(stderr, "glidewell: {}\n", pass.run.describe());
  }
}

void writeVolumeMap(const VolumeSnapshot& volume, const std::string& title, const std::string& path) {
  ClusterMapPicture picture;
  picture.columns = kMapColumns;
  picture.cells = buildCells(volume.geometry.totalClusters, clusterMapRanges(volume), kMapCells);
  picture.title = title;
  uint64_t total = volume.geometry.totalClusters, cells = std::max<uint64_t>(picture.cells.size(), 1);
  picture.caption = fmt::format("{} clusters, {}{} per cell. {} files, {} fragmented, {} free runs", total,
                                total % cells == 0 ? "" : "about ", std::max<uint64_t>(total / cells, 1),
                                volume.stats.files, volume.stats.fragmentedFiles, volume.stats.freeRuns);
  std::string error;
  if (!writeClusterMapPng(path, picture, &error)) throw HostError("cannot write the cluster map " + path + ": " + error);
}

std::vector<std::string> writeDriveMaps(const DriveResult& d, const std::string& prefix) {
  std::string label = narrow(d.before.geometry.label);
  std::string before = prefix + "before.png", after = prefix + "after.png";
  writeVolumeMap(d.before, fmt::format("{}: \"{}\" before the pass", letterText(d.letter), label), before);
  writeVolumeMap(d.after, fmt::format("{}: \"{}\" after the pass", letterText(d.letter), label), after);
  return {before, after};
}

}  // namespace glidewell
