// The file-system controls of the simulated disk, answered with the byte
// layouts and errors of NTFS.
#include <algorithm>
#include <cstring>

#include "sim/sim_disk.h"
#include "sim/sim_names.h"

namespace glidewell {

namespace {

void put32(void* buffer, size_t offset, uint32_t v) { std::memcpy(static_cast<uint8_t*>(buffer) + offset, &v, 4); }
void put64(void* buffer, size_t offset, int64_t v) { std::memcpy(static_cast<uint8_t*>(buffer) + offset, &v, 8); }

constexpr size_t kBitmapHeader = 16;     // StartingLcn, BitmapSize
constexpr size_t kRetrievalHeader = 16;  // ExtentCount, padding, StartingVcn
constexpr size_t kRetrievalEntry = 16;   // NextVcn, Lcn

}  // namespace

DWORD SimDisk::openNode(const std::wstring& path, bool backupSemantics, std::shared_ptr<SimNode>* node) const {
  std::lock_guard<std::mutex> guard(mutex_);
  if (faults_.vanished) return ERROR_PATH_NOT_FOUND;
  Resolved r;
  DWORD error = resolve(path, &r);
  if (error != ERROR_SUCCESS) return error;
  if (r.node == nullptr) return ERROR_FILE_NOT_FOUND;
  if (r.node->locked) return ERROR_SHARING_VIOLATION;
  if (r.node->accessDenied) return ERROR_ACCESS_DENIED;
  if (r.node->isDirectory() && !backupSemantics) return ERROR_ACCESS_DENIED;
  *node = r.parent == nullptr ? root_ : r.parent->sharedChild(r.leaf);
  return ERROR_SUCCESS;
}

DWORD SimDisk::attributesOf(const std::wstring& path, DWORD* attributes) const {
  std::lock_guard<std::mutex> guard(mutex_);
  if (faults_.vanished) return ERROR_PATH_NOT_FOUND;
  Resolved r;
  DWORD error = resolve(path, &r);
  if (error != ERROR_SUCCESS) return error;
  if (r.node == nullptr) return ERROR_FILE_NOT_FOUND;
  *attributes = r.parent == nullptr ? (FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM)
                                    : r.node->attributes;
  return ERROR_SUCCESS;
}

DWORD SimDisk::sizeOf(const SimNode& node, int64_t* size) const {
  std::lock_guard<std::mutex> guard(mutex_);
  if (node.removed) return ERROR_ACCESS_DENIED;
  *size = node.isDirectory() ? 0 : static_cast<int64_t>(node.size);
  return ERROR_SUCCESS;
}

DWORD SimDisk::listDirectory(const std::wstring& dir, const std::u16string& pattern,
                             std::vector<SimDirEntry>* out) const {
  std::lock_guard<std::mutex> guard(mutex_);
  out->clear();
  if (faults_.vanished) return ERROR_PATH_NOT_FOUND;
  Resolved r;
  DWORD error = resolve(dir, &r);
  if (error != ERROR_SUCCESS) return error;
  if (r.node == nullptr || !r.node->isDirectory()) return ERROR_PATH_NOT_FOUND;
  if (r.node != root_.get()) {
    // NTFS lists "." and ".." first in every directory but the root.
    for (const char16_t* dot : {u".", u".."}) {
      if (matchesPattern(dot, pattern)) out->push_back(SimDirEntry{dot, FILE_ATTRIBUTE_DIRECTORY, 0});
    }
  }
  for (const auto& child : r.node->children) {
    if (matchesPattern(child->name, pattern)) {
      out->push_back(SimDirEntry{child->name, child->attributes, child->isDirectory() ? 0 : child->size});
    }
  }
  return out->empty() ? ERROR_FILE_NOT_FOUND : ERROR_SUCCESS;
}

DWORD SimDisk::readBitmap(int64_t startingLcn, void* buffer, DWORD bufferSize, DWORD* bytesReturned) const {
  std::lock_guard<std::mutex> guard(mutex_);
  *bytesReturned = 0;
  if (bufferSize < kBitmapHeader) return ERROR_INSUFFICIENT_BUFFER;
  if (startingLcn < 0 || static_cast<uint64_t>(startingLcn) >= total_) return ERROR_INVALID_PARAMETER;
  // The reply starts at a whole byte of the bitmap.
  uint64_t start = static_cast<uint64_t>(startingLcn) & ~uint64_t{7};
  if (start >= faults_.bitmapFailFrom) return faults_.bitmapError;
  uint64_t clusters = total_ - start;
  uint64_t needed = (clusters + 7) / 8;
  uint64_t n = std::min<uint64_t>(needed, bufferSize - kBitmapHeader);
  put64(buffer, 0, static_cast<int64_t>(start));
  put64(buffer, 8, static_cast<int64_t>(clusters));
  bitmap_.copyBytes(start / 8, static_cast<uint8_t*>(buffer) + kBitmapHeader, static_cast<size_t>(n));
  *bytesReturned = static_cast<DWORD>(kBitmapHeader + n);
  return n < needed ? ERROR_MORE_DATA : ERROR_SUCCESS;
}

DWORD SimDisk::readRetrievalPointers(const SimNode& node, int64_t startingVcn, void* buffer, DWORD bufferSize,
                                     DWORD* bytesReturned) const {
  std::lock_guard<std::mutex> guard(mutex_);
  *bytesReturned = 0;
  if (node.removed) return ERROR_ACCESS_DENIED;
  if (bufferSize < kRetrievalHeader + kRetrievalEntry) return ERROR_INSUFFICIENT_BUFFER;
  if (startingVcn < 0) return ERROR_INVALID_PARAMETER;
  const std::vector<SimRun>& runs = node.runs;
  uint64_t vcn = static_cast<uint64_t>(startingVcn);
  size_t i = findRun(runs, vcn);
  // Resident files, directories and VCNs past the end have no mapping.
  if (i == runs.size()) return ERROR_HANDLE_EOF;
  const std::vector<uint64_t>& breaks = node.recordBreaks;
  auto nextBreak = std::upper_bound(breaks.begin(), breaks.end(), vcn);
  size_t room = (bufferSize - kRetrievalHeader) / kRetrievalEntry;
  size_t n = 0;
  put64(buffer, 8, startingVcn);
  while (n < room && i < runs.size()) {
    const SimRun& r = runs[i];
    uint64_t entryEnd = r.vcnEnd();
    bool atBreak = nextBreak != breaks.end() && *nextBreak <= entryEnd;
    if (atBreak) entryEnd = *nextBreak;
    size_t at = kRetrievalHeader + n * kRetrievalEntry;
    put64(buffer, at, static_cast<int64_t>(entryEnd));
    put64(buffer, at + 8, r.isVirtual() ? -1 : static_cast<int64_t>(r.lcn + (vcn - r.vcn)));
    ++n;
    vcn = entryEnd;
    if (vcn == r.vcnEnd()) ++i;
    if (atBreak) break;  // the rest of the map is in the next file record
  }
  put32(buffer, 0, static_cast<uint32_t>(n));
  put32(buffer, 4, 0);
  *bytesReturned = static_cast<DWORD>(kRetrievalHeader + n * kRetrievalEntry);
  return i < runs.size() ? ERROR_MORE_DATA : ERROR_SUCCESS;
}

DWORD SimDisk::checkMove(const SimNode& node, bool mayReadData, int64_t vcn, int64_t lcn, uint32_t count,
                         uint64_t* end) {
  if (faults_.movesToSkip > 0) {
    --faults_.movesToSkip;
  } else if (faults_.movesToFail > 0) {
    --faults_.movesToFail;
    return faults_.moveError;
  }
  if (node.removed) return ERROR_ACCESS_DENIED;  // delete pending
  if ((node.attributes & FILE_ATTRIBUTE_ENCRYPTED) && !mayReadData) return ERROR_ACCESS_DENIED;
  if (vcn < 0 || lcn < 0) return ERROR_INVALID_PARAMETER;
  uint64_t vcnCount = node.vcnCount();
  if (count > 0 && static_cast<uint64_t>(vcn) >= vcnCount) return ERROR_INVALID_PARAMETER;
  *end = std::min(static_cast<uint64_t>(vcn) + count, vcnCount);
  // Compressed and sparse files move in whole compression units.
  if (node.hasUnits() && count > 0 &&
      (vcn % kCompressionUnit != 0 || (*end % kCompressionUnit != 0 && *end != vcnCount))) {
    return ERROR_INVALID_PARAMETER;
  }
  return ERROR_SUCCESS;
}

DWORD SimDisk::moveClusters(SimNode& node, bool mayReadData, int64_t startingVcn, int64_t startingLcn,
                            uint32_t count) {
  std::lock_guard<std::mutex> guard(mutex_);
  uint64_t end = 0;
  DWORD error = checkMove(node, mayReadData, startingVcn, startingLcn, count, &end);
  if (error != ERROR_SUCCESS || count == 0) return error;
  uint64_t vcn = static_cast<uint64_t>(startingVcn), target = static_cast<uint64_t>(startingLcn);
  std::vector<SimRun> moving = sliceRuns(node.runs, vcn, end);
  uint64_t stored = storedClusters(moving);
  if (stored == 0) return ERROR_SUCCESS;
  if (!bitmap_.allFree(target, stored)) return ERROR_INVALID_PARAMETER;
  // Copy the clusters (with their tags) to the target, then free the source.
  bitmap_.set(target, stored);
  std::vector<SimRun> runs;
  for (const SimRun& r : sliceRuns(node.runs, 0, vcn)) appendRun(runs, r);
  for (SimRun r : moving) {
    if (!r.isVirtual()) {
      bitmap_.clear(r.lcn, r.length);
      r.lcn = target;
      target += r.length;
    }
    appendRun(runs, r);
  }
  for (const SimRun& r : sliceRuns(node.runs, end, node.vcnCount())) appendRun(runs, r);
  node.runs.swap(runs);
  node.recordBreaks.clear();
  ++generation_;
  return ERROR_SUCCESS;
}

}  // namespace glidewell
