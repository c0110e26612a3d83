#include "ntfs/ntfs_safety.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <sstream>

namespace glidewell {

namespace {

std::string realPath(const std::string& path) {
  char buffer[PATH_MAX];
  return ::realpath(path.c_str(), buffer) != nullptr ? std::string(buffer) : path;
}

// The mount table escapes blanks, tabs, newlines and backslashes as \ooo.
std::string unescape(const std::string& field) {
  std::string out;
  for (size_t i = 0; i < field.size(); ++i) {
    if (field[i] == '\\' && i + 4 <= field.size()) {
      const std::string digits = field.substr(i + 1, 3);
      if (digits.size() == 3 && digits.find_first_not_of("01234567") == std::string::npos) {
        out += static_cast<char>(std::stoi(digits, nullptr, 8));
        i += 3;
        continue;
      }
    }
    out += field[i];
  }
  return out;
}

// The file a loop device (/dev/loopN) reads, or "".
std::string loopBackingFile(const std::string& device) {
  std::string name = device.substr(device.find_last_of('/') + 1);
  if (name.compare(0, 4, "loop") != 0) return "";
  std::ifstream in("/sys/block/" + name + "/loop/backing_file");
  std::string file;
  std::getline(in, file);
  return file;
}

}  // namespace

bool hasNtfsBootSector(const std::string& path, std::string* error) {
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    *error = "cannot open " + path + ": " + std::strerror(errno);
    return false;
  }
  unsigned char sector[512];
  ssize_t n = ::pread(fd, sector, sizeof(sector), 0);
  int readErrno = errno;
  ::close(fd);
  if (n < 0) {
    *error = "cannot read " + path + ": " + std::strerror(readErrno);
    return false;
  }
  if (n < static_cast<ssize_t>(sizeof(sector)) || std::memcmp(sector + 3, "NTFS    ", 8) != 0 ||
      sector[510] != 0x55 || sector[511] != 0xAA) {
    *error = path + " is not an NTFS volume (no NTFS boot sector)";
    return false;
  }
  return true;
}

std::string mountPointOf(const std::string& path, const std::string& mountsFile) {
  const std::string target = realPath(path);
  struct stat targetStat;
  bool isDevice = ::stat(target.c_str(), &targetStat) == 0 && S_ISBLK(targetStat.st_mode);
  std::ifstream in(mountsFile);
  std::string line;
  while (std::getline(in, line)) {
    std::istringstream fields(line);
    std::string device, mountPoint;
    if (!(fields >> device >> mountPoint)) continue;
    device = unescape(device);
    mountPoint = unescape(mountPoint);
    if (device.empty() || device[0] != '/') continue;
    std::string source = realPath(device);
    if (source == target) return mountPoint;
    if (!isDevice) {
      std::string backing = loopBackingFile(source);
      if (!backing.empty() && realPath(backing) == target) return mountPoint;
    } else {
      struct stat st;
      if (::stat(source.c_str(), &st) == 0 && S_ISBLK(st.st_mode) && st.st_rdev == targetStat.st_rdev) {
        return mountPoint;
      }
    }
  }
  return "";
}

}  // namespace glidewell
