// On Linux the engine's drives are simulated disks: those plugged in by the
// host and the images <install dir>/volumes/<letter>.vdf.
#include "engine/system_drives.h"

#include <mutex>

#include "sim/posix/sim_drive_provider.h"

namespace glidewell {

void addSystemDriveProviders() {
  static std::once_flag once;
  std::call_once(once, [] { addDriveProvider(SimDriveProvider::instance()); });
}

}  // namespace glidewell
