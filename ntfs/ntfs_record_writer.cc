#include "ntfs/ntfs_record_writer.h"

#include <algorithm>
#include <cstdint>
#include <memory>

#include "ntfs/ntfs3g.h"

namespace glidewell {

namespace {

struct InodeCloser {
  void operator()(ntfs_inode* ni) const { ntfs_inode_close(ni); }
};
struct AttrCloser {
  void operator()(ntfs_attr* na) const { ntfs_attr_close(na); }
};
struct SearchCtxCloser {
  void operator()(ntfs_attr_search_ctx* ctx) const { ntfs_attr_put_search_ctx(ctx); }
};

// The runs of rl within VCNs [first, last], ended as a runlist is ended.
std::vector<runlist_element> slice(const runlist_element* rl, VCN first, VCN last) {
  std::vector<runlist_element> out;
  for (; rl->length != 0; ++rl) {
    const VCN a = std::max(first, rl->vcn), b = std::min(last + 1, rl->vcn + rl->length);
    if (a >= b) continue;
    out.push_back(runlist_element{a, rl->lcn < 0 ? rl->lcn : rl->lcn + (a - rl->vcn), b - a});
  }
  out.push_back(runlist_element{last + 1, LCN_ENOENT, 0});
  return out;
}

enum class Rewrite { kDone, kCannot, kFailed };

// Writes na's runlist into the mapping pairs of each of its records, each
// for the VCNs that record covers already. The records keep their ranges and
// the attribute list stays as it is, so every record's write stands on its
// own: killed between them, each record maps its VCNs to the old clusters or
// to the new ones, and both hold the data. kCannot, with nothing changed,
// when a record has no room for its new mapping pairs (or its records are
// not laid out as expected).
Rewrite rewriteInPlace(ntfs_volume* vol, ntfs_inode* ni, ntfs_attr* na) {
  struct Extent {
    ntfs_inode* owner;
    MFT_RECORD* record;
    ATTR_RECORD* attr;
    std::vector<runlist_element> runs;
    u32 length;
  };
  std::vector<Extent> extents;
  std::unique_ptr<ntfs_attr_search_ctx, SearchCtxCloser> ctx(ntfs_attr_get_search_ctx(ni, nullptr));
  if (!ctx) return Rewrite::kFailed;
  const VCN end = na->allocated_size >> vol->cluster_size_bits;
  for (VCN next = 0; next < end;) {
    ntfs_attr_reinit_search_ctx(ctx.get());
    if (ntfs_attr_lookup(AT_DATA, AT_UNNAMED, 0, CASE_SENSITIVE, next, nullptr, 0, ctx.get()) != 0) {
      return Rewrite::kCannot;
    }
    ATTR_RECORD* a = ctx->attr;
    const VCN lowest = sle64_to_cpu(a->lowest_vcn), highest = sle64_to_cpu(a->highest_vcn);
    if (!a->non_resident || lowest != next || highest < lowest) return Rewrite::kCannot;
    Extent e{ctx->ntfs_ino, ctx->mrec, a, slice(na->rl, lowest, highest), 0};
    int size = ntfs_get_size_for_mapping_pairs(vol, e.runs.data(), lowest, INT32_MAX);
    if (size < 0) return Rewrite::kCannot;
    e.length = (le16_to_cpu(a->mapping_pairs_offset) + static_cast<u32>(size) + 7) & ~7u;
    const u32 grows = e.length > le32_to_cpu(a->length) ? e.length - le32_to_cpu(a->length) : 0;
    if (grows > le32_to_cpu(e.record->bytes_allocated) - le32_to_cpu(e.record->bytes_in_use)) return Rewrite::kCannot;
    extents.push_back(std::move(e));
    next = highest + 1;
  }
  for (Extent& e : extents) {
    if (ntfs_attr_record_resize(e.record, e.attr, e.length) != 0) return Rewrite::kFailed;
    u8* pairs = reinterpret_cast<u8*>(e.attr) + le16_to_cpu(e.attr->mapping_pairs_offset);
    const runlist_element* stop = nullptr;
    if (ntfs_mapping_pairs_build(vol, pairs, static_cast<int>(e.length - le16_to_cpu(e.attr->mapping_pairs_offset)),
                                 e.runs.data(), sle64_to_cpu(e.attr->lowest_vcn), &stop) != 0) {
      return Rewrite::kFailed;
    }
    ntfs_inode_mark_dirty(e.owner);
  }
  return Rewrite::kDone;
}

}  // namespace

bool writeStreamRuns(ntfs_volume* vol, uint64_t mftNo, const std::vector<NtfsRun>& runs, bool* repacked) {
  std::unique_ptr<ntfs_inode, InodeCloser> ni(ntfs_inode_open(vol, mftNo));
  if (!ni) return false;
  std::unique_ptr<ntfs_attr, AttrCloser> na(ntfs_attr_open(ni.get(), AT_DATA, AT_UNNAMED, 0));
  if (!na || ntfs_attr_map_whole_runlist(na.get()) != 0) return false;
  const runlist_element* terminator = na->rl;
  while (terminator->length != 0) ++terminator;
  // The library frees the runlist it holds and takes a malloc'ed one.
  auto* rl = static_cast<runlist_element*>(malloc((runs.size() + 1) * sizeof(runlist_element)));
  if (rl == nullptr) return false;
  for (size_t i = 0; i < runs.size(); ++i) rl[i] = runlist_element{runs[i].vcn, runs[i].lcn, runs[i].length};
  rl[runs.size()] = *terminator;
  free(na->rl);
  na->rl = rl;
  Rewrite done = rewriteInPlace(vol, ni.get(), na.get());
  if (done == Rewrite::kFailed) return false;
  // Else the library packs the runs into records afresh. With an attribute
  // list that moves record boundaries and rewrites the list, in writes no
  // order makes safe at every instant (NTFS itself relies on its journal);
  // it happens only when a move adds runs to a full record.
  *repacked = done == Rewrite::kCannot;
  if (*repacked && ntfs_attr_update_mapping_pairs(na.get(), 0) != 0) return false;
  return ntfs_inode_sync(ni.get()) == 0;
}

}  // namespace glidewell
