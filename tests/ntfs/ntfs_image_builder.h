// Test volumes: real NTFS images made with mkntfs in a temporary folder and
// filled and aged through libntfs-3g itself (no root, no mounting).
#ifndef GLIDEWELL_TESTS_NTFS_NTFS_IMAGE_BUILDER_H_
#define GLIDEWELL_TESTS_NTFS_NTFS_IMAGE_BUILDER_H_

#include <cstdint>
#include <string>
#include <vector>

namespace glidewell {
namespace ntfstest {

// mkntfs on a new sparse file of that size (4 KiB clusters); "" or the error.
std::string makeImage(const std::string& path, uint64_t bytes, const std::string& label = "Test");

struct AgingPlan {
  uint32_t seed = 1;
  int directories = 4;
  int files = 120;           // written in interleaved appends, so they fragment
  int rounds = 6;            // appends per file
  uint32_t appendClusters = 3;  // largest append, in clusters
  double deleteShare = 0.3;  // files deleted afterwards, leaving holes
  int largeFiles = 2;        // of largeClusters each, written in interleaved pieces
  uint32_t largeClusters = 512;
  bool extras = true;        // resident, compressed and sparse files
  bool caseTwins = true;     // two names that differ only in case
};

// Populates and ages an image made by makeImage; "" or the error.
std::string ageImage(const std::string& path, const AgingPlan& plan);

// Writes the files given (path relative to the root with '/' separators,
// directories created on the way) and nothing else; "" or the error.
struct FileSpec {
  std::string path;
  std::vector<uint8_t> data;
  bool compressed = false;
};
std::string writeFiles(const std::string& path, const std::vector<FileSpec>& files);

// Appends to two files in turn, one cluster at a time, so that both end up in
// `pieces` pieces each (enough pieces spill the map into an attribute list).
std::string writeInterleaved(const std::string& path, const std::string& first, const std::string& second, int pieces);

// Sets the volume's dirty flag through the library.
std::string markDirty(const std::string& path);

// Writes restart pages into $LogFile (through the library) that say the
// journal has work to replay.
std::string markJournalUnclean(const std::string& path);

}  // namespace ntfstest
}  // namespace glidewell

#endif  // GLIDEWELL_TESTS_NTFS_NTFS_IMAGE_BUILDER_H_
