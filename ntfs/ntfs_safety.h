// The checks made before an NTFS volume is opened for writing, none of which
// writes anything: the boot sector says NTFS, and neither the kernel nor a
// FUSE driver (ntfs-3g) has the device or the image file mounted.
#ifndef GLIDEWELL_NTFS_NTFS_SAFETY_H_
#define GLIDEWELL_NTFS_NTFS_SAFETY_H_

#include <string>

namespace glidewell {

// True when path (an image file or a block device) starts with an NTFS boot
// sector ("NTFS    " at byte 3 and the 0x55 0xAA signature). A file that
// cannot be read or is too short gives false with the reason in *error.
bool hasNtfsBootSector(const std::string& path, std::string* error);

// Where path is mounted, or "" when it is not: a mount-table entry naming the
// same file or device, or a loop device backed by the image file.
// mountsFile is the mount table to read (/proc/self/mounts by default).
std::string mountPointOf(const std::string& path, const std::string& mountsFile = "/proc/self/mounts");

}  // namespace glidewell

#endif  // GLIDEWELL_NTFS_NTFS_SAFETY_H_
