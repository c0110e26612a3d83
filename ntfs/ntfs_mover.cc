#include "ntfs/ntfs_mover.h"

#include <algorithm>
#include <memory>
#include <vector>

#include "ntfs/ntfs3g.h"
#include "ntfs/ntfs_volume.h"

namespace glidewell {

namespace {

constexpr int64_t kCopyBytes = 1 << 20;

struct InodeCloser {
  void operator()(ntfs_inode* ni) const { ntfs_inode_close(ni); }
};
struct AttrCloser {
  void operator()(ntfs_attr* na) const { ntfs_attr_close(na); }
};

// A stored piece of the range being moved: where it is now.
struct Piece {
  int64_t lcn;
  int64_t length;
};

void append(std::vector<runlist_element>* rl, VCN vcn, LCN lcn, s64 length) {
  if (length <= 0) return;
  if (!rl->empty()) {
    runlist_element& last = rl->back();
    bool continues = lcn < 0 ? last.lcn == lcn : (last.lcn >= 0 && last.lcn + last.length == lcn);
    if (continues) {
      last.length += length;
      return;
    }
  }
  rl->push_back(runlist_element{vcn, lcn, length});
}

// Replaces the attribute's runlist by a malloc'ed copy of rl (the library frees it).
bool installRunlist(ntfs_attr* na, const std::vector<runlist_element>& rl) {
  auto* copy = static_cast<runlist_element*>(malloc(rl.size() * sizeof(runlist_element)));
  if (copy == nullptr) return false;
  std::copy(rl.begin(), rl.end(), copy);
  free(na->rl);
  na->rl = copy;
  return true;
}

}  // namespace

bool NtfsMover::flush() { return ntfs_device_sync(vol_->dev) == 0; }

bool NtfsMover::allFree(int64_t lcn, int64_t count, bool* ioError) {
  *ioError = false;
  int64_t firstByte = lcn / 8, lastByte = (lcn + count - 1) / 8;
  std::vector<uint8_t> bytes(static_cast<size_t>(lastByte - firstByte + 1));
  if (ntfs_attr_pread(vol_->lcnbmp_na, firstByte, static_cast<s64>(bytes.size()), bytes.data()) !=
      static_cast<s64>(bytes.size())) {
    *ioError = true;
    return false;
  }
  for (int64_t c = lcn; c < lcn + count; ++c) {
    if (bytes[static_cast<size_t>(c / 8 - firstByte)] & (1u << (c % 8))) return false;
  }
  return true;
}

bool NtfsMover::markClusters(int64_t lcn, int64_t count, bool used) {
  int64_t firstByte = lcn / 8, lastByte = (lcn + count - 1) / 8;
  std::vector<uint8_t> bytes(static_cast<size_t>(lastByte - firstByte + 1));
  s64 n = static_cast<s64>(bytes.size());
  if (ntfs_attr_pread(vol_->lcnbmp_na, firstByte, n, bytes.data()) != n) return false;
  for (int64_t c = lcn; c < lcn + count; ++c) {
    uint8_t& b = bytes[static_cast<size_t>(c / 8 - firstByte)];
    b = used ? static_cast<uint8_t>(b | (1u << (c % 8))) : static_cast<uint8_t>(b & ~(1u << (c % 8)));
  }
  if (ntfs_attr_pwrite(vol_->lcnbmp_na, firstByte, n, bytes.data()) != n) return false;
  return true;
}

bool NtfsMover::copyClusters(int64_t from, int64_t to, int64_t count, uint32_t* error) {
  const int64_t bits = vol_->cluster_size_bits;
  std::vector<uint8_t> buffer(static_cast<size_t>(std::min<int64_t>(kCopyBytes, count << bits)));
  int64_t done = 0, total = count << bits;
  while (done < total) {
    s64 n = std::min<int64_t>(static_cast<int64_t>(buffer.size()), total - done);
    if (ntfs_pread(vol_->dev, (from << bits) + done, n, buffer.data()) != n) {
      *error = kNtfsReadFault;
      return false;
    }
    if (ntfs_pwrite(vol_->dev, (to << bits) + done, n, buffer.data()) != n) {
      *error = kNtfsWriteFault;
      return false;
    }
    done += n;
  }
  return true;
}

uint32_t NtfsMover::move(uint64_t mftNo, int64_t vcn, int64_t lcn, uint32_t count) {
  if (vcn < 0 || lcn < 0) return kNtfsInvalidParameter;
  std::unique_ptr<ntfs_inode, InodeCloser> ni(ntfs_inode_open(vol_, mftNo));
  if (!ni) return kNtfsInvalidParameter;
  if (ni->mrec->flags & MFT_RECORD_IS_DIRECTORY) return kNtfsInvalidParameter;
  std::unique_ptr<ntfs_attr, AttrCloser> na(ntfs_attr_open(ni.get(), AT_DATA, AT_UNNAMED, 0));
  // A resident stream has no clusters to move.
  if (!na || !NAttrNonResident(na.get())) return kNtfsInvalidParameter;
  if (ntfs_attr_map_whole_runlist(na.get()) != 0) return kNtfsReadFault;

  const int64_t vcnCount = na->allocated_size >> vol_->cluster_size_bits;
  if (count > 0 && vcn >= vcnCount) return kNtfsInvalidParameter;
  const int64_t end = std::min<int64_t>(vcn + count, vcnCount);
  if ((na->data_flags & ATTR_COMPRESSION_MASK) && count > 0) {
    const int64_t unit = na->compression_block_clusters;
    if (unit > 0 && (vcn % unit != 0 || (end % unit != 0 && end != vcnCount))) return kNtfsInvalidParameter;
  }
  if (count == 0) return kNtfsOk;

  // The old runlist, the stored pieces of [vcn, end) and the new runlist.
  std::vector<runlist_element> oldRl, newRl;
  std::vector<Piece> pieces;
  int64_t next = lcn;
  const runlist_element* rl = na->rl;
  for (; rl->length != 0; ++rl) {
    if (rl->lcn < LCN_HOLE) return kNtfsReadFault;
    oldRl.push_back(*rl);
    const VCN s = rl->vcn, e = rl->vcn + rl->length;
    const VCN a = std::max<VCN>(s, vcn), b = std::min<VCN>(e, end);
    if (a >= b) {
      append(&newRl, s, rl->lcn, rl->length);
      continue;
    }
    append(&newRl, s, rl->lcn, a - s);
    if (rl->lcn >= 0) {
      pieces.push_back(Piece{rl->lcn + (a - s), b - a});
      append(&newRl, a, next, b - a);
      next += b - a;
    } else {
      append(&newRl, a, rl->lcn, b - a);
    }
    append(&newRl, b, rl->lcn >= 0 ? rl->lcn + (b - s) : rl->lcn, e - b);
  }
  oldRl.push_back(*rl);  // the terminator
  newRl.push_back(*rl);
  const int64_t stored = next - lcn;
  if (stored == 0) return kNtfsOk;  // only holes in the range
  if (lcn + stored > vol_->nr_clusters) return kNtfsInvalidParameter;
  bool ioError = false;
  if (!allFree(lcn, stored, &ioError)) return ioError ? kNtfsReadFault : kNtfsInvalidParameter;

  // 1. The target is ours before anything points at it.
  if (!markClusters(lcn, stored, true)) {
    markClusters(lcn, stored, false);
    return kNtfsWriteFault;
  }
  // 2. The bytes are at the target before the map says so. One flush covers
  // steps 1 and 2: until the map changes, nothing depends on either.
  uint32_t error = kNtfsOk;
  int64_t to = lcn;
  for (const Piece& p : pieces) {
    if (!copyClusters(p.lcn, to, p.length, &error)) break;
    to += p.length;
  }
  if (error == kNtfsOk && !flush()) error = kNtfsWriteFault;
  if (error != kNtfsOk) {
    markClusters(lcn, stored, false);
    flush();
    return error;
  }
  // 3. The map points at the target.
  if (!installRunlist(na.get(), newRl) || ntfs_attr_update_mapping_pairs(na.get(), 0) != 0 ||
      ntfs_inode_sync(ni.get()) != 0 || !flush()) {
    // Put the old map back; the target stays marked used only when that fails too.
    if (installRunlist(na.get(), oldRl) && ntfs_attr_update_mapping_pairs(na.get(), 0) == 0 &&
        ntfs_inode_sync(ni.get()) == 0 && flush()) {
      markClusters(lcn, stored, false);
      flush();
    }
    return kNtfsWriteFault;
  }
  // 4. The old clusters are free again. A failure here, or a crash before
  // the next flush, only leaks them, so this step is flushed by the next move
  // (or when the volume is closed).
  for (const Piece& p : pieces) markClusters(p.lcn, p.length, false);
  return kNtfsOk;
}

}  // namespace glidewell
