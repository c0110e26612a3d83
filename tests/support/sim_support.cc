#include "support/sim_support.h"

#include "sim/sim_drives.h"
#include "volume/dfrg_file.h"

namespace glidewell {
namespace simtest {

std::shared_ptr<SimDisk> makeDisk(uint64_t clusters, uint32_t bytesPerCluster) {
  SimGeometry g;
  g.totalClusters = clusters;
  g.bytesPerCluster = bytesPerCluster;
  return std::make_shared<SimDisk>(g);
}

std::unique_ptr<CDfrgContext> contextOver(std::shared_ptr<SimDisk> disk, wchar_t letter) {
  return std::make_unique<CDfrgContext>(std::make_unique<SimVolumeSystem>(std::move(disk), letter), 0, nullptr);
}

std::vector<SimRun> runsOf(const SimDisk& disk, const std::wstring& path) {
  SimFileInfo info;
  return disk.fileInfo(path, &info) == ERROR_SUCCESS ? info.runs : std::vector<SimRun>{};
}

bool engineExtents(CDfrgContext& ctx, const std::wstring& path, ExtentList* extents) {
  CDfrgFile file(ctx, path, false);
  return file.getFileExtents(*extents);
}

PluggedDrive::PluggedDrive(wchar_t letter, std::shared_ptr<SimDisk> disk) : letter_(letter) {
  SimDrives::instance().plug(letter, std::move(disk));
}

PluggedDrive::~PluggedDrive() { SimDrives::instance().unplug(letter_); }

}  // namespace simtest
}  // namespace glidewell
