#include "ntfs/ntfs_mover.h"

#include <algorithm>
#include <memory>

#include "ntfs/ntfs3g.h"
#include "ntfs/ntfs_record_writer.h"

namespace glidewell {

namespace {

constexpr int64_t kCopyBytes = 1 << 20;

struct InodeCloser {
  void operator()(ntfs_inode* ni) const { ntfs_inode_close(ni); }
};
struct AttrCloser {
  void operator()(ntfs_attr* na) const { ntfs_attr_close(na); }
};

void append(std::vector<NtfsRun>* runs, int64_t vcn, int64_t lcn, int64_t length) {
  if (length <= 0) return;
  if (!runs->empty()) {
    NtfsRun& last = runs->back();
    bool continues = lcn < 0 ? last.lcn == lcn : (last.lcn >= 0 && last.lcn + last.length == lcn);
    if (continues) {
      last.length += length;
      return;
    }
  }
  runs->push_back(NtfsRun{vcn, lcn, length});
}

// The runs of a move of VCNs [vcn, end) to lcn, and the stored pieces it leaves.
struct Plan {
  std::vector<NtfsRun> runs;
  std::vector<PendingMoves::Extent> left;
  int64_t stored = 0;
};

Plan plan(const std::vector<NtfsRun>& runs, int64_t vcn, int64_t end, int64_t lcn) {
  Plan p;
  for (const NtfsRun& r : runs) {
    const int64_t s = r.vcn, e = r.vcn + r.length;
    const int64_t a = std::max(s, vcn), b = std::min(e, end);
    if (a >= b) {
      append(&p.runs, s, r.lcn, r.length);
      continue;
    }
    append(&p.runs, s, r.lcn, a - s);
    if (r.lcn >= 0) {
      p.left.push_back(PendingMoves::Extent{r.lcn + (a - s), b - a});
      append(&p.runs, a, lcn + p.stored, b - a);
      p.stored += b - a;
    } else {
      append(&p.runs, a, r.lcn, b - a);  // a hole stays a hole
    }
    append(&p.runs, b, r.lcn >= 0 ? r.lcn + (b - s) : r.lcn, e - b);
  }
  return p;
}

}  // namespace

bool NtfsMover::sync() { return ntfs_device_sync(vol_->dev) == 0; }

bool NtfsMover::fail() {
  // What is on disk is consistent (each step waited for the one before);
  // whatever is still pending must never be written after this.
  failed_ = true;
  pending_.clear();
  return false;
}

bool NtfsMover::readBitmap(int64_t lcn, int64_t count, int64_t* firstByte, std::vector<uint8_t>* bytes) {
  *firstByte = lcn / 8;
  bytes->resize(static_cast<size_t>((lcn + count - 1) / 8 - *firstByte + 1));
  s64 n = static_cast<s64>(bytes->size());
  return ntfs_attr_pread(vol_->lcnbmp_na, *firstByte, n, bytes->data()) == n;
}

bool NtfsMover::writeBitmap(int64_t firstByte, const std::vector<uint8_t>& bytes) {
  s64 n = static_cast<s64>(bytes.size());
  return ntfs_attr_pwrite(vol_->lcnbmp_na, firstByte, n, bytes.data()) == n;
}

bool NtfsMover::freeClusters(const std::vector<PendingMoves::Extent>& extents) {
  // Extents in cluster order whose bits lie close together are cleared with
  // one read and one write of $Bitmap.
  constexpr int64_t kWindowBytes = 4096;
  for (size_t i = 0; i < extents.size();) {
    const int64_t first = extents[i].lcn;
    size_t j = i + 1;
    while (j < extents.size() && (extents[j].lcn + extents[j].length - 1) / 8 - first / 8 < kWindowBytes) ++j;
    int64_t firstByte;
    std::vector<uint8_t> bytes;
    const int64_t last = extents[j - 1].lcn + extents[j - 1].length;
    if (!readBitmap(first, last - first, &firstByte, &bytes)) return false;
    for (; i < j; ++i) {
      for (int64_t c = extents[i].lcn; c < extents[i].lcn + extents[i].length; ++c) {
        bytes[static_cast<size_t>(c / 8 - firstByte)] &= static_cast<uint8_t>(~(1u << (c % 8)));
      }
    }
    if (!writeBitmap(firstByte, bytes)) return false;
  }
  return true;
}

bool NtfsMover::readClusters(int64_t lcn, int64_t count, uint8_t* out) {
  const s64 n = count << vol_->cluster_size_bits;
  if (ntfs_pread(vol_->dev, lcn << vol_->cluster_size_bits, n, out) != n) return false;
  pending_.overlayHeld(lcn, count, vol_->cluster_size, out);
  return true;
}

bool NtfsMover::writeClusters(int64_t lcn, const std::vector<uint8_t>& bytes) {
  const s64 n = static_cast<s64>(bytes.size());
  return ntfs_pwrite(vol_->dev, lcn << vol_->cluster_size_bits, n, bytes.data()) == n;
}

bool NtfsMover::copyClusters(const std::vector<PendingMoves::Extent>& from, int64_t to, uint32_t* error) {
  // The pieces are gathered into one buffer and written to the contiguous
  // target in large writes.
  const int64_t chunk = kCopyBytes >> vol_->cluster_size_bits;
  std::vector<uint8_t> buffer;
  int64_t filled = 0;
  auto flushBuffer = [&] {
    buffer.resize(static_cast<size_t>(filled << vol_->cluster_size_bits));
    bool ok = writeClusters(to, buffer);
    to += filled;
    filled = 0;
    return ok;
  };
  for (const PendingMoves::Extent& e : from) {
    for (int64_t done = 0; done < e.length;) {
      int64_t n = std::min(chunk - filled, e.length - done);
      buffer.resize(static_cast<size_t>((filled + n) << vol_->cluster_size_bits));
      if (!readClusters(e.lcn + done, n, buffer.data() + (filled << vol_->cluster_size_bits))) {
        *error = kNtfsReadFault;
        return false;
      }
      filled += n;
      done += n;
      if (filled == chunk && !flushBuffer()) {
        *error = kNtfsWriteFault;
        return false;
      }
    }
  }
  if (filled > 0 && !flushBuffer()) {
    *error = kNtfsWriteFault;
    return false;
  }
  return true;
}

uint32_t NtfsMover::move(uint64_t mftNo, int64_t vcn, int64_t lcn, uint32_t count) {
  if (failed_) return kNtfsWriteFault;
  if (vcn < 0 || lcn < 0) return kNtfsInvalidParameter;
  std::unique_ptr<ntfs_inode, InodeCloser> ni(ntfs_inode_open(vol_, mftNo));
  if (!ni) return kNtfsInvalidParameter;
  if (ni->mrec->flags & MFT_RECORD_IS_DIRECTORY) return kNtfsInvalidParameter;
  std::unique_ptr<ntfs_attr, AttrCloser> na(ntfs_attr_open(ni.get(), AT_DATA, AT_UNNAMED, 0));
  // A resident stream has no clusters to move.
  if (!na || !NAttrNonResident(na.get())) return kNtfsInvalidParameter;

  const int64_t vcnCount = na->allocated_size >> vol_->cluster_size_bits;
  if (count > 0 && vcn >= vcnCount) return kNtfsInvalidParameter;
  const int64_t end = std::min<int64_t>(vcn + count, vcnCount);
  if ((na->data_flags & ATTR_COMPRESSION_MASK) && count > 0) {
    const int64_t unit = na->compression_block_clusters;
    if (unit > 0 && (vcn % unit != 0 || (end % unit != 0 && end != vcnCount))) return kNtfsInvalidParameter;
  }
  if (count == 0) return kNtfsOk;

  // The runs as the volume shows them: a pending move's, else the disk's.
  std::vector<NtfsRun> runs;
  if (const std::vector<NtfsRun>* pending = pending_.runsOf(mftNo)) {
    runs = *pending;
  } else {
    if (ntfs_attr_map_whole_runlist(na.get()) != 0) return kNtfsReadFault;
    for (const runlist_element* rl = na->rl; rl->length != 0; ++rl) {
      if (rl->lcn < LCN_HOLE) return kNtfsReadFault;
      runs.push_back(NtfsRun{rl->vcn, rl->lcn, rl->length});
    }
  }
  Plan p = plan(runs, vcn, end, lcn);
  if (p.stored == 0) return kNtfsOk;  // only holes in the range
  if (lcn + p.stored > vol_->nr_clusters) return kNtfsInvalidParameter;

  // The target must be free: clear in $Bitmap, or left by a pending move.
  int64_t firstByte;
  std::vector<uint8_t> before;
  if (!readBitmap(lcn, p.stored, &firstByte, &before)) return kNtfsReadFault;
  for (int64_t c = lcn; c < lcn + p.stored; ++c) {
    if ((before[static_cast<size_t>(c / 8 - firstByte)] >> (c % 8) & 1) && !pending_.isLeft(c)) {
      return kNtfsInvalidParameter;
    }
  }
  uint64_t batch = pending_.batchFor(mftNo, lcn, p.stored);
  const size_t bytes = static_cast<size_t>(p.stored << vol_->cluster_size_bits);
  // Data that has to wait must fit in memory, else the batches before it go
  // first (which may free clusters around the target: the bitmap is read again).
  if (batch > pending_.base() && pending_.heldBytes() + bytes > limits_.heldBytes) {
    while (batch > pending_.base() && pending_.heldBytes() + bytes > limits_.heldBytes) {
      if (!commit()) return kNtfsWriteFault;
    }
    batch = std::max(batch, pending_.base());
    if (!readBitmap(lcn, p.stored, &firstByte, &before)) return kNtfsReadFault;
  }

  // 1. The target is ours before anything points at it; its data follows at
  // once in the base batch, later (held here) in a batch above it.
  std::vector<uint8_t> marked = before;
  for (int64_t c = lcn; c < lcn + p.stored; ++c) marked[static_cast<size_t>(c / 8 - firstByte)] |= static_cast<uint8_t>(1u << (c % 8));
  uint32_t error = kNtfsOk;
  if (!writeBitmap(firstByte, marked)) {
    error = kNtfsWriteFault;
  } else if (batch == pending_.base()) {
    copyClusters(p.left, lcn, &error);
  } else {
    PendingMoves::Held held{batch, lcn, std::vector<uint8_t>(bytes)};
    int64_t at = 0;
    for (const PendingMoves::Extent& e : p.left) {
      if (!readClusters(e.lcn, e.length, held.bytes.data() + (at << vol_->cluster_size_bits))) {
        error = kNtfsReadFault;
        break;
      }
      at += e.length;
    }
    if (error == kNtfsOk) pending_.hold(std::move(held));
  }
  if (error != kNtfsOk) {
    writeBitmap(firstByte, before);  // nothing points at the target: it is free again
    return error;
  }
  // 2. and 3. wait for the batch's commit.
  pending_.add(mftNo, batch, std::move(p.runs), lcn, p.stored, p.left);
  if (pending_.records() >= limits_.records || pending_.heldBytes() > limits_.heldBytes ||
      pending_.leftExtents() >= limits_.leftExtents) {
    if (!commit()) return kNtfsWriteFault;
  }
  return kNtfsOk;
}

bool NtfsMover::commit() {
  std::map<uint64_t, std::vector<NtfsRun>> records = pending_.takeRecords();
  if (!records.empty()) {
    // 2. The batch's data and marks are durable before any record points at them.
    if (!sync()) return fail();
    size_t remaining = records.size();
    for (const auto& [mftNo, runs] : records) {
      --remaining;
      bool repacked = false;
      if (!writeStreamRuns(vol_, mftNo, runs, &repacked)) return fail();
      // Repacking, the library may free extent records or clusters of an
      // attribute list and hand them to the next file it extends; they are
      // free only once this file's records are durable.
      if (repacked && remaining > 0 && !sync()) return fail();
    }
    if (!sync()) return fail();
  }
  // 3. The records are durable: what the batch left is free, and the data
  // that waited for those clusters can go out.
  if (!freeClusters(pending_.takeLeft())) return fail();
  for (const PendingMoves::Held& h : pending_.advance()) {
    if (!writeClusters(h.lcn, h.bytes)) return fail();
  }
  return true;
}

bool NtfsMover::commitAll() {
  while (!failed_ && !pending_.empty()) {
    if (!commit()) return false;
  }
  return !failed_;
}

}  // namespace glidewell
