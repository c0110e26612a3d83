// The proof that a simulated disk lost nothing: every file reads back its own
// content in VCN order, and the bitmap is exactly what the files and the file
// system own.
#include <sstream>

#include "platform/text.h"
#include "sim/sim_disk.h"
#include "sim/sim_names.h"

namespace glidewell {

namespace {

std::string quoted(const std::wstring& path) { return "\"" + narrow(path) + "\""; }

}  // namespace

std::string SimDisk::verifyNode(const SimNode& node, SimBitmap& seen, const std::wstring& path) const {
  std::ostringstream problem;
  if (node.isDirectory()) {
    if (!node.runs.empty()) return "directory " + quoted(path) + " owns data runs";
    for (size_t i = 0; i < node.children.size(); ++i) {
      if (node.children[i]->parent != &node) return "directory " + quoted(path) + " has a child that names another parent";
      if (i > 0 && compareNames(node.children[i - 1]->name, node.children[i]->name) >= 0) {
        return "directory " + quoted(path) + " is not in directory order at " +
               quoted(fromUtf16(node.children[i]->name));
      }
    }
    return "";
  }
  uint64_t vcn = 0;
  for (const SimRun& r : node.runs) {
    if (r.vcn != vcn || r.length == 0) {
      problem << "file " << quoted(path) << ": its runs do not continue each other at VCN " << vcn;
      return problem.str();
    }
    if (r.isVirtual()) {
      bool unitEnd = r.vcnEnd() % kCompressionUnit == 0 || &r == &node.runs.back();
      if (!node.hasUnits() || !unitEnd) {
        problem << "file " << quoted(path) << ": a virtual run at VCN " << r.vcn
                << (node.hasUnits() ? " ends inside a compression unit" : " in a file that is neither compressed nor sparse");
        return problem.str();
      }
    } else {
      if (node.hasUnits() && vcn > 0 && r.vcn % kCompressionUnit != 0 && (&r)[-1].isVirtual()) {
        problem << "file " << quoted(path) << ": stored clusters follow virtual ones inside the unit at VCN " << r.vcn;
        return problem.str();
      }
      if (r.tag != node.tagBase + r.vcn) {
        problem << "file " << quoted(path) << ": VCN " << r.vcn << " at LCN " << r.lcn << " reads content tag "
                << r.tag << ", expected " << node.tagBase + r.vcn;
        return problem.str();
      }
      if (r.lcn >= total_ || r.length > total_ - r.lcn) {
        problem << "file " << quoted(path) << ": VCN " << r.vcn << " lies outside the volume (LCN " << r.lcn << ")";
        return problem.str();
      }
      if (!seen.allFree(r.lcn, r.length)) {
        problem << "file " << quoted(path) << ": clusters " << r.lcn << "-" << r.lcn + r.length - 1
                << " are also owned by another file or the file system";
        return problem.str();
      }
      seen.set(r.lcn, r.length);
    }
    vcn += r.length;
  }
  uint64_t expected = node.resident ? 0 : (node.size + bytesPerCluster_ - 1) / bytesPerCluster_;
  if (vcn != expected || (node.resident && node.size > kResidentLimit)) {
    problem << "file " << quoted(path) << ": " << node.size << " bytes but " << vcn << " clusters";
    return problem.str();
  }
  return "";
}

std::string SimDisk::verify() const {
  std::lock_guard<std::mutex> guard(mutex_);
  SimBitmap seen(total_);
  std::ostringstream problem;
  for (const auto& r : systemRanges_) {
    if (!seen.allFree(r.first, r.second)) {
      problem << "file-system clusters " << r.first << "-" << r.first + r.second - 1 << " overlap or leave the volume";
      return problem.str();
    }
    seen.set(r.first, r.second);
  }
  std::vector<std::pair<const SimNode*, std::wstring>> stack{{root_.get(), L""}};
  while (!stack.empty()) {
    auto [node, path] = stack.back();
    stack.pop_back();
    std::string found = verifyNode(*node, seen, path.empty() ? L"\\" : path);
    if (!found.empty()) return found;
    for (const auto& c : node->children) {
      stack.emplace_back(c.get(), path.empty() ? fromUtf16(c->name) : path + L"\\" + fromUtf16(c->name));
    }
  }
  const auto& have = bitmap_.words();
  const auto& want = seen.words();
  for (size_t w = 0; w < have.size(); ++w) {
    if (have[w] == want[w]) continue;
    uint64_t diff = have[w] ^ want[w];
    uint64_t lcn = w * 64 + static_cast<uint64_t>(__builtin_ctzll(diff));
    problem << "cluster " << lcn
            << (bitmap_.test(lcn) ? " is in use in the bitmap but owned by nothing"
                                  : " is owned but marked free in the bitmap");
    return problem.str();
  }
  return "";
}

DWORD SimDisk::corruptTag(const std::wstring& path, uint64_t vcn) {
  std::lock_guard<std::mutex> guard(mutex_);
  Resolved r;
  DWORD error = resolve(path, &r);
  if (error != ERROR_SUCCESS) return error;
  if (r.node == nullptr) return ERROR_FILE_NOT_FOUND;
  std::vector<SimRun>& runs = r.node->runs;
  size_t i = findRun(runs, vcn);
  if (i == runs.size() || runs[i].isVirtual()) return ERROR_INVALID_PARAMETER;
  // Cut the run around the cluster so that only its tag changes.
  SimRun whole = runs[i];
  std::vector<SimRun> parts;
  if (vcn > whole.vcn) parts.push_back(SimRun{whole.vcn, whole.lcn, vcn - whole.vcn, whole.tag});
  uint64_t at = vcn - whole.vcn;
  parts.push_back(SimRun{vcn, whole.lcn + at, 1, (whole.tag + at) ^ 0x5A5A5A5A5A5A5A5Aull});
  if (at + 1 < whole.length) parts.push_back(SimRun{vcn + 1, whole.lcn + at + 1, whole.length - at - 1, whole.tag + at + 1});
  runs.erase(runs.begin() + static_cast<std::ptrdiff_t>(i));
  runs.insert(runs.begin() + static_cast<std::ptrdiff_t>(i), parts.begin(), parts.end());
  ++generation_;
  return ERROR_SUCCESS;
}

}  // namespace glidewell
