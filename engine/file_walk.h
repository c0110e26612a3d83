// Directory listing and path helpers of the file walk.
#ifndef GLIDEWELL_ENGINE_FILE_WALK_H_
#define GLIDEWELL_ENGINE_FILE_WALK_H_

#include <string>
#include <vector>

#include "platform/wintypes.h"

namespace glidewell {

class CVolumeSystem;

struct DirEntry {
  std::wstring name;
  bool isDirectory;
  DWORD attributes;
};

// Lists dir + "\*.*" in enumeration order: sub-directories other than "." and
// "..", and with includeFiles also files; reparse points (junctions, mount
// points, links) never. An enumeration that cannot start gives an empty list.
void listDirectory(CVolumeSystem& volume, const std::wstring& dir, std::vector<DirEntry>& out, bool includeFiles);

// C:\a\b -> C:\a, C:\a -> C:, C: -> "" (a trailing "\" is dropped first).
std::wstring parentPath(const std::wstring& path);
// The text after the last "\", or the whole path.
std::wstring leafName(const std::wstring& path);

}  // namespace glidewell

#endif  // GLIDEWELL_ENGINE_FILE_WALK_H_
