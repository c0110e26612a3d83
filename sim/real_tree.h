// Reads the shape of a real directory of this machine (sub-directories and
// file sizes, never contents) so that the aging generator can build a
// simulated volume after it. posix/ and win32/ implement it.
#ifndef GLIDEWELL_SIM_REAL_TREE_H_
#define GLIDEWELL_SIM_REAL_TREE_H_

#include <cstdint>
#include <string>
#include <vector>

namespace glidewell {

struct RealTreeEntry {
  std::wstring path;  // relative to the directory read, "\" separated
  bool isDirectory;
  uint64_t size;      // bytes; 0 for directories
};

// Walks dir (a native path) without following links, up to maxEntries
// entries, and returns them sorted by path (a directory before its contents),
// so that the result does not depend on the order the system lists them in.
// Unreadable sub-directories are skipped. False with *error when dir itself
// cannot be read.
bool readRealTree(const std::string& dir, size_t maxEntries, std::vector<RealTreeEntry>* out, std::string* error);

}  // namespace glidewell

#endif  // GLIDEWELL_SIM_REAL_TREE_H_
