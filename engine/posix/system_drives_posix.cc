// On Linux the engine's drives are simulated disks (those plugged in by the
// host and the images <install dir>/volumes/<letter>.vdf) and real NTFS
// volumes (<install dir>/volumes/<letter>.ntfs, an image or a link to one or
// to a block device).
#include "engine/system_drives.h"

#include <mutex>

#include "ntfs/ntfs_drive_provider.h"
#include "sim/posix/sim_drive_provider.h"

namespace glidewell {

void addSystemDriveProviders() {
  static std::once_flag once;
  std::call_once(once, [] {
    addDriveProvider(SimDriveProvider::instance());
    addDriveProvider(makeNtfsDriveProvider());
  });
}

}  // namespace glidewell
