// The simulated drives of a Linux install: every image
// <install dir>/volumes/<letter>.vdf is a fixed drive of that letter, and so
// is every disk plugged into the process's simulated drives (SimDrives).
// Opening a drive loads its image into a simulated disk (or shares the one
// already open); when the engine closes the last handle on it, a changed disk
// is written back to a temporary file that then replaces the image, so a
// crash never leaves half an image.
#ifndef GLIDEWELL_SIM_POSIX_SIM_DRIVE_PROVIDER_H_
#define GLIDEWELL_SIM_POSIX_SIM_DRIVE_PROVIDER_H_

#include <memory>
#include <string>

#include "platform/drive_provider.h"

namespace glidewell {

class SimDriveProvider : public DriveProvider {
 public:
  // The process's one provider of simulated drives.
  static std::shared_ptr<SimDriveProvider> instance();

  DWORD drives() override;
  UINT driveType(wchar_t letter) override;
  bool volumeLabel(wchar_t letter, std::wstring* label) override;
  // Throws CDfrgException(-1, "Couldn't open Volume ! \\.\X:") when the
  // letter has no disk or its image cannot be loaded.
  std::unique_ptr<CVolumeSystem> openVolume(wchar_t letter) override;
  std::unique_ptr<ChangeSource> openChangeSource(wchar_t letter) override;

  // Where a drive letter's image lives: <install dir>/volumes/<letter>.vdf,
  // the install directory being the current environment's.
  static std::string imagePath(wchar_t letter);
};

}  // namespace glidewell

#endif  // GLIDEWELL_SIM_POSIX_SIM_DRIVE_PROVIDER_H_
