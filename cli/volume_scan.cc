#include "cli/volume_scan.h"

#include <fmt/format.h>

#include <vector>

#include "cli/host_files.h"
#include "engine/dfrg_context.h"
#include "engine/dfrg_exception.h"
#include "engine/file_walk.h"
#include "platform/text.h"
#include "volume/dfrg_file.h"

namespace glidewell {

namespace {

void countFreeSpace(CVolumeSystem& volume, DriveFigures* f) {
  std::unique_ptr<uint8_t[]> bitmap;
  if (!volume.getVolumeBitmap(&bitmap) || !bitmap) throw HostError("the volume's allocation bitmap cannot be read");
  uint64_t run = 0;
  for (uint64_t lcn = 0; lcn <= f->totalClusters; ++lcn) {
    bool free = lcn < f->totalClusters && ((bitmap[lcn / 8] >> (lcn % 8)) & 1) == 0;
    if (free) {
      f->freeClusters += 1;
      run += 1;
      continue;
    }
    if (run == 0) continue;
    f->freeRuns += 1;
    f->largestFreeRun = std::max(f->largestFreeRun, run);
    run = 0;
  }
}

// Places that hold the file's data: extents whose clusters follow one
// another on the volume count as one.
uint64_t placesOf(const ExtentList& extents) {
  uint64_t places = 0;
  uint64_t next = kNoCluster;
  for (const Extent& e : extents) {
    if (!e.lcn.isSet()) continue;
    if (e.lcn.start != next) places += 1;
    next = e.lcn.end + 1;
  }
  return places;
}

}  // namespace

DriveFigures measureVolume(std::unique_ptr<CVolumeSystem> volume) {
  DriveFigures f;
  f.letter = volume->getDriveLetter();
  f.label = volume->getVolumeName();
  f.fileSystem = fileSystemName(volume->getFileSystemType());
  f.totalClusters = volume->getTotalClusters();
  f.bytesPerCluster = volume->getBytesPerCluster();
  countFreeSpace(*volume, &f);

  // A context of its own gives the engine's reading of each file's map.
  CDfrgContext ctx(std::move(volume), 0, nullptr);
  std::vector<std::wstring> pending{std::wstring(1, f.letter) + L":"};
  while (!pending.empty()) {
    std::wstring dir = std::move(pending.back());
    pending.pop_back();
    std::vector<DirEntry> entries;
    listDirectory(ctx.volume(), dir, entries, true);
    for (const DirEntry& entry : entries) {
      std::wstring path = dir + L"\\" + entry.name;
      if (entry.isDirectory) {
        f.directories += 1;
        pending.push_back(path);
        continue;
      }
      f.files += 1;
      try {
        CDfrgFile file(ctx, path, false);
        ExtentList extents;
        if (!file.getFileExtents(extents)) {
          f.unreadable += 1;
          continue;
        }
        uint64_t places = placesOf(extents);
        f.fragments += places;
        if (places > 1) f.fragmentedFiles += 1;
      } catch (const CDfrgException&) {
        f.unreadable += 1;
      }
    }
  }
  return f;
}

std::string describeFigures(const DriveFigures& f) {
  double bytes = static_cast<double>(f.totalClusters) * static_cast<double>(f.bytesPerCluster);
  double used = f.totalClusters == 0 ? 0 : 100.0 * static_cast<double>(f.totalClusters - f.freeClusters) /
                                               static_cast<double>(f.totalClusters);
  return fmt::format(
      "{}: \"{}\" {}, {:.1f} GiB ({} clusters of {} bytes), {:.0f}% in use\n"
      "files {}, directories {}, fragmented files {} ({} pieces){}\n"
      "free space: {} clusters in {} runs, the largest {} clusters\n",
      narrow(std::wstring(1, f.letter)), narrow(f.label), f.fileSystem, bytes / (1024.0 * 1024 * 1024), f.totalClusters,
      f.bytesPerCluster, used, f.files, f.directories, f.fragmentedFiles, f.fragments,
      f.unreadable == 0 ? "" : fmt::format(", {} whose map could not be read", f.unreadable), f.freeClusters,
      f.freeRuns, f.largestFreeRun);
}

}  // namespace glidewell
