#include "sim/sim_disk.h"

#include <algorithm>

#include "engine/dfrg_exception.h"
#include "platform/text.h"
#include "sim/sim_names.h"

namespace glidewell {

namespace {

constexpr DWORD kErrorDirNotEmpty = 145;
constexpr DWORD kUserAttributes = FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM |
                                  FILE_ATTRIBUTE_ARCHIVE | FILE_ATTRIBUTE_SPARSE_FILE |
                                  FILE_ATTRIBUTE_REPARSE_POINT | FILE_ATTRIBUTE_COMPRESSED |
                                  FILE_ATTRIBUTE_ENCRYPTED;

uint64_t mix64(uint64_t x) {
  x += 0x9E3779B97F4A7C15ull;
  x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ull;
  x = (x ^ (x >> 27)) * 0x94D049BB133111EBull;
  return x ^ (x >> 31);
}

// Runs fn under the disk's lock and delivers the changes it queued after the
// lock is released.
template <typename Fn>
DWORD changeUnderLock(std::mutex& mutex, SimNotifier& notifier, Fn fn) {
  DWORD result;
  {
    std::lock_guard<std::mutex> guard(mutex);
    result = fn();
  }
  notifier.deliver();
  return result;
}

}  // namespace

SimDisk::SimDisk(const SimGeometry& geometry)
    : total_(geometry.totalClusters),
      bytesPerCluster_(geometry.bytesPerCluster),
      label_(geometry.label),
      fileSystemName_(geometry.fileSystemName),
      serial_(geometry.serialNumber),
      bitmap_(geometry.totalClusters),
      allocator_(bitmap_) {
  uint32_t bpc = geometry.bytesPerCluster;
  if (geometry.totalClusters == 0 || bpc < 512 || (bpc & (bpc - 1)) != 0) {
    throw CDfrgException(ErrorInvalidParameter, "Simulated disk: the geometry needs clusters and a cluster size");
  }
  root_ = std::make_shared<SimNode>();
  root_->attributes = FILE_ATTRIBUTE_DIRECTORY;
  root_->resident = true;
}

SimDisk::~SimDisk() = default;

std::unique_ptr<SimDisk> SimDisk::clone() const {
  std::lock_guard<std::mutex> guard(mutex_);
  auto copy = std::make_unique<SimDisk>(SimGeometry{total_, bytesPerCluster_, label_, fileSystemName_, serial_});
  copy->bitmap_ = bitmap_;
  copy->allocator_.copyStateFrom(allocator_);
  copy->systemRanges_ = systemRanges_;
  copy->nextFileId_ = nextFileId_;
  copy->generation_ = generation_;
  std::vector<std::pair<const SimNode*, SimNode*>> stack{{root_.get(), copy->root_.get()}};
  while (!stack.empty()) {
    auto [from, to] = stack.back();
    stack.pop_back();
    for (const auto& child : from->children) {
      auto node = std::make_shared<SimNode>(*child);
      node->children.clear();
      node->parent = to;
      to->children.push_back(node);
      stack.emplace_back(child.get(), node.get());
    }
  }
  return copy;
}

SimGeometry SimDisk::geometry() const {
  std::lock_guard<std::mutex> guard(mutex_);
  return SimGeometry{total_, bytesPerCluster_, label_, fileSystemName_, serial_};
}

void SimDisk::setLabel(const std::wstring& label) {
  std::lock_guard<std::mutex> guard(mutex_);
  label_ = label;
  ++generation_;
}

uint64_t SimDisk::freeClusters() const {
  std::lock_guard<std::mutex> guard(mutex_);
  return bitmap_.freeCount();
}

uint64_t SimDisk::generation() const {
  std::lock_guard<std::mutex> guard(mutex_);
  return generation_;
}

DWORD SimDisk::reserveSystemClusters(uint64_t lcn, uint64_t count) {
  std::lock_guard<std::mutex> guard(mutex_);
  if (count == 0) return ERROR_SUCCESS;
  if (!bitmap_.allFree(lcn, count)) return ERROR_INVALID_PARAMETER;
  bitmap_.set(lcn, count);
  // Keep the ranges merged so that images and statistics see whole regions.
  auto next = systemRanges_.lower_bound(lcn);
  if (next != systemRanges_.begin()) {
    auto prev = std::prev(next);
    if (prev->first + prev->second == lcn) {
      lcn = prev->first;
      count += prev->second;
      systemRanges_.erase(prev);
    }
  }
  if (next != systemRanges_.end() && next->first == lcn + count) {
    count += next->second;
    systemRanges_.erase(next);
  }
  systemRanges_[lcn] = count;
  ++generation_;
  return ERROR_SUCCESS;
}

std::vector<SimPiece> SimDisk::systemRanges() const {
  std::lock_guard<std::mutex> guard(mutex_);
  std::vector<SimPiece> out;
  for (const auto& r : systemRanges_) out.push_back({r.first, r.second});
  return out;
}

void SimDisk::setReservedZone(uint64_t start, uint64_t end) {
  std::lock_guard<std::mutex> guard(mutex_);
  allocator_.setReservedZone(start, end);
}

DWORD SimDisk::resolve(const std::wstring& path, Resolved* out) const {
  std::vector<std::u16string> parts = splitPath(path);
  *out = Resolved{};
  SimNode* dir = root_.get();
  if (parts.empty()) {
    out->node = dir;
    return ERROR_SUCCESS;
  }
  for (size_t i = 0; i + 1 < parts.size(); ++i) {
    if (!isValidName(parts[i])) return ERROR_INVALID_NAME;
    SimNode* next = dir->child(parts[i]);
    if (next == nullptr || !next->isDirectory()) return ERROR_PATH_NOT_FOUND;
    dir = next;
  }
  if (!isValidName(parts.back())) return ERROR_INVALID_NAME;
  out->parent = dir;
  out->leaf = parts.back();
  out->node = dir->child(parts.back());
  return ERROR_SUCCESS;
}

std::u16string SimDisk::pathOf(const SimNode& node) const {
  std::vector<const SimNode*> chain;
  for (const SimNode* n = &node; n != nullptr && n != root_.get(); n = n->parent) chain.push_back(n);
  std::u16string out;
  for (auto it = chain.rbegin(); it != chain.rend(); ++it) {
    if (!out.empty()) out += u'\\';
    out += (*it)->name;
  }
  return out;
}

void SimDisk::notify(const SimNode& node, DWORD action) {
  if (notifier_.hasWatchers()) notifier_.queue(node.isDirectory(), {SimChange{action, pathOf(node)}});
}

std::shared_ptr<SimNode> SimDisk::makeNode(const std::u16string& name, DWORD attributes) {
  auto node = std::make_shared<SimNode>();
  node->name = name;
  node->attributes = attributes;
  uint64_t id = nextFileId_++;
  node->tagBase = mix64(id ^ (uint64_t{serial_} << 32));
  node->layoutSeed = mix64(node->tagBase);
  return node;
}

DWORD SimDisk::createDirectory(const std::wstring& path, DWORD attributes) {
  return changeUnderLock(mutex_, notifier_, [&]() -> DWORD {
    Resolved r;
    DWORD error = resolve(path, &r);
    if (error != ERROR_SUCCESS) return error;
    if (r.parent == nullptr) return ERROR_ACCESS_DENIED;  // the root
    if (r.node != nullptr) return ERROR_FILE_EXISTS;
    const DWORD allowed = FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM | FILE_ATTRIBUTE_COMPRESSED |
                          FILE_ATTRIBUTE_REPARSE_POINT;
    if ((attributes & ~allowed) != 0) return ERROR_INVALID_PARAMETER;
    auto node = makeNode(r.leaf, FILE_ATTRIBUTE_DIRECTORY | attributes);
    SimNode* raw = node.get();
    r.parent->addChild(std::move(node));
    ++generation_;
    notify(*raw, FILE_ACTION_ADDED);
    return ERROR_SUCCESS;
  });
}

DWORD SimDisk::createFile(const std::wstring& path, uint64_t bytes, DWORD attributes) {
  return changeUnderLock(mutex_, notifier_, [&]() -> DWORD {
    Resolved r;
    DWORD error = resolve(path, &r);
    if (error != ERROR_SUCCESS) return error;
    if (r.parent == nullptr) return ERROR_ACCESS_DENIED;
    if (r.node != nullptr) return ERROR_FILE_EXISTS;
    if ((attributes & ~kUserAttributes) != 0) return ERROR_INVALID_PARAMETER;
    DWORD attrs = attributes != 0 ? attributes : FILE_ATTRIBUTE_ARCHIVE;
    auto node = makeNode(r.leaf, attrs);
    error = resize(*node, bytes);
    if (error != ERROR_SUCCESS) return error;
    SimNode* raw = node.get();
    r.parent->addChild(std::move(node));
    ++generation_;
    notify(*raw, FILE_ACTION_ADDED);
    if (bytes > 0) notify(*raw, FILE_ACTION_MODIFIED);
    return ERROR_SUCCESS;
  });
}

DWORD SimDisk::appendFile(const std::wstring& path, uint64_t bytes) {
  return changeUnderLock(mutex_, notifier_, [&]() -> DWORD {
    Resolved r;
    DWORD error = resolve(path, &r);
    if (error != ERROR_SUCCESS) return error;
    if (r.node == nullptr) return ERROR_FILE_NOT_FOUND;
    if (r.node->isDirectory()) return ERROR_ACCESS_DENIED;
    if (r.node->locked) return ERROR_SHARING_VIOLATION;
    if (bytes == 0) return ERROR_SUCCESS;
    error = resize(*r.node, r.node->size + bytes);
    if (error == ERROR_SUCCESS) notify(*r.node, FILE_ACTION_MODIFIED);
    return error;
  });
}

DWORD SimDisk::truncateFile(const std::wstring& path, uint64_t bytes) {
  return changeUnderLock(mutex_, notifier_, [&]() -> DWORD {
    Resolved r;
    DWORD error = resolve(path, &r);
    if (error != ERROR_SUCCESS) return error;
    if (r.node == nullptr) return ERROR_FILE_NOT_FOUND;
    if (r.node->isDirectory()) return ERROR_ACCESS_DENIED;
    if (r.node->locked) return ERROR_SHARING_VIOLATION;
    if (bytes > r.node->size) return ERROR_INVALID_PARAMETER;
    if (bytes == r.node->size) return ERROR_SUCCESS;
    error = resize(*r.node, bytes);
    if (error == ERROR_SUCCESS) notify(*r.node, FILE_ACTION_MODIFIED);
    return error;
  });
}

DWORD SimDisk::deleteFile(const std::wstring& path) {
  return changeUnderLock(mutex_, notifier_, [&]() -> DWORD {
    Resolved r;
    DWORD error = resolve(path, &r);
    if (error != ERROR_SUCCESS) return error;
    if (r.parent == nullptr) return ERROR_ACCESS_DENIED;
    if (r.node == nullptr) return ERROR_FILE_NOT_FOUND;
    if (r.node->locked) return ERROR_SHARING_VIOLATION;
    if (!r.node->children.empty()) return kErrorDirNotEmpty;
    notify(*r.node, FILE_ACTION_REMOVED);
    freeRunsFrom(*r.node, 0);
    std::shared_ptr<SimNode> gone = r.parent->takeChild(r.node);
    gone->removed = true;
    ++generation_;
    return ERROR_SUCCESS;
  });
}

DWORD SimDisk::renameFile(const std::wstring& from, const std::wstring& to) {
  return changeUnderLock(mutex_, notifier_, [&]() -> DWORD {
    Resolved a, b;
    DWORD error = resolve(from, &a);
    if (error != ERROR_SUCCESS) return error;
    if (a.parent == nullptr) return ERROR_ACCESS_DENIED;
    if (a.node == nullptr) return ERROR_FILE_NOT_FOUND;
    if ((error = resolve(to, &b)) != ERROR_SUCCESS) return error;
    if (b.parent == nullptr) return ERROR_ACCESS_DENIED;
    if (b.node != nullptr && b.node != a.node) return ERROR_ALREADY_EXISTS;
    if (a.node->locked) return ERROR_SHARING_VIOLATION;
    for (const SimNode* p = b.parent; p != nullptr; p = p->parent) {
      if (p == a.node) return ERROR_INVALID_PARAMETER;  // into its own subtree
    }
    std::u16string oldPath = pathOf(*a.node);
    std::shared_ptr<SimNode> node = a.parent->takeChild(a.node);
    node->name = b.leaf;
    SimNode* raw = node.get();
    b.parent->addChild(std::move(node));
    ++generation_;
    if (notifier_.hasWatchers()) {
      notifier_.queue(raw->isDirectory(), {SimChange{FILE_ACTION_RENAMED_OLD_NAME, oldPath},
                                           SimChange{FILE_ACTION_RENAMED_NEW_NAME, pathOf(*raw)}});
    }
    return ERROR_SUCCESS;
  });
}

DWORD SimDisk::placeFile(const std::wstring& path, DWORD attributes, uint64_t bytes,
                         const std::vector<SimRun>& runs, const std::vector<uint64_t>& recordBreaks) {
  return changeUnderLock(mutex_, notifier_, [&]() -> DWORD {
    Resolved r;
    DWORD error = resolve(path, &r);
    if (error != ERROR_SUCCESS) return error;
    if (r.parent == nullptr) return ERROR_ACCESS_DENIED;
    if (r.node != nullptr) return ERROR_FILE_EXISTS;
    if ((attributes & ~kUserAttributes) != 0) return ERROR_INVALID_PARAMETER;
    auto node = makeNode(r.leaf, attributes != 0 ? attributes : FILE_ATTRIBUTE_ARCHIVE);
    uint64_t vcn = 0;
    for (const SimRun& run : runs) {
      if (run.vcn != vcn || run.length == 0 || (run.isVirtual() && !node->hasUnits())) return ERROR_INVALID_PARAMETER;
      vcn += run.length;
    }
    uint64_t clusters = (bytes + bytesPerCluster_ - 1) / bytesPerCluster_;
    if (runs.empty() ? bytes > kResidentLimit : clusters != vcn) return ERROR_INVALID_PARAMETER;
    for (size_t i = 0; i < recordBreaks.size(); ++i) {
      bool ordered = i == 0 || recordBreaks[i - 1] < recordBreaks[i];
      if (!ordered || recordBreaks[i] == 0 || recordBreaks[i] >= vcn) return ERROR_INVALID_PARAMETER;
    }
    size_t placed = 0;
    for (; placed < runs.size(); ++placed) {
      const SimRun& run = runs[placed];
      if (run.isVirtual()) continue;
      if (!bitmap_.allFree(run.lcn, run.length)) break;
      bitmap_.set(run.lcn, run.length);
    }
    if (placed < runs.size()) {  // taken or outside the volume: undo
      for (size_t i = 0; i < placed; ++i) {
        if (!runs[i].isVirtual()) bitmap_.clear(runs[i].lcn, runs[i].length);
      }
      return ERROR_INVALID_PARAMETER;
    }
    for (SimRun run : runs) {
      run.tag = node->tagBase + run.vcn;
      appendRun(node->runs, run);
    }
    node->recordBreaks = recordBreaks;
    node->size = bytes;
    node->resident = runs.empty();
    SimNode* raw = node.get();
    r.parent->addChild(std::move(node));
    ++generation_;
    notify(*raw, FILE_ACTION_ADDED);
    return ERROR_SUCCESS;
  });
}

void SimDisk::freeRunsFrom(SimNode& node, uint64_t vcn) {
  std::vector<SimRun>& runs = node.runs;
  size_t i = findRun(runs, vcn);
  if (i == runs.size()) return;
  if (runs[i].vcn < vcn) {  // split the run that straddles vcn
    SimRun& r = runs[i];
    uint64_t keep = vcn - r.vcn;
    if (!r.isVirtual()) bitmap_.clear(r.lcn + keep, r.length - keep);
    r.length = keep;
    ++i;
  }
  for (size_t k = i; k < runs.size(); ++k) {
    if (!runs[k].isVirtual()) bitmap_.clear(runs[k].lcn, runs[k].length);
  }
  runs.erase(runs.begin() + static_cast<std::ptrdiff_t>(i), runs.end());
}

uint64_t SimDisk::storedForUnit(const SimNode& node, uint64_t unit, uint64_t unitLength) const {
  uint64_t h = mix64(node.layoutSeed ^ (unit * 0x9E3779B97F4A7C15ull));
  uint64_t roll = h % 100;
  if (node.attributes & FILE_ATTRIBUTE_COMPRESSED) {
    if (roll < 5) return 0;                           // all zeros: nothing stored
    if (roll < 30 || unitLength == 1) return unitLength;  // does not compress
    return 1 + (h >> 8) % (unitLength - 1);
  }
  return roll < 25 ? 0 : unitLength;  // sparse: a hole or a written unit
}

void SimDisk::layoutUnits(SimNode& node, uint64_t fromVcn, uint64_t toVcn, const std::vector<SimPiece>& pieces) {
  size_t piece = 0;
  uint64_t offset = 0;
  for (uint64_t start = fromVcn; start < toVcn; start += kCompressionUnit) {
    uint64_t length = std::min(kCompressionUnit, toVcn - start);
    uint64_t stored = storedForUnit(node, start / kCompressionUnit, length);
    uint64_t vcn = start;
    for (uint64_t left = stored; left > 0;) {
      uint64_t n = std::min(left, pieces[piece].length - offset);
      appendRun(node.runs, SimRun{vcn, pieces[piece].lcn + offset, n, node.tagBase + vcn});
      vcn += n;
      left -= n;
      offset += n;
      if (offset == pieces[piece].length) {
        ++piece;
        offset = 0;
      }
    }
    appendRun(node.runs, SimRun{vcn, kNoCluster, start + length - vcn, 0});
  }
}

DWORD SimDisk::resize(SimNode& node, uint64_t newSize) {
  bool resident = node.resident && newSize <= kResidentLimit;
  uint64_t newVcn = resident ? 0 : (newSize + bytesPerCluster_ - 1) / bytesPerCluster_;
  uint64_t oldVcn = node.vcnCount();
  if (newVcn != oldVcn) {
    // A compressed unit cut or grown at the boundary is written again whole.
    uint64_t keep = std::min(oldVcn, newVcn);
    if (node.hasUnits()) keep -= keep % kCompressionUnit;
    uint64_t needed = 0;
    if (node.hasUnits()) {
      for (uint64_t s = keep; s < newVcn; s += kCompressionUnit) {
        needed += storedForUnit(node, s / kCompressionUnit, std::min(kCompressionUnit, newVcn - s));
      }
    } else {
      needed = newVcn - keep;
    }
    std::vector<SimRun> kept = sliceRuns(node.runs, 0, keep);
    uint64_t freed = storedClusters(node.runs) - storedClusters(kept);
    if (needed > bitmap_.freeCount() + freed) return ERROR_DISK_FULL;
    uint64_t hint = kNoCluster;
    for (auto it = kept.rbegin(); it != kept.rend(); ++it) {
      if (!it->isVirtual()) {
        hint = it->lcn + it->length;
        break;
      }
    }
    freeRunsFrom(node, keep);
    std::vector<SimPiece> pieces;
    allocator_.allocate(needed, hint, &pieces);  // cannot fail: checked above
    if (node.hasUnits()) {
      layoutUnits(node, keep, newVcn, pieces);
    } else {
      uint64_t vcn = keep;
      for (const SimPiece& p : pieces) {
        appendRun(node.runs, SimRun{vcn, p.lcn, p.length, node.tagBase + vcn});
        vcn += p.length;
      }
    }
  }
  node.size = newSize;
  node.resident = resident;
  node.recordBreaks.clear();
  ++generation_;
  return ERROR_SUCCESS;
}

DWORD SimDisk::fileInfo(const std::wstring& path, SimFileInfo* info) const {
  std::lock_guard<std::mutex> guard(mutex_);
  Resolved r;
  DWORD error = resolve(path, &r);
  if (error != ERROR_SUCCESS) return error;
  if (r.node == nullptr) return ERROR_FILE_NOT_FOUND;
  *info = SimFileInfo{fromUtf16(pathOf(*r.node)), r.node->attributes, r.node->size, r.node->runs};
  return ERROR_SUCCESS;
}

std::vector<SimFileInfo> SimDisk::listAll() const {
  std::lock_guard<std::mutex> guard(mutex_);
  std::vector<SimFileInfo> out;
  std::vector<std::pair<const SimNode*, std::wstring>> stack;
  for (auto it = root_->children.rbegin(); it != root_->children.rend(); ++it) {
    stack.emplace_back(it->get(), fromUtf16((*it)->name));
  }
  while (!stack.empty()) {
    auto [node, path] = stack.back();
    stack.pop_back();
    out.push_back(SimFileInfo{path, node->attributes, node->size, node->runs});
    for (auto it = node->children.rbegin(); it != node->children.rend(); ++it) {
      stack.emplace_back(it->get(), path + L"\\" + fromUtf16((*it)->name));
    }
  }
  return out;
}

SimStats SimDisk::stats() const {
  std::lock_guard<std::mutex> guard(mutex_);
  SimStats s;
  std::vector<const SimNode*> stack{root_.get()};
  while (!stack.empty()) {
    const SimNode* node = stack.back();
    stack.pop_back();
    for (const auto& c : node->children) stack.push_back(c.get());
    if (node == root_.get()) continue;
    if (node->isDirectory()) {
      ++s.directories;
      continue;
    }
    ++s.files;
    uint64_t fragments = countFragments(node->runs);
    s.fragments += fragments;
    if (fragments > 1) ++s.fragmentedFiles;
    s.fileClusters += storedClusters(node->runs);
  }
  for (const auto& r : systemRanges_) s.systemClusters += r.second;
  s.freeClusters = bitmap_.freeCount();
  for (uint64_t lcn = bitmap_.nextFree(0); lcn < total_;) {
    uint64_t end = bitmap_.nextUsed(lcn);
    ++s.freeRuns;
    s.largestFreeRun = std::max(s.largestFreeRun, end - lcn);
    lcn = bitmap_.nextFree(end);
  }
  return s;
}

std::vector<uint8_t> SimDisk::bitmapBytes() const {
  std::lock_guard<std::mutex> guard(mutex_);
  std::vector<uint8_t> out((total_ + 7) / 8);
  bitmap_.copyBytes(0, out.data(), out.size());
  return out;
}

void SimDisk::failMoves(uint32_t count, DWORD error, uint32_t after) {
  std::lock_guard<std::mutex> guard(mutex_);
  faults_.movesToSkip = after;
  faults_.movesToFail = count;
  faults_.moveError = error;
}

DWORD SimDisk::setLocked(const std::wstring& path, bool locked) {
  std::lock_guard<std::mutex> guard(mutex_);
  Resolved r;
  DWORD error = resolve(path, &r);
  if (error == ERROR_SUCCESS && r.node == nullptr) error = ERROR_FILE_NOT_FOUND;
  if (error == ERROR_SUCCESS) r.node->locked = locked;
  return error;
}

DWORD SimDisk::setAccessDenied(const std::wstring& path, bool denied) {
  std::lock_guard<std::mutex> guard(mutex_);
  Resolved r;
  DWORD error = resolve(path, &r);
  if (error == ERROR_SUCCESS && r.node == nullptr) error = ERROR_FILE_NOT_FOUND;
  if (error == ERROR_SUCCESS) r.node->accessDenied = denied;
  return error;
}

void SimDisk::setVanished(bool vanished) {
  std::lock_guard<std::mutex> guard(mutex_);
  faults_.vanished = vanished;
}

bool SimDisk::vanished() const {
  std::lock_guard<std::mutex> guard(mutex_);
  return faults_.vanished;
}

void SimDisk::failBitmapFrom(uint64_t lcn, DWORD error) {
  std::lock_guard<std::mutex> guard(mutex_);
  faults_.bitmapFailFrom = lcn;
  faults_.bitmapError = error;
}

uint64_t SimDisk::addChangeWatcher(DWORD filter, ChangeWatcher watcher) {
  return notifier_.addWatcher(filter, std::move(watcher));
}

void SimDisk::removeChangeWatcher(uint64_t id) { notifier_.removeWatcher(id); }

}  // namespace glidewell
