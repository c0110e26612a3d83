#include <algorithm>

#include "platform/text.h"
#include "platform/wintypes.h"
#include "sim/real_tree.h"

namespace glidewell {

bool readRealTree(const std::string& dir, size_t maxEntries, std::vector<RealTreeEntry>* out, std::string* error) {
  out->clear();
  std::wstring root = widen(dir);
  if (GetFileAttributesW(root.c_str()) == INVALID_FILE_ATTRIBUTES) {
    *error = "cannot read directory " + dir;
    return false;
  }
  std::vector<std::pair<std::wstring, std::wstring>> pending{{root, L""}};
  for (size_t next = 0; next < pending.size() && out->size() < maxEntries; ++next) {
    std::wstring native = pending[next].first;
    std::wstring relative = pending[next].second;
    WIN32_FIND_DATAW data;
    HANDLE find = FindFirstFileW((native + L"\\*").c_str(), &data);
    if (find == INVALID_HANDLE_VALUE) continue;
    do {
      std::wstring name = data.cFileName;
      if (name == L"." || name == L".." || (data.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT)) continue;
      if (out->size() >= maxEntries) break;
      std::wstring path = relative.empty() ? name : relative + L"\\" + name;
      if (data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) {
        out->push_back({path, true, 0});
        pending.emplace_back(native + L"\\" + name, path);
      } else {
        out->push_back({path, false, (uint64_t{data.nFileSizeHigh} << 32) | data.nFileSizeLow});
      }
    } while (FindNextFileW(find, &data));
    FindClose(find);
  }
  std::sort(out->begin(), out->end(), [](const RealTreeEntry& a, const RealTreeEntry& b) { return a.path < b.path; });
  return true;
}

}  // namespace glidewell
