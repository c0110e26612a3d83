// Drive images as the host handles them: read from and written to files, with
// errors that name the file.
#ifndef GLIDEWELL_CLI_IMAGE_IO_H_
#define GLIDEWELL_CLI_IMAGE_IO_H_

#include <memory>
#include <string>

#include "sim/sim_disk.h"

namespace glidewell {

struct LoadedImage {
  std::unique_ptr<SimDisk> disk;
  wchar_t letter = L'C';  // the drive letter the image records
};

// HostError "cannot open PATH: reason" for a file that cannot be read, and
// "PATH is not a volume image: <the loader's reason>" for one that does not load.
LoadedImage loadImage(const std::string& path);

// Writes the disk as drive `letter` to path, atomically.
void saveImage(const SimDisk& disk, wchar_t letter, const std::string& path);

}  // namespace glidewell

#endif  // GLIDEWELL_CLI_IMAGE_IO_H_
