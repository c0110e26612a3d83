// run: the images given become drives C:, D:, ... of an install directory for
// one pass, and replace the originals only when the pass went well.
#include <fmt/format.h>

#include <filesystem>
#include <set>

#include "cli/commands.h"
#include "cli/drive_pass.h"
#include "cli/image_io.h"
#include "cli/ntfs_drive.h"
#include "platform/text.h"

namespace glidewell {

namespace {

std::string canonicalPath(const std::string& path) {
  std::error_code ec;
  std::filesystem::path p = std::filesystem::canonical(path, ec);
  return ec ? path : p.string();
}

}  // namespace

int runCommand(const RunOptions& o) {
  if (o.mode == 0) return runSmartCommand(o);
  if (o.mode != 1) throw UsageError("--mode must be 0 (the smart driver) or 1 (the pass loop)");
  if (o.activity != 0) throw UsageError("--activity works with --mode 0 only");
  if (o.seconds < 0) throw UsageError("--seconds must not be negative");
  if (o.images.empty()) throw UsageError("run needs at least one image");
  if (o.images.size() > 24) throw UsageError("run takes at most 24 images (drives C: to Z:)");
  if (isNtfsVolume(o.images.front())) {
    for (const std::string& image : o.images) {
      if (!isNtfsVolume(image)) throw UsageError(image + " is not an NTFS volume: give either .vdf images or NTFS volumes");
    }
    std::string dir = resolveInstallDirectory(o.dir);
    prepareDirectory(dir);
    return runNtfsVolumes(o.images, o.seconds, dir);
  }

  // Every image must load before anything is copied anywhere.
  std::set<std::string> seen;
  for (const std::string& image : o.images) {
    if (!seen.insert(canonicalPath(image)).second) throw UsageError(image + " is given twice");
    loadImage(image);
  }
  std::string dir = resolveInstallDirectory(o.dir);
  prepareDirectory(dir + "volumes");
  std::vector<wchar_t> present = imagesInInstallDirectory(dir);
  if (!present.empty()) {
    std::string letters;
    for (wchar_t l : present) letters += narrow(std::wstring(1, l)) + ": ";
    throw HostError(fmt::format("{}volumes/ already holds drive images ({}); the engine would defragment them too. "
                                "Remove them or give another --dir",
                                dir, letters.substr(0, letters.size() - 1)));
  }
  std::vector<wchar_t> letters;
  for (size_t i = 0; i < o.images.size(); ++i) {
    wchar_t letter = static_cast<wchar_t>(L'C' + i);
    copyFileAtomically(o.images[i], driveImagePath(dir, letter));
    letters.push_back(letter);
    fmt::print("{}: {}\n", narrow(std::wstring(1, letter)), o.images[i]);
  }
  std::fflush(stdout);

  PassResult pass = runPass(dir, letters, o.seconds);
  printPassReport(pass);
  if (!o.maps.empty()) {
    std::string mapDir = asDirectory(o.maps);
    prepareDirectory(mapDir);
    for (const DriveResult& d : pass.drives) {
      if (d.after.geometry.totalClusters == 0) continue;
      std::vector<std::string> maps = writeDriveMaps(d, mapDir + narrow(std::wstring(1, d.letter)) + "-");
      fmt::print("cluster maps: {} {}\n", maps[0], maps[1]);
    }
  }
  if (!pass.succeeded()) {
    bool damaged = false;
    for (const DriveResult& d : pass.drives) damaged = damaged || !d.intact();
    if (damaged) {
      fmt::print(stderr, "glidewell: the originals are unchanged; the engine's results stay in {}volumes/\n", dir);
    } else {
      for (wchar_t letter : letters) removeFile(driveImagePath(dir, letter));
      fmt::print(stderr, "glidewell: the originals are unchanged\n");
    }
    return 1;
  }
  for (size_t i = 0; i < o.images.size(); ++i) {
    copyFileAtomically(driveImagePath(dir, letters[i]), o.images[i]);
    removeFile(driveImagePath(dir, letters[i]));
    fmt::print("updated {}\n", o.images[i]);
  }
  return 0;
}

}  // namespace glidewell
