#include "sim/sim_aging.h"

#include <algorithm>
#include <cmath>

#include "engine/dfrg_exception.h"
#include "sim/real_tree.h"

namespace glidewell {

namespace {

// splitmix64: small, fast, and the same on every platform (the standard
// library's distributions are not), which keeps a seed's volume stable.
class Rng {
 public:
  explicit Rng(uint64_t seed) : state_(seed) {}
  uint64_t next() {
    uint64_t z = (state_ += 0x9E3779B97F4A7C15ull);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    return z ^ (z >> 31);
  }
  uint64_t below(uint64_t n) { return n == 0 ? 0 : next() % n; }
  double unit() { return static_cast<double>(next() >> 11) / 9007199254740992.0; }
  bool chance(double p) { return unit() < p; }
  double normal() {  // Box-Muller
    double u = std::max(unit(), 1e-300), v = unit();
    return std::sqrt(-2.0 * std::log(u)) * std::cos(6.283185307179586 * v);
  }

 private:
  uint64_t state_;
};

const wchar_t* const kDirWords[] = {L"Documents", L"Projects", L"src", L"lib", L"include", L"assets", L"images",
                                    L"cache", L"logs", L"data", L"backup", L"Music", L"Photos", L"Videos",
                                    L"reports", L"archive", L"tmp", L"build", L"bin", L"config", L"Users",
                                    L"shared", L"notes", L"drafts", L"2021", L"2022", L"2023", L"old", L"Program Files"};
const wchar_t* const kStems[] = {L"report", L"invoice", L"photo", L"IMG_", L"setup", L"readme", L"index", L"main",
                                 L"notes", L"backup", L"track", L"clip", L"data", L"module", L"Übersicht", L"résumé",
                                 L"draft", L"budget", L"scan", L"log"};
const wchar_t* const kSmallExt[] = {L".txt", L".ini", L".xml", L".json", L".log", L".cfg", L".html", L".css",
                                    L".js", L".py", L".h", L".cc"};
const wchar_t* const kMediumExt[] = {L".jpg", L".png", L".pdf", L".docx", L".xlsx", L".dll", L".exe", L".mp3"};
const wchar_t* const kLargeExt[] = {L".mp4", L".iso", L".zip", L".vhd", L".db", L".pst", L".cab"};

template <size_t N>
const wchar_t* pick(Rng& rng, const wchar_t* const (&words)[N]) {
  return words[rng.below(N)];
}

class Ager {
 public:
  Ager(const SimAgingOptions& o, SimDisk& disk) : o_(o), disk_(disk), rng_(o.seed) {}

  void setSizeScale(double scale) { sizeScale_ = scale; }
  void layOutSystemAreas(uint64_t expectedFiles);
  bool copyRealTree(std::string* error);
  void makeDirectories(uint64_t count);
  void fillTo(uint64_t targetUsed);
  void churn();

 private:
  uint64_t sampleSize();
  DWORD sampleAttributes();
  std::wstring newFileName(uint64_t size);
  bool addFile(const std::wstring& dir, uint64_t size, DWORD attributes);
  void removeFileAt(size_t index);
  uint64_t used() const { return o_.totalClusters - disk_.freeClusters(); }

  const SimAgingOptions& o_;
  SimDisk& disk_;
  Rng rng_;
  double sizeScale_ = 1.0;
  std::vector<std::wstring> dirs_{L""};
  std::vector<int> depth_{0};
  std::vector<std::wstring> files_;
};

void Ager::layOutSystemAreas(uint64_t expectedFiles) {
  const uint64_t total = o_.totalClusters, bpc = o_.bytesPerCluster;
  auto clusters = [&](uint64_t bytes) { return std::max<uint64_t>(1, (bytes + bpc - 1) / bpc); };
  auto cap = [&](uint64_t n, uint64_t share) { return std::max<uint64_t>(1, std::min(n, total / share)); };
  // Boot sectors at the start, the MFT a quarter in with its reserved zone
  // after it, the MFT mirror, log file and bitmap in the middle.
  disk_.reserveSystemClusters(0, cap(clusters(8192), 64));
  uint64_t mftStart = total / 4;
  uint64_t mftSize = cap(clusters((expectedFiles + 64) * 1024), 16);
  disk_.reserveSystemClusters(mftStart, mftSize);
  disk_.setReservedZone(mftStart + mftSize, mftStart + total / 8);
  uint64_t middle = total / 2;
  disk_.reserveSystemClusters(middle, cap(clusters(4096), 64));
  uint64_t logSize = cap(std::min<uint64_t>(clusters(64ull << 20), total / 64), 64);
  disk_.reserveSystemClusters(middle + 8, logSize);
  disk_.reserveSystemClusters(middle + 8 + logSize + 8, cap(clusters((total + 7) / 8), 64));
}

uint64_t Ager::sampleSize() {
  // Log-normal around 8 KiB: many small files, a long tail of large ones.
  double bytes = std::exp(9.0 + 2.3 * rng_.normal()) * sizeScale_;
  double cap = static_cast<double>(o_.totalClusters) * o_.bytesPerCluster / 40.0;
  return static_cast<uint64_t>(std::min(bytes, cap));
}

DWORD Ager::sampleAttributes() {
  double roll = rng_.unit();
  if (roll < o_.compressedShare) return FILE_ATTRIBUTE_COMPRESSED | FILE_ATTRIBUTE_ARCHIVE;
  roll -= o_.compressedShare;
  if (roll < o_.sparseShare) return FILE_ATTRIBUTE_SPARSE_FILE | FILE_ATTRIBUTE_ARCHIVE;
  roll -= o_.sparseShare;
  if (roll < 0.005) return FILE_ATTRIBUTE_ENCRYPTED | FILE_ATTRIBUTE_ARCHIVE;
  if (roll < 0.007) return FILE_ATTRIBUTE_REPARSE_POINT | FILE_ATTRIBUTE_ARCHIVE;  // a symbolic link
  return FILE_ATTRIBUTE_ARCHIVE;
}

std::wstring Ager::newFileName(uint64_t size) {
  const wchar_t* ext = size < 64 * 1024 ? pick(rng_, kSmallExt) : size < 16 * 1024 * 1024 ? pick(rng_, kMediumExt)
                                                                                       : pick(rng_, kLargeExt);
  return std::wstring(pick(rng_, kStems)) + std::to_wstring(rng_.below(100000)) + ext;
}

bool Ager::addFile(const std::wstring& dir, uint64_t size, DWORD attributes) {
  if (attributes & FILE_ATTRIBUTE_REPARSE_POINT) size = 0;  // links hold no data of their own
  for (int attempt = 0; attempt < 4; ++attempt) {
    std::wstring path = (dir.empty() ? L"" : dir + L"\\") + newFileName(size);
    DWORD error = disk_.createFile(path, size, attributes);
    if (error == ERROR_SUCCESS) {
      files_.push_back(path);
      return true;
    }
    if (error != ERROR_FILE_EXISTS) return false;
  }
  return false;
}

void Ager::removeFileAt(size_t index) {
  disk_.deleteFile(files_[index]);
  files_[index] = std::move(files_.back());
  files_.pop_back();
}

void Ager::makeDirectories(uint64_t count) {
  for (uint64_t i = 0; i < count; ++i) {
    size_t parent = static_cast<size_t>(rng_.below(dirs_.size()));
    if (depth_[parent] >= 7) parent = 0;
    std::wstring name = pick(rng_, kDirWords);
    if (rng_.chance(0.5)) name += L" " + std::to_wstring(rng_.below(1000));
    std::wstring path = dirs_[parent].empty() ? name : dirs_[parent] + L"\\" + name;
    if (i % 40 == 0) {
      // A junction: listed, but the engine neither enters nor moves it.
      disk_.createDirectory(path + L" (link)", FILE_ATTRIBUTE_REPARSE_POINT | FILE_ATTRIBUTE_HIDDEN);
    }
    if (disk_.createDirectory(path) == ERROR_SUCCESS) {
      dirs_.push_back(path);
      depth_.push_back(depth_[parent] + 1);
    }
  }
}

bool Ager::copyRealTree(std::string* error) {
  std::vector<RealTreeEntry> entries;
  size_t limit = static_cast<size_t>(std::min<uint64_t>(o_.maxFiles, 10000000));
  if (!readRealTree(o_.sourceDirectory, limit, &entries, error)) return false;
  uint64_t realBytes = 0;
  for (const auto& e : entries) realBytes += e.size;
  double room = (o_.fillRatio * static_cast<double>(o_.totalClusters) - static_cast<double>(used())) * 0.7 *
                o_.bytesPerCluster;
  double scale = realBytes > room && realBytes > 0 ? room / static_cast<double>(realBytes) : 1.0;
  for (const auto& e : entries) {
    if (e.isDirectory) {
      if (disk_.createDirectory(e.path) == ERROR_SUCCESS) {
        dirs_.push_back(e.path);
        depth_.push_back(static_cast<int>(std::count(e.path.begin(), e.path.end(), L'\\')) + 1);
      }
      continue;
    }
    uint64_t size = static_cast<uint64_t>(static_cast<double>(e.size) * scale);
    DWORD attributes = sampleAttributes() & ~FILE_ATTRIBUTE_REPARSE_POINT;
    if (disk_.createFile(e.path, size, attributes) == ERROR_SUCCESS) files_.push_back(e.path);
  }
  return true;
}

void Ager::fillTo(uint64_t targetUsed) {
  int failures = 0;
  while (used() < targetUsed && failures < 64 && files_.size() < o_.maxFiles) {
    // The newest directories (the last one in a hundred) get more files, as
    // they do on real disks.
    size_t recent = std::max<size_t>(8, dirs_.size() / 100);
    size_t dir = rng_.chance(0.3) ? dirs_.size() - 1 - static_cast<size_t>(rng_.below(std::min(dirs_.size(), recent)))
                                  : static_cast<size_t>(rng_.below(dirs_.size()));
    uint64_t size = sampleSize();
    uint64_t left = (targetUsed - used()) * o_.bytesPerCluster;
    if (size > left) size = left;
    failures = addFile(dirs_[dir], size, sampleAttributes()) ? 0 : failures + 1;
  }
}

void Ager::churn() {
  const uint64_t target = static_cast<uint64_t>(o_.fillRatio * static_cast<double>(o_.totalClusters));
  for (int round = 0; round < o_.churnRounds; ++round) {
    size_t deletions = files_.size() * 15 / 100;
    for (size_t i = 0; i < deletions && !files_.empty(); ++i) removeFileAt(static_cast<size_t>(rng_.below(files_.size())));
    size_t touches = files_.size() / 10;
    for (size_t i = 0; i < touches && !files_.empty(); ++i) {
      const std::wstring& path = files_[static_cast<size_t>(rng_.below(files_.size()))];
      SimFileInfo info;
      if (disk_.fileInfo(path, &info) != ERROR_SUCCESS) continue;
      if (rng_.chance(0.85)) {
        uint64_t grow = rng_.chance(0.5) ? info.size / 2 + 1 : sampleSize() / 4 + 1;
        uint64_t room = (target > used() ? target - used() : 0) * o_.bytesPerCluster;
        disk_.appendFile(path, std::min(grow, room / 2 + 1));
      } else {
        disk_.truncateFile(path, info.size / (2 + rng_.below(4)));
      }
    }
    size_t renames = files_.size() / 100;
    for (size_t i = 0; i < renames && !files_.empty(); ++i) {
      size_t index = static_cast<size_t>(rng_.below(files_.size()));
      std::wstring to = dirs_[static_cast<size_t>(rng_.below(dirs_.size()))];
      to = (to.empty() ? L"" : to + L"\\") + newFileName(0);
      if (disk_.renameFile(files_[index], to) == ERROR_SUCCESS) files_[index] = to;
    }
    fillTo(target);
  }
}

}  // namespace

std::unique_ptr<SimDisk> ageDisk(const SimAgingOptions& options, std::string* error) {
  if (options.totalClusters < 64) {
    *error = "an aged volume needs at least 64 clusters";
    return nullptr;
  }
  SimGeometry geometry;
  geometry.totalClusters = options.totalClusters;
  geometry.bytesPerCluster = options.bytesPerCluster;
  geometry.label = options.label;
  geometry.serialNumber = static_cast<uint32_t>(Rng(options.seed ^ 0xA6E).next());
  std::unique_ptr<SimDisk> disk;
  try {
    disk = std::make_unique<SimDisk>(geometry);
  } catch (const CDfrgException& e) {
    *error = e.message;
    return nullptr;
  }
  SimAgingOptions o = options;
  o.fillRatio = std::min(std::max(o.fillRatio, 0.0), 0.98);
  Ager ager(o, *disk);
  // Expected file count at the natural mean size (about 110 KiB); beyond
  // maxFiles the files grow instead.
  double targetBytes = o.fillRatio * static_cast<double>(o.totalClusters) * o.bytesPerCluster;
  double expected = targetBytes / 110000.0;
  uint64_t files = static_cast<uint64_t>(std::min<double>(expected, static_cast<double>(o.maxFiles)));
  if (files > 0 && expected > static_cast<double>(files)) ager.setSizeScale(expected / static_cast<double>(files));
  ager.layOutSystemAreas(files);
  if (!o.sourceDirectory.empty() && !ager.copyRealTree(error)) return nullptr;
  ager.makeDirectories(std::max<uint64_t>(3, files / 30));
  ager.fillTo(static_cast<uint64_t>(o.fillRatio * static_cast<double>(o.totalClusters)));
  ager.churn();
  return disk;
}

}  // namespace glidewell
