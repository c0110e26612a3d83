// The drives of a Windows machine: what GetLogicalDrives lists, opened as
// CWinVolumeSystem, with change notification on each volume's root.
#ifndef GLIDEWELL_VOLUME_WIN32_WIN_DRIVE_PROVIDER_H_
#define GLIDEWELL_VOLUME_WIN32_WIN_DRIVE_PROVIDER_H_

#include <memory>
#include <string>

#include "platform/drive_provider.h"

namespace glidewell {

class WinDriveProvider : public DriveProvider {
 public:
  // The process's one provider of the system's drives.
  static std::shared_ptr<WinDriveProvider> instance();

  DWORD drives() override;
  UINT driveType(wchar_t letter) override;
  bool volumeLabel(wchar_t letter, std::wstring* label) override;
  // CWinVolumeSystem throws CDfrgException(-1) when the volume cannot be used.
  std::unique_ptr<CVolumeSystem> openVolume(wchar_t letter) override;
  std::unique_ptr<ChangeSource> openChangeSource(wchar_t letter) override;
};

}  // namespace glidewell

#endif  // GLIDEWELL_VOLUME_WIN32_WIN_DRIVE_PROVIDER_H_
