#include <dirent.h>
#include <errno.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstring>

#include "platform/text.h"
#include "sim/real_tree.h"

namespace glidewell {

bool readRealTree(const std::string& dir, size_t maxEntries, std::vector<RealTreeEntry>* out, std::string* error) {
  out->clear();
  DIR* top = ::opendir(dir.c_str());
  if (top == nullptr) {
    *error = "cannot read directory " + dir + ": " + std::strerror(errno);
    return false;
  }
  ::closedir(top);
  // Breadth-first over (native path, relative path); names are taken as UTF-8.
  std::vector<std::pair<std::string, std::wstring>> pending{{dir, L""}};
  for (size_t next = 0; next < pending.size() && out->size() < maxEntries; ++next) {
    std::string native = pending[next].first;
    std::wstring relative = pending[next].second;
    DIR* d = ::opendir(native.c_str());
    if (d == nullptr) continue;
    std::vector<std::string> names;
    while (dirent* e = ::readdir(d)) {
      if (std::strcmp(e->d_name, ".") != 0 && std::strcmp(e->d_name, "..") != 0) names.push_back(e->d_name);
    }
    ::closedir(d);
    std::sort(names.begin(), names.end());
    for (const std::string& name : names) {
      if (out->size() >= maxEntries) break;
      std::string child = native + "/" + name;
      struct stat st;
      if (::lstat(child.c_str(), &st) != 0) continue;
      std::wstring path = relative.empty() ? widen(name) : relative + L"\\" + widen(name);
      if (S_ISDIR(st.st_mode)) {
        out->push_back({path, true, 0});
        pending.emplace_back(child, path);
      } else if (S_ISREG(st.st_mode)) {
        out->push_back({path, false, static_cast<uint64_t>(st.st_size)});
      }
    }
  }
  std::sort(out->begin(), out->end(), [](const RealTreeEntry& a, const RealTreeEntry& b) { return a.path < b.path; });
  return true;
}

}  // namespace glidewell
