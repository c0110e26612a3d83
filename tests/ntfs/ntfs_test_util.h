// Checks of NTFS test volumes with tools that no one here wrote: libfsntfs
// (through ntfs_manifest.py) for every path, size, attribute and stream hash
// and the allocation, ntfsfix -n for the volume as a whole.
#ifndef GLIDEWELL_TESTS_NTFS_NTFS_TEST_UTIL_H_
#define GLIDEWELL_TESTS_NTFS_NTFS_TEST_UTIL_H_

#include <string>
#include <vector>

namespace glidewell {
namespace ntfstest {

// Runs a shell command; its exit status, with stdout and stderr in *output.
int runShell(const std::string& command, std::string* output);

// The manifest of the image; lines starting with "PROBLEM" report clusters
// owned twice or owned but free, or a volume that cannot be read.
std::string manifest(const std::string& image);
// The manifests of several images, read by one run of the reader.
std::vector<std::string> manifests(const std::vector<std::string>& images);

// "" when ntfsfix -n finds the volume clean; otherwise its output.
std::string ntfsfixProblem(const std::string& image);

// The whole image file, for checks that nothing was written.
std::string readWhole(const std::string& path);

}  // namespace ntfstest
}  // namespace glidewell

#endif  // GLIDEWELL_TESTS_NTFS_NTFS_TEST_UTIL_H_
