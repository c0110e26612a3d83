// DriveProvider: one source of the drives the engine sees. The platform only
// keeps the list; what stands behind a letter is supplied from above: the
// Windows volumes (volume/win32), simulated disks and their images (sim/),
// real NTFS volumes opened through libntfs-3g (ntfs/). A host or test adds the
// providers it wants before the engine runs; the system environments answer
// the drive questions of Env (logicalDrives, driveType, volumeLabel) and
// openChangeSource from this list, and the engine opens volumes through it.
//
// Providers are asked in the order they were added; for a letter that several
// serve, the first one added answers. Implementations must be thread safe.
#ifndef GLIDEWELL_PLATFORM_DRIVE_PROVIDER_H_
#define GLIDEWELL_PLATFORM_DRIVE_PROVIDER_H_

#include <memory>
#include <string>

#include "platform/wintypes.h"

namespace glidewell {

// volume/volume_system.h and platform/change_source.h. The platform never
// holds a volume: volume/drive_volume.h opens one through the list.
class CVolumeSystem;
class ChangeSource;

class DriveProvider {
 public:
  virtual ~DriveProvider() = default;

  // Bit i set for each drive 'A' + i that this provider serves now.
  virtual DWORD drives() = 0;
  // GetDriveTypeW of a letter this provider serves (DRIVE_FIXED, ...).
  virtual UINT driveType(wchar_t letter) = 0;
  // The volume label; false when it cannot be read.
  virtual bool volumeLabel(wchar_t letter, std::wstring* label) = 0;
  // Opens the volume for the engine. Throws CDfrgException with code -1
  // (ErrorVolumeUnavailable) when it cannot be opened.
  virtual std::unique_ptr<CVolumeSystem> openVolume(wchar_t letter) = 0;
  // Change notification on the volume's root; null when there is none.
  virtual std::unique_ptr<ChangeSource> openChangeSource(wchar_t letter) = 0;
};

// The process's drive list.
// Adds provider after those already there (before them with first, as a test
// does whose drives stand in for the system's); adding one twice has no effect.
void addDriveProvider(std::shared_ptr<DriveProvider> provider, bool first = false);
void removeDriveProvider(const DriveProvider* provider);
// The provider that answers for letter ('a' counts as 'A'); null when none.
std::shared_ptr<DriveProvider> driveProviderFor(wchar_t letter);
// The union of every provider's drives().
DWORD providedDrives();

}  // namespace glidewell

#endif  // GLIDEWELL_PLATFORM_DRIVE_PROVIDER_H_
