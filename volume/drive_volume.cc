#include "volume/drive_volume.h"

#include "platform/drive_provider.h"

namespace glidewell {

std::unique_ptr<CVolumeSystem> openDriveVolume(wchar_t driveLetter) {
  std::shared_ptr<DriveProvider> provider = driveProviderFor(driveLetter);
  if (!provider) return nullptr;
  return provider->openVolume(driveLetter);
}

}  // namespace glidewell
