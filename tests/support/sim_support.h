// Helpers for tests that run on simulated disks.
#ifndef GLIDEWELL_TESTS_SUPPORT_SIM_SUPPORT_H_
#define GLIDEWELL_TESTS_SUPPORT_SIM_SUPPORT_H_

#include <memory>
#include <string>
#include <vector>

#include "engine/dfrg_context.h"
#include "sim/sim_disk.h"
#include "sim/sim_volume_system.h"
#include "volume/extent.h"

namespace glidewell {
namespace simtest {

// An empty disk of that many 4 KiB clusters.
std::shared_ptr<SimDisk> makeDisk(uint64_t clusters, uint32_t bytesPerCluster = 4096);
// A volume context over a handle onto the disk as drive letter.
std::unique_ptr<CDfrgContext> contextOver(std::shared_ptr<SimDisk> disk, wchar_t letter = L'S');
// The runs of a file (empty when it does not exist).
std::vector<SimRun> runsOf(const SimDisk& disk, const std::wstring& path);
// The file's extents as the engine reads them (CDfrgFile::getFileExtents);
// false when the engine could not read them.
bool engineExtents(CDfrgContext& ctx, const std::wstring& path, ExtentList* extents);

// Plugs a disk into the process's simulated drives for the scope.
class PluggedDrive {
 public:
  PluggedDrive(wchar_t letter, std::shared_ptr<SimDisk> disk);
  ~PluggedDrive();
  PluggedDrive(const PluggedDrive&) = delete;
  PluggedDrive& operator=(const PluggedDrive&) = delete;

 private:
  wchar_t letter_;
};

}  // namespace simtest
}  // namespace glidewell

#endif  // GLIDEWELL_TESTS_SUPPORT_SIM_SUPPORT_H_
