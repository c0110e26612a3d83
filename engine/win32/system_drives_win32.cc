// On Windows the engine's drives are the system's volumes.
#include "engine/system_drives.h"

#include <mutex>

#include "volume/win32/win_drive_provider.h"

namespace glidewell {

void addSystemDriveProviders() {
  static std::once_flag once;
  std::call_once(once, [] { addDriveProvider(WinDriveProvider::instance()); });
}

}  // namespace glidewell
