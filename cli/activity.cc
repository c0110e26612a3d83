#include "cli/activity.h"

#include <algorithm>
#include <chrono>
#include <cwchar>

namespace glidewell {

namespace {

// Out of 100: what a change is.
constexpr uint64_t kCreateShare = 30;
constexpr uint64_t kExtendShare = 25;
constexpr uint64_t kTruncateShare = 10;
constexpr uint64_t kRenameShare = 10;
// Below this share of free clusters, users delete instead of creating.
constexpr uint64_t kFullPercent = 5;
// The thread catches up at most this many late changes before it looks at
// the clock (and a stop request) again.
constexpr int kMaxBurst = 1000;

}  // namespace

UserActivity::UserActivity(std::vector<std::shared_ptr<SimDisk>> disks, double changesPerSecond, uint64_t seed)
    : rate_(changesPerSecond), seed_(seed), random_(seed) {
  for (auto& disk : disks) {
    Drive d;
    d.disk = std::move(disk);
    for (const SimFileInfo& f : d.disk->listAll()) {
      if ((f.attributes & FILE_ATTRIBUTE_DIRECTORY) != 0) continue;
      d.files.push_back(f.path);
      skipNamesOf(f.path);
    }
    drives_.push_back(std::move(d));
  }
}

UserActivity::~UserActivity() { stop(); }

void UserActivity::start() {
  if (thread_.joinable() || drives_.empty() || !(rate_ > 0)) return;
  {
    std::lock_guard<std::mutex> g(mutex_);
    stop_ = false;
  }
  thread_ = std::thread([this] { run(); });
}

void UserActivity::stop() {
  {
    std::lock_guard<std::mutex> g(mutex_);
    stop_ = true;
  }
  wake_.notify_all();
  if (thread_.joinable()) thread_.join();
}

ActivityCounts UserActivity::counts() const {
  std::lock_guard<std::mutex> g(mutex_);
  return counts_;
}

void UserActivity::run() {
  using Clock = std::chrono::steady_clock;
  const Clock::time_point start = Clock::now();
  auto dueAt = [&](uint64_t n) {
    return start + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(n / rate_));
  };
  uint64_t n = 0;
  std::unique_lock<std::mutex> lock(mutex_);
  while (!wake_.wait_until(lock, dueAt(n), [this] { return stop_; })) {
    lock.unlock();
    int burst = 0;
    do {
      step();
      ++n;
    } while (++burst < kMaxBurst && Clock::now() >= dueAt(n));
    lock.lock();
  }
}

void UserActivity::step() {
  std::lock_guard<std::mutex> g(mutex_);
  if (drives_.empty()) return;
  Drive& d = drives_[pick(drives_.size())];
  uint64_t kind = pick(100);
  bool full = d.disk->freeClusters() * 100 < d.disk->totalClusters() * kFullPercent;
  if (d.files.empty()) {
    create(d);
  } else if (full) {
    remove(d);
  } else if (kind < kCreateShare) {
    create(d);
  } else if (kind < kCreateShare + kExtendShare) {
    resize(d, true);
  } else if (kind < kCreateShare + kExtendShare + kTruncateShare) {
    resize(d, false);
  } else if (kind < kCreateShare + kExtendShare + kTruncateShare + kRenameShare) {
    rename(d);
  } else {
    remove(d);
  }
}

void UserActivity::skipNamesOf(const std::wstring& path) {
  // An earlier run with the same seed left names this run would hand out again.
  std::wstring leaf = path.substr(path.rfind(L'\\') == std::wstring::npos ? 0 : path.rfind(L'\\') + 1);
  for (const wchar_t* stem : {L"new", L"renamed"}) {
    std::wstring prefix = stem + std::to_wstring(seed_) + L"-";
    if (leaf.compare(0, prefix.size(), prefix) != 0) continue;
    made_ = std::max<uint64_t>(made_, std::wcstoull(leaf.c_str() + prefix.size(), nullptr, 10));
  }
}

std::wstring UserActivity::newName(const std::wstring& dir, const wchar_t* stem) {
  std::wstring leaf = stem + std::to_wstring(seed_) + L"-" + std::to_wstring(++made_) + L".dat";
  return dir.empty() ? leaf : dir + L"\\" + leaf;
}

void UserActivity::create(Drive& d) {
  uint64_t cluster = d.disk->bytesPerCluster();
  // Mostly small files, now and then a larger one.
  uint64_t clusters = pick(50) == 0 ? 16 + pick(112) : 1 + pick(4);
  uint64_t bytes = clusters * cluster - pick(cluster);
  // New files go to the root: short names keep a busy second's notifications
  // within what the system buffers between two reads.
  std::wstring path = newName(L"", L"new");
  if (d.disk->createFile(path, bytes) == 0) {
    d.files.push_back(path);
    counts_.created += 1;
  } else {
    counts_.refused += 1;
  }
}

void UserActivity::resize(Drive& d, bool grow) {
  size_t i = pick(d.files.size());
  SimFileInfo info;
  DWORD rc = d.disk->fileInfo(d.files[i], &info);
  if (rc == 0) {
    rc = grow ? d.disk->appendFile(d.files[i], (1 + pick(4)) * d.disk->bytesPerCluster())
              : d.disk->truncateFile(d.files[i], pick(info.size + 1));
  }
  if (rc == 0) {
    (grow ? counts_.extended : counts_.truncated) += 1;
    return;
  }
  counts_.refused += 1;
  if (rc == ERROR_FILE_NOT_FOUND || rc == ERROR_PATH_NOT_FOUND) {
    d.files[i] = d.files.back();
    d.files.pop_back();
  }
}

void UserActivity::rename(Drive& d) {
  size_t i = pick(d.files.size());
  size_t cut = d.files[i].rfind(L'\\');
  std::wstring to = newName(cut == std::wstring::npos ? L"" : d.files[i].substr(0, cut), L"renamed");
  if (d.disk->renameFile(d.files[i], to) == 0) {
    d.files[i] = to;
    counts_.renamed += 1;
  } else {
    counts_.refused += 1;
  }
}

void UserActivity::remove(Drive& d) {
  size_t i = pick(d.files.size());
  DWORD rc = d.disk->deleteFile(d.files[i]);
  if (rc == 0 || rc == ERROR_FILE_NOT_FOUND || rc == ERROR_PATH_NOT_FOUND) {
    d.files[i] = d.files.back();
    d.files.pop_back();
  }
  (rc == 0 ? counts_.deleted : counts_.refused) += 1;
}

}  // namespace glidewell
