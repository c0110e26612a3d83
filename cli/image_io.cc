#include "cli/image_io.h"

#include <vector>

#include "cli/host_files.h"
#include "sim/sim_image.h"

namespace glidewell {

LoadedImage loadImage(const std::string& path) {
  std::vector<uint8_t> bytes = readWholeFile(path);
  LoadedImage image;
  std::string error;
  image.disk = loadSimImage(bytes.data(), bytes.size(), &error, &image.letter);
  if (image.disk == nullptr) {
    throw HostError(path + " is not a volume image: " + (error.empty() ? "it does not load" : error));
  }
  if (image.letter >= L'a' && image.letter <= L'z') image.letter = image.letter - L'a' + L'A';
  return image;
}

void saveImage(const SimDisk& disk, wchar_t letter, const std::string& path) {
  std::vector<uint8_t> bytes;
  std::string error;
  if (!saveSimImageBytes(disk, letter, &bytes, &error)) {
    throw HostError("cannot make the image for " + path + ": " + error);
  }
  writeFileAtomically(path, bytes);
}

}  // namespace glidewell
