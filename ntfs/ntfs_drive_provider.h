// NtfsDriveProvider: the drives that stand for real NTFS volumes. Drive X is
// served when <install dir>/volumes/X.ntfs exists; that path is opened as the
// volume itself, so it is an NTFS image file or, more usefully, a symbolic
// link to an image or to a block device (ln -s /dev/sdb1 volumes/E.ntfs).
//
// Every CVolumeSystem opened on one letter shares one NtfsVolume (one mount of
// the library); the volume is closed when the last of them is destroyed.
// Thread safe.
#ifndef GLIDEWELL_NTFS_NTFS_DRIVE_PROVIDER_H_
#define GLIDEWELL_NTFS_NTFS_DRIVE_PROVIDER_H_

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "ntfs/ntfs_volume.h"
#include "platform/drive_provider.h"

namespace glidewell {

class NtfsDriveProvider : public DriveProvider {
 public:
  // volumePath gives the path of a letter's volume; by default
  // <Env::current()->installDirectory()>/volumes/<letter>.ntfs.
  using PathOf = std::function<std::string(wchar_t upperLetter)>;
  explicit NtfsDriveProvider(PathOf volumePath = PathOf());

  DWORD drives() override;
  UINT driveType(wchar_t letter) override;
  bool volumeLabel(wchar_t letter, std::wstring* label) override;
  // Throws CDfrgException(-1, "Couldn't open Volume ! \\.\X: <reason>") when
  // the volume is refused (mounted, dirty, hibernated, not NTFS, ...).
  std::unique_ptr<CVolumeSystem> openVolume(wchar_t letter) override;
  // Nothing watches an unmounted volume: null.
  std::unique_ptr<ChangeSource> openChangeSource(wchar_t letter) override;

  // The volume open on a letter, opening it if needed; null with the reason.
  std::shared_ptr<NtfsVolume> volume(wchar_t letter, std::string* error);

 private:
  std::string pathOf(wchar_t letter);

  PathOf volumePath_;
  std::mutex mutex_;
  std::map<wchar_t, std::weak_ptr<NtfsVolume>> open_;
};

std::shared_ptr<DriveProvider> makeNtfsDriveProvider();

}  // namespace glidewell

#endif  // GLIDEWELL_NTFS_NTFS_DRIVE_PROVIDER_H_
