#include "ntfs/ntfs_volume.h"

#include <sys/stat.h>

#include <algorithm>

#include "ntfs/ntfs3g.h"
#include "ntfs/ntfs_device.h"
#include "ntfs/ntfs_mover.h"
#include "ntfs/ntfs_safety.h"

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "NTFS names are read in place as UTF-16LE");

namespace glidewell {

namespace {

constexpr size_t kRecentDirs = 16;

struct InodeCloser {
  void operator()(ntfs_inode* ni) const { ntfs_inode_close(ni); }
};
using InodePtr = std::unique_ptr<ntfs_inode, InodeCloser>;
struct AttrCloser {
  void operator()(ntfs_attr* na) const { ntfs_attr_close(na); }
};
using AttrPtr = std::unique_ptr<ntfs_attr, AttrCloser>;
struct FreeDeleter {
  void operator()(void* p) const { free(p); }
};

const ntfschar* units(const std::u16string& s) { return reinterpret_cast<const ntfschar*>(s.data()); }

// The library reports to stderr; its messages would interleave with the
// host's one-line errors, and every failure it reports reaches us as a result.
void quietLibrary() {
  static bool once = [] {
    ntfs_log_set_handler(ntfs_log_handler_null);
    return true;
  }();
  (void)once;
}

// The checks that need the volume's metadata, made on a read-only mount.
bool checkState(ntfs_volume* vol, const std::string& path, std::string* error) {
  if (le16_to_cpu(vol->flags) & le16_to_cpu(VOLUME_IS_DIRTY)) {
    *error = path + " is marked dirty: run ntfsfix or chkdsk first";
    return false;
  }
  if (ntfs_volume_check_hiberfile(vol, 0) != 0) {
    *error = path + " holds a hibernated Windows (or its hibernation file cannot be read): resume and shut down Windows, "
                    "or run ntfsfix or chkdsk first";
    return false;
  }
  InodePtr log(ntfs_inode_open(vol, FILE_LogFile));
  AttrPtr logData(log ? ntfs_attr_open(log.get(), AT_DATA, AT_UNNAMED, 0) : nullptr);
  RESTART_PAGE_HEADER* restart = nullptr;
  bool clean = logData && ntfs_check_logfile(logData.get(), &restart) &&
               ntfs_is_logfile_clean(logData.get(), restart);
  free(restart);
  if (!clean) {
    *error = path + " has an unclean journal ($LogFile): run ntfsfix or chkdsk first";
    return false;
  }
  return true;
}

}  // namespace

std::unique_ptr<NtfsVolume> NtfsVolume::open(const std::string& path, std::string* error, Options options) {
  quietLibrary();
  if (!hasNtfsBootSector(path, error)) return nullptr;
  std::string mountPoint = mountPointOf(path);
  if (!mountPoint.empty()) {
    *error = path + " is mounted on " + mountPoint + ": unmount it first";
    return nullptr;
  }
  struct stat st;
  bool blockDevice = ::stat(path.c_str(), &st) == 0 && S_ISBLK(st.st_mode);
  // A block device is opened exclusively, so a mount by the kernel (now or
  // while we work) fails instead of sharing the device with us.
  {
    ntfs_volume* probe = ntfs_mount(path.c_str(), NTFS_MNT_RDONLY | (blockDevice ? NTFS_MNT_EXCLUSIVE : 0));
    if (probe == nullptr) {
      *error = "cannot open " + path + " as NTFS: " + strerror(errno) + " (run ntfsfix or chkdsk first)";
      return nullptr;
    }
    bool ok = checkState(probe, path, error);
    ntfs_umount(probe, FALSE);
    if (!ok) return nullptr;
  }
  std::unique_ptr<DeviceFile> file = openDeviceFile(path, error);
  if (!file) return nullptr;
  if (options.wrapFile) file = options.wrapFile(std::move(file));
  auto device = std::make_unique<NtfsDevice>(std::move(file));
  ntfs_device* dev = device->makeDevice(path);
  ntfs_volume* vol = dev != nullptr ? ntfs_device_mount(dev, 0) : nullptr;
  if (vol == nullptr) {
    *error = "cannot open " + path + " for writing: " + strerror(errno);
    if (dev != nullptr) ntfs_device_free(dev);
    return nullptr;
  }
  return std::unique_ptr<NtfsVolume>(new NtfsVolume(path, std::move(device), vol, options.limits));
}

NtfsVolume::NtfsVolume(std::string path, std::unique_ptr<NtfsDevice> device, ntfs_volume* vol,
                       const NtfsCommitLimits& limits)
    : path_(std::move(path)), device_(std::move(device)), vol_(vol), mover_(std::make_unique<NtfsMover>(vol, limits)) {
  totalClusters_ = static_cast<uint64_t>(vol->nr_clusters);
  clusterSize_ = vol->cluster_size;
  sectorSize_ = vol->sector_size;
  uint8_t serial[8] = {};
  if (ntfs_pread(vol->dev, 0x48, 8, serial) == 8) {
    serial_ = static_cast<uint32_t>(serial[0] | serial[1] << 8 | serial[2] << 16 | static_cast<uint32_t>(serial[3]) << 24);
  }
  s64 size = 0;
  std::unique_ptr<ntfschar, FreeDeleter> name(
      static_cast<ntfschar*>(ntfs_attr_readall(vol->vol_ni, AT_VOLUME_NAME, nullptr, 0, &size)));
  if (name) label_.assign(reinterpret_cast<const char16_t*>(name.get()), static_cast<size_t>(size) / 2);
}

NtfsVolume::~NtfsVolume() {
  // A failed commit has left the disk consistent; nothing more can be done here.
  mover_->commitAll();
  mover_.reset();
  ntfs_umount(vol_, FALSE);
}

uint32_t NtfsVolume::readBitmap(uint64_t first, size_t count, uint8_t* out) {
  std::lock_guard<std::mutex> guard(mutex_);
  std::fill(out, out + count, 0);
  ntfs_attr* bitmap = vol_->lcnbmp_na;
  s64 available = bitmap->data_size - static_cast<s64>(first);
  if (available <= 0) return kNtfsOk;
  s64 want = std::min<s64>(available, static_cast<s64>(count));
  if (ntfs_attr_pread(bitmap, static_cast<s64>(first), want, out) != want) return kNtfsReadFault;
  mover_->clearLeft(first, static_cast<size_t>(want), out);  // clusters pending moves left are free
  return kNtfsOk;
}

uint64_t NtfsVolume::freeClusters() {
  std::vector<uint8_t> chunk(1 << 16);
  uint64_t used = 0;
  for (uint64_t byte = 0; byte * 8 < totalClusters_; byte += chunk.size()) {
    size_t n = static_cast<size_t>(std::min<uint64_t>(chunk.size(), (totalClusters_ + 7) / 8 - byte));
    if (readBitmap(byte, n, chunk.data()) != kNtfsOk) return 0;
    for (size_t i = 0; i < n; ++i) {
      uint64_t lcn = (byte + i) * 8;
      unsigned bits = chunk[i];
      if (lcn + 8 > totalClusters_) bits &= (1u << (totalClusters_ - lcn)) - 1;
      used += static_cast<uint64_t>(__builtin_popcount(bits));
    }
  }
  return totalClusters_ - used;
}

namespace {


int collectName(void* context, const ntfschar* name, const int nameLength, const int nameType, const s64 pos,
                const MFT_REF mref, const unsigned dtType) {
  auto* names = static_cast<std::vector<NtfsName>*>(context);
  if (nameType == FILE_NAME_DOS) return 0;  // the short alias of a name listed already
  std::u16string text(reinterpret_cast<const char16_t*>(name), static_cast<size_t>(nameLength));
  if (text == u"." || text == u"..") return 0;
  names->push_back(NtfsName{std::move(text), MREF(mref), dtType == NTFS_DT_DIR});
  return 0;
}

}  // namespace

uint32_t NtfsVolume::listNamesLocked(uint64_t dirMft, const std::vector<NtfsName>** names) {
  for (auto it = recentDirs_.begin(); it != recentDirs_.end(); ++it) {
    if (it->first == dirMft) {
      recentDirs_.splice(recentDirs_.begin(), recentDirs_, it);
      *names = &recentDirs_.front().second;
      return kNtfsOk;
    }
  }
  InodePtr dir(ntfs_inode_open(vol_, dirMft));
  if (!dir) return kNtfsPathNotFound;
  if (!(dir->mrec->flags & MFT_RECORD_IS_DIRECTORY)) return kNtfsPathNotFound;
  std::vector<NtfsName> found;
  s64 pos = 0;
  if (ntfs_readdir(dir.get(), &pos, &found, collectName) != 0) return kNtfsReadFault;
  // The library gives the entries block by block; a directory lists them in
  // the order of its index: upper-cased names first, exact names for ties.
  std::vector<size_t> order(found.size());
  for (size_t i = 0; i < order.size(); ++i) order[i] = i;
  std::stable_sort(order.begin(), order.end(), [&](size_t a, size_t b) {
    const std::u16string& x = found[a].name;
    const std::u16string& y = found[b].name;
    return ntfs_names_full_collate(units(x), static_cast<u32>(x.size()), units(y), static_cast<u32>(y.size()),
                                   CASE_SENSITIVE, vol_->upcase, vol_->upcase_len) < 0;
  });
  std::vector<NtfsName> sorted;
  sorted.reserve(found.size());
  for (size_t i : order) sorted.push_back(std::move(found[i]));
  recentDirs_.emplace_front(dirMft, std::move(sorted));
  if (recentDirs_.size() > kRecentDirs) recentDirs_.pop_back();
  *names = &recentDirs_.front().second;
  return kNtfsOk;
}

uint32_t NtfsVolume::listNames(uint64_t dirMft, std::vector<NtfsName>* names) {
  std::lock_guard<std::mutex> guard(mutex_);
  const std::vector<NtfsName>* cached = nullptr;
  uint32_t error = listNamesLocked(dirMft, &cached);
  if (error != kNtfsOk) return error;
  names->clear();
  for (const NtfsName& n : *cached) {
    if (!isMetafile(n.mftNo)) names->push_back(n);
  }
  return kNtfsOk;
}

uint32_t NtfsVolume::lookup(const std::vector<std::u16string>& components, uint64_t* mftNo) {
  std::lock_guard<std::mutex> guard(mutex_);
  uint64_t current = kRootMft;
  for (size_t i = 0; i < components.size(); ++i) {
    bool last = i + 1 == components.size();
    const std::vector<NtfsName>* names = nullptr;
    uint32_t error = listNamesLocked(current, &names);
    if (error != kNtfsOk) return kNtfsPathNotFound;
    const NtfsName* match = nullptr;
    for (const NtfsName& n : *names) {
      if (n.name == components[i]) {
        match = &n;
        break;
      }
    }
    if (match == nullptr) {
      std::u16string wanted = components[i];
      for (const NtfsName& n : *names) {
        if (ntfs_names_are_equal(units(n.name), n.name.size(), units(wanted), wanted.size(), IGNORE_CASE,
                                 vol_->upcase, vol_->upcase_len)) {
          match = &n;
          break;
        }
      }
    }
    if (match == nullptr) return last ? kNtfsFileNotFound : kNtfsPathNotFound;
    current = match->mftNo;
    if (isMetafile(current)) return kNtfsAccessDenied;
    if (!last && !match->directory) return kNtfsPathNotFound;
  }
  *mftNo = current;
  return kNtfsOk;
}

uint32_t NtfsVolume::fileInfo(uint64_t mftNo, NtfsFileInfo* info) {
  std::lock_guard<std::mutex> guard(mutex_);
  InodePtr ni(ntfs_inode_open(vol_, mftNo));
  if (!ni) return kNtfsFileNotFound;
  info->mftNo = mftNo;
  info->directory = (ni->mrec->flags & MFT_RECORD_IS_DIRECTORY) != 0;
  // The Win32 attributes are the low bits of the standard information flags.
  uint32_t attributes = le32_to_cpu(ni->flags) & 0xFFFFu;
  if (info->directory) attributes |= kNtfsAttrDirectory;
  info->attributes = attributes == 0 ? kNtfsAttrNormal : attributes;
  info->size = info->directory ? 0 : static_cast<uint64_t>(ni->data_size);
  return kNtfsOk;
}

uint32_t NtfsVolume::streamMap(uint64_t mftNo, NtfsStreamMap* map) {
  std::lock_guard<std::mutex> guard(mutex_);
  *map = NtfsStreamMap();
  InodePtr ni(ntfs_inode_open(vol_, mftNo));
  if (!ni) return kNtfsFileNotFound;
  if (ni->mrec->flags & MFT_RECORD_IS_DIRECTORY) return kNtfsOk;
  AttrPtr na(ntfs_attr_open(ni.get(), AT_DATA, AT_UNNAMED, 0));
  if (!na || !NAttrNonResident(na.get())) return kNtfsOk;
  map->nonResident = true;
  map->vcnCount = static_cast<uint64_t>(na->allocated_size) >> vol_->cluster_size_bits;
  if (na->data_flags & ATTR_COMPRESSION_MASK) map->unitClusters = na->compression_block_clusters;
  auto add = [map](int64_t vcn, int64_t lcn, int64_t length) {
    if (!map->runs.empty()) {
      NtfsRun& last = map->runs.back();
      bool continues = lcn < 0 ? last.lcn < 0 : (last.lcn >= 0 && last.lcn + last.length == lcn);
      if (continues && last.vcn + last.length == vcn) {
        last.length += length;
        return;
      }
    }
    map->runs.push_back(NtfsRun{vcn, lcn, length});
  };
  if (const std::vector<NtfsRun>* pending = mover_->pendingRuns(mftNo)) {
    for (const NtfsRun& r : *pending) add(r.vcn, r.lcn, r.length);
    return kNtfsOk;
  }
  if (ntfs_attr_map_whole_runlist(na.get()) != 0) return kNtfsReadFault;
  for (const runlist_element* rl = na->rl; rl != nullptr && rl->length != 0; ++rl) {
    if (rl->lcn < LCN_HOLE) return kNtfsReadFault;  // a part of the map the library could not read
    add(rl->vcn, rl->lcn >= 0 ? rl->lcn : -1, rl->length);
  }
  return kNtfsOk;
}

uint32_t NtfsVolume::moveClusters(uint64_t mftNo, int64_t vcn, int64_t lcn, uint32_t count) {
  std::lock_guard<std::mutex> guard(mutex_);
  if (isMetafile(mftNo)) return kNtfsAccessDenied;
  return mover_->move(mftNo, vcn, lcn, count);
}

std::u16string NtfsVolume::upcase(const std::u16string& name) {
  std::u16string out = name;
  ntfs_name_upcase(reinterpret_cast<ntfschar*>(&out[0]), static_cast<u32>(out.size()), vol_->upcase, vol_->upcase_len);
  return out;
}

}  // namespace glidewell
