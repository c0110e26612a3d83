// Opening the volume of a drive letter: through the provider of the process's
// drive list that serves the letter (platform/drive_provider.h), so the same
// engine opens Windows volumes, simulated disks and real NTFS images.
#ifndef GLIDEWELL_VOLUME_DRIVE_VOLUME_H_
#define GLIDEWELL_VOLUME_DRIVE_VOLUME_H_

#include <memory>

#include "volume/volume_system.h"

namespace glidewell {

// Null when no provider serves the letter; throws CDfrgException with code
// -1 (ErrorVolumeUnavailable) when the drive's volume cannot be opened.
std::unique_ptr<CVolumeSystem> openDriveVolume(wchar_t driveLetter);

}  // namespace glidewell

#endif  // GLIDEWELL_VOLUME_DRIVE_VOLUME_H_
