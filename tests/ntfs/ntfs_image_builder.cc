// Builds test volumes through libntfs-3g. This file talks to the library
// directly, so it must not include platform/wintypes.h (see ntfs/ntfs3g.h).
#include "ntfs_image_builder.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <random>

#include "ntfs/ntfs3g.h"

namespace glidewell {
namespace ntfstest {

namespace {

struct Unmount {
  void operator()(ntfs_volume* v) const { ntfs_umount(v, FALSE); }
};
using VolumePtr = std::unique_ptr<ntfs_volume, Unmount>;

std::u16string utf16(const std::string& ascii) { return std::u16string(ascii.begin(), ascii.end()); }

class Writer {
 public:
  explicit Writer(const std::string& image) : vol_(ntfs_mount(image.c_str(), 0)) {
    if (!vol_) error = "cannot mount " + image + ": " + strerror(errno);
  }
  ~Writer() {
    for (auto& dir : dirs_) ntfs_inode_close(dir.second);
  }

  // The inode of a directory (created on the way), kept open.
  ntfs_inode* directory(const std::string& path) {
    if (path.empty()) return root();
    auto it = dirs_.find(path);
    if (it != dirs_.end()) return it->second;
    size_t cut = path.find_last_of('/');
    ntfs_inode* parent = directory(cut == std::string::npos ? "" : path.substr(0, cut));
    if (parent == nullptr) return nullptr;
    std::string name = cut == std::string::npos ? path : path.substr(cut + 1);
    ntfs_inode* dir = openChild(parent, name);
    if (dir == nullptr) dir = create(parent, name, S_IFDIR);
    if (dir != nullptr) dirs_[path] = dir;
    return dir;
  }

  // Writes data at offset of a file (created when missing).
  bool write(const std::string& path, int64_t offset, const std::vector<uint8_t>& data, bool compressed = false) {
    size_t cut = path.find_last_of('/');
    ntfs_inode* dir = directory(cut == std::string::npos ? "" : path.substr(0, cut));
    if (dir == nullptr) return fail("no directory for " + path);
    std::string name = cut == std::string::npos ? path : path.substr(cut + 1);
    ntfs_inode* ni = openChild(dir, name);
    if (ni == nullptr) {
      ni = create(dir, name, S_IFREG);
      if (ni == nullptr) return fail("cannot create " + path);
      if (compressed) {
        ntfs_attr_set_flags(ni, AT_DATA, AT_UNNAMED, 0, ATTR_IS_COMPRESSED, ATTR_COMPRESSION_MASK);
        ni->flags = static_cast<FILE_ATTR_FLAGS>(ni->flags | FILE_ATTR_COMPRESSED);
        NInoSetDirty(ni);
      }
    }
    ntfs_attr* na = ntfs_attr_open(ni, AT_DATA, AT_UNNAMED, 0);
    bool ok = na != nullptr &&
              ntfs_attr_pwrite(na, offset, static_cast<s64>(data.size()), data.data()) == static_cast<s64>(data.size());
    if (na != nullptr) {
      if (ntfs_attr_pclose(na) != 0) ok = false;
      ntfs_attr_close(na);
    }
    ntfs_inode_close_in_dir(ni, dir);
    return ok || fail("cannot write " + path + ": " + strerror(errno));
  }

  bool remove(const std::string& path) {
    // ntfs_delete takes the directory's inode too and releases it, so the
    // directory is opened afresh for it and no cached inode is held across it.
    for (auto& dir : dirs_) ntfs_inode_close(dir.second);
    dirs_.clear();
    size_t cut = path.find_last_of('/');
    std::string dirPath = cut == std::string::npos ? "" : path.substr(0, cut);
    ntfs_inode* dir = directory(dirPath);
    for (auto& d : dirs_) {
      if (d.second != dir) ntfs_inode_close(d.second);
    }
    dirs_.clear();
    std::string name = cut == std::string::npos ? path : path.substr(cut + 1);
    ntfs_inode* ni = dir ? openChild(dir, name) : nullptr;
    if (ni == nullptr) return fail("cannot open " + path);
    std::u16string u = utf16(name);
    if (ntfs_delete(vol_.get(), nullptr, ni, dir, reinterpret_cast<ntfschar*>(&u[0]), static_cast<u8>(u.size())) != 0) {
      return fail("cannot delete " + path + ": " + strerror(errno));
    }
    return true;
  }

  ntfs_volume* volume() { return vol_.get(); }
  bool finish() {
    for (auto& dir : dirs_) ntfs_inode_close(dir.second);
    dirs_.clear();
    if (vol_ && ntfs_umount(vol_.release(), FALSE) != 0) return fail("unmount failed");
    return error.empty();
  }

  std::string error;

 private:
  bool fail(const std::string& why) {
    if (error.empty()) error = why;
    return false;
  }
  ntfs_inode* root() {
    auto it = dirs_.find("");
    if (it != dirs_.end()) return it->second;
    ntfs_inode* r = ntfs_inode_open(vol_.get(), FILE_root);
    dirs_[""] = r;
    return r;
  }
  // The child with exactly this name (case twins stay apart).
  ntfs_inode* openChild(ntfs_inode* dir, const std::string& name) {
    struct Find {
      std::u16string name;
      MFT_REF found = 0;
    } find{utf16(name), 0};
    s64 pos = 0;
    ntfs_readdir(dir, &pos, &find,
                 [](void* ctx, const ntfschar* n, const int len, const int type, const s64, const MFT_REF mref,
                    const unsigned) -> int {
                   auto* f = static_cast<Find*>(ctx);
                   if (type != FILE_NAME_DOS && f->name == std::u16string(reinterpret_cast<const char16_t*>(n), len)) {
                     f->found = mref;
                   }
                   return 0;
                 });
    return find.found ? ntfs_inode_open(vol_.get(), MREF(find.found)) : nullptr;
  }
  ntfs_inode* create(ntfs_inode* dir, const std::string& name, mode_t type) {
    std::u16string u = utf16(name);
    return ntfs_create(dir, 0, reinterpret_cast<ntfschar*>(&u[0]), static_cast<u8>(u.size()), type);
  }

  VolumePtr vol_;
  std::map<std::string, ntfs_inode*> dirs_;
};

std::vector<uint8_t> randomBytes(std::mt19937& rng, size_t n) {
  std::vector<uint8_t> out(n);
  for (auto& b : out) b = static_cast<uint8_t>(rng());
  return out;
}

// Text that compresses well but is not all one byte.
std::vector<uint8_t> compressibleBytes(std::mt19937& rng, size_t n) {
  std::vector<uint8_t> out(n);
  const char* words[] = {"glidewell ", "cluster ", "extent ", "bitmap ", "volume "};
  size_t at = 0;
  while (at < n) {
    const char* w = words[rng() % 5];
    for (const char* c = w; *c && at < n; ++c) out[at++] = static_cast<uint8_t>(*c);
  }
  return out;
}

}  // namespace

std::string makeImage(const std::string& path, uint64_t bytes, const std::string& label) {
  int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  if (fd < 0 || ::ftruncate(fd, static_cast<off_t>(bytes)) != 0) {
    if (fd >= 0) ::close(fd);
    return "cannot create " + path;
  }
  ::close(fd);
  pid_t pid = ::fork();
  if (pid == 0) {
    int null = ::open("/dev/null", O_WRONLY);
    ::dup2(null, 1);
    ::dup2(null, 2);
    ::execlp("mkntfs", "mkntfs", "-F", "-q", "-f", "-c", "4096", "-L", label.c_str(), path.c_str(),
             static_cast<char*>(nullptr));
    ::_exit(127);
  }
  int status = 0;
  ::waitpid(pid, &status, 0);
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) return "mkntfs failed on " + path;
  return "";
}

std::string ageImage(const std::string& path, const AgingPlan& plan) {
  ntfs_log_set_handler(ntfs_log_handler_null);
  Writer w(path);
  if (!w.error.empty()) return w.error;
  std::mt19937 rng(plan.seed);
  const uint32_t cluster = w.volume()->cluster_size;
  std::vector<std::string> names;
  for (int i = 0; i < plan.files; ++i) {
    std::string dir = "dir" + std::to_string(i % plan.directories);
    if (i % 7 == 3) dir += "/sub" + std::to_string(i % 3);
    names.push_back(dir + "/file" + std::to_string(i) + ".bin");
  }
  // Interleaved appends: each round adds a few clusters to every file in
  // turn, so consecutive pieces of one file land apart.
  std::map<std::string, int64_t> sizes;
  for (int round = 0; round < plan.rounds; ++round) {
    for (const std::string& name : names) {
      size_t n = cluster * (1 + rng() % plan.appendClusters) - (round + 1 == plan.rounds ? rng() % cluster : 0);
      if (!w.write(name, sizes[name], randomBytes(rng, n))) return w.error;
      sizes[name] += static_cast<int64_t>(n);
    }
  }
  // Large files grow side by side in pieces of 32-95 clusters.
  for (uint32_t done = 0; done < plan.largeClusters;) {
    uint32_t piece = std::min<uint32_t>(32 + rng() % 64, plan.largeClusters - done);
    for (int j = 0; j < plan.largeFiles; ++j) {
      std::string name = "large" + std::to_string(j) + ".dat";
      if (!w.write(name, sizes[name], randomBytes(rng, piece * cluster))) return w.error;
      sizes[name] += piece * cluster;
    }
    done += piece;
  }
  for (const std::string& name : names) {
    if (std::uniform_real_distribution<double>(0, 1)(rng) < plan.deleteShare && !w.remove(name)) return w.error;
  }
  if (plan.extras) {
    bool ok = w.write("small.txt", 0, randomBytes(rng, 300)) &&  // resident: lives in its file record
              (!plan.caseTwins || (w.write("Twin.txt", 0, randomBytes(rng, 5 * cluster)) &&
                                   w.write("twin.TXT", 0, randomBytes(rng, 7 * cluster)))) &&
              w.write("packed/log.txt", 0, compressibleBytes(rng, 40 * cluster), true) &&
              w.write("holes.img", 64 * int64_t{cluster}, randomBytes(rng, 8 * cluster)) &&  // starts with a hole
              w.write("holes.img", 200 * int64_t{cluster}, randomBytes(rng, 8 * cluster));
    if (!ok) return w.error;
    // More of the compressed file, interleaved with another one so its units scatter.
    for (int i = 0; i < 6; ++i) {
      if (!w.write("packed/log.txt", (40 + 16 * i) * int64_t{cluster}, compressibleBytes(rng, 16 * cluster), true) ||
          !w.write("packed/filler" + std::to_string(i), 0, randomBytes(rng, 3 * cluster))) {
        return w.error;
      }
    }
    for (int i = 0; i < 3; ++i) {
      if (!w.remove("packed/filler" + std::to_string(2 * i))) return w.error;
    }
  }
  return w.finish() ? "" : w.error;
}

std::string writeFiles(const std::string& path, const std::vector<FileSpec>& files) {
  ntfs_log_set_handler(ntfs_log_handler_null);
  Writer w(path);
  for (const FileSpec& f : files) {
    if (!w.error.empty() || !w.write(f.path, 0, f.data, f.compressed)) return w.error;
  }
  return w.finish() ? "" : w.error;
}

std::string writeInterleaved(const std::string& path, const std::string& first, const std::string& second,
                             int pieces) {
  ntfs_log_set_handler(ntfs_log_handler_null);
  Writer w(path);
  std::mt19937 rng(7);
  const uint32_t cluster = w.error.empty() ? w.volume()->cluster_size : 0;
  // The library keeps an appended file contiguous while the next cluster is
  // free, so the files are written back to front: each cluster fills a hole
  // before the last one written and lands wherever the allocator is.
  for (int i = pieces - 1; i >= 0 && w.error.empty(); --i) {
    w.write(first, int64_t{i} * cluster, randomBytes(rng, cluster));
    w.write(second, int64_t{i} * cluster, randomBytes(rng, cluster));
  }
  return w.finish() ? "" : w.error;
}

std::string markJournalUnclean(const std::string& path) {
  VolumePtr vol(ntfs_mount(path.c_str(), 0));
  if (!vol) return "cannot mount " + path;
  ntfs_inode* log = ntfs_inode_open(vol.get(), FILE_LogFile);
  ntfs_attr* na = log ? ntfs_attr_open(log, AT_DATA, AT_UNNAMED, 0) : nullptr;
  if (na == nullptr) {
    if (log) ntfs_inode_close(log);
    return "cannot open $LogFile";
  }
  // A restart page of log file version 1.1 whose one client is in use and
  // which does not say the volume was shut down cleanly: the journal has
  // work to replay. Both copies (at 0 and at one page) say the same.
  constexpr uint32_t kPage = 4096;
  std::vector<uint8_t> page(kPage, 0);
  auto* rp = reinterpret_cast<RESTART_PAGE_HEADER*>(page.data());
  rp->magic = magic_RSTR;
  rp->usa_ofs = cpu_to_le16(30);
  rp->usa_count = cpu_to_le16(kPage / NTFS_BLOCK_SIZE + 1);
  rp->system_page_size = cpu_to_le32(kPage);
  rp->log_page_size = cpu_to_le32(kPage);
  rp->restart_area_offset = cpu_to_le16(48);
  rp->minor_ver = cpu_to_le16(1);
  rp->major_ver = cpu_to_le16(1);
  auto* ra = reinterpret_cast<RESTART_AREA*>(page.data() + 48);
  ra->current_lsn = cpu_to_le64(0x100000);
  ra->log_clients = cpu_to_le16(1);
  ra->client_free_list = LOGFILE_NO_CLIENT;
  ra->client_in_use_list = cpu_to_le16(0);
  ra->flags = 0;  // not RESTART_VOLUME_IS_CLEAN
  ra->seq_number_bits = cpu_to_le32(67 - 22);
  ra->client_array_offset = cpu_to_le16(0x40);
  ra->restart_area_length = cpu_to_le16(0x40 + sizeof(LOG_CLIENT_RECORD));
  ra->file_size = cpu_to_le64(static_cast<u64>(na->data_size));
  ra->log_record_header_length = cpu_to_le16(0x30);
  ra->log_page_data_offset = cpu_to_le16(0x40);
  ra->restart_log_open_count = cpu_to_le32(1);
  auto* client = reinterpret_cast<LOG_CLIENT_RECORD*>(page.data() + 48 + 0x40);
  client->client_restart_lsn = ra->current_lsn;
  client->prev_client = LOGFILE_NO_CLIENT;
  client->next_client = LOGFILE_NO_CLIENT;
  client->client_name_length = cpu_to_le32(8);
  const char16_t name[] = u"NTFS";
  std::memcpy(client->client_name, name, 8);
  bool ok = true;
  for (s64 at : {s64{0}, s64{kPage}}) {
    std::vector<uint8_t> copy = page;  // the write applies the fixups in place
    ok = ok && ntfs_attr_mst_pwrite(na, at, 1, kPage, copy.data()) == 1;
  }
  ntfs_attr_close(na);
  ntfs_inode_close(log);
  vol.reset();
  if (!ok) return "cannot write the restart pages of $LogFile";
  // The pages must be valid, so that the journal reads as one to replay
  // rather than as damaged.
  vol.reset(ntfs_mount(path.c_str(), NTFS_MNT_RDONLY));
  log = vol ? ntfs_inode_open(vol.get(), FILE_LogFile) : nullptr;
  na = log ? ntfs_attr_open(log, AT_DATA, AT_UNNAMED, 0) : nullptr;
  RESTART_PAGE_HEADER* read = nullptr;
  bool replay = na != nullptr && ntfs_check_logfile(na, &read) && read != nullptr && !ntfs_is_logfile_clean(na, read);
  free(read);
  if (na != nullptr) ntfs_attr_close(na);
  if (log != nullptr) ntfs_inode_close(log);
  return replay ? "" : "the restart pages written do not read as a journal to replay";
}

std::string markDirty(const std::string& path) {
  VolumePtr vol(ntfs_mount(path.c_str(), 0));
  if (!vol) return "cannot mount " + path;
  if (ntfs_volume_write_flags(vol.get(), vol->flags | VOLUME_IS_DIRTY) != 0) return "cannot set the dirty flag";
  return "";
}

}  // namespace ntfstest
}  // namespace glidewell
