#include "volume/volume_system.h"

namespace glidewell {

std::string fileSystemName(int32_t type) {
  switch (type) {
    case kFileSystemNtfs: return "NTFS";
    case kFileSystemFat: return "FAT 16";
    case kFileSystemFat32: return "FAT 32";
    default: return "unknown";
  }
}

}  // namespace glidewell
