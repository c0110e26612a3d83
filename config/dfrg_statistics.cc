#include "config/dfrg_statistics.h"

#include <atomic>
#include <cstdio>
#include <memory>

#include "config/dfrg_config.h"
#include "logging/logger.h"
#include "platform/env.h"

namespace glidewell {

namespace {

std::atomic<CDfrgStatistics*> processStatistics{nullptr};

// 100-ns units per day.
constexpr int64_t kFileTimeDay = 864000000000LL;

const wchar_t* const kProcessed = L"Processed Files";
const wchar_t* const kMoved = L"Moved Files";
const wchar_t* const kDefragged = L"Defragged Files";

// "YYYY-MM-DD" -> a date at 00:00; false for any other name.
bool parseDay(const std::string& name, SYSTEMTIME* day) {
  if (name.size() != 10 || name[4] != '-' || name[7] != '-') return false;
  auto number = [&name](size_t at, size_t len, WORD* out) {
    WORD v = 0;
    for (size_t i = at; i < at + len; ++i) {
      if (name[i] < '0' || name[i] > '9') return false;
      v = static_cast<WORD>(v * 10 + (name[i] - '0'));
    }
    *out = v;
    return true;
  };
  *day = SYSTEMTIME{};
  return number(0, 4, &day->wYear) && number(5, 2, &day->wMonth) && number(8, 2, &day->wDay);
}

}  // namespace

CDfrgStatistics::CDfrgStatistics(HKEY root, const std::string& registryKeyPath) : store_(root) {
  std::string path = (registryKeyPath.empty() ? std::string(kDefaultRegistryKeyPath) : registryKeyPath) + "\\statistics";
  statisticsKey_ = store_.key(path, KEY_ALL_ACCESS, true);
  completeKey_ = store_.key(path + "\\complete", KEY_ALL_ACCESS, true);
}

CDfrgStatistics::~CDfrgStatistics() {
  CDfrgStatistics* self = this;
  processStatistics.compare_exchange_strong(self, nullptr);
}

CDfrgStatistics* CDfrgStatistics::instance() {
  CDfrgStatistics* s = processStatistics.load();
  return s != nullptr ? &s->loaded() : nullptr;
}

void CDfrgStatistics::create(HKEY root, const std::string& registryKeyPath) {
  destroy();
  processStatistics.store(new CDfrgStatistics(root, registryKeyPath));
}

void CDfrgStatistics::destroy() {
  std::unique_ptr<CDfrgStatistics> owned(processStatistics.exchange(nullptr));
}

CDfrgStatistics& CDfrgStatistics::loaded() {
  if (!loaded_) load();
  return *this;
}

void CDfrgStatistics::load() {
  current_ = Counters();
  complete_ = Counters();
  read(statisticsKey_, &current_, false);
  read(completeKey_, &complete_, false);
  rollDay();
  loaded_ = true;
}

void CDfrgStatistics::read(const CRegistryKey& key, Counters* c, bool narrowNames) {
  // A missing or mistyped counter loads as 0 and is overwritten at the next flush.
  if (narrowNames) {
    key.getQword("Processed Files", c->processed, 0);
    key.getQword("Defragged Files", c->defragged, 0);
    key.getQword("Moved Files", c->moved, 0);
  } else {
    key.getQword(kProcessed, c->processed, 0);
    key.getQword(kDefragged, c->defragged, 0);
    key.getQword(kMoved, c->moved, 0);
  }
}

void CDfrgStatistics::write(CRegistryKey& key, const Counters& c) {
  key.setQword(kProcessed, c.processed);
  key.setQword(kMoved, c.moved);
  key.setQword(kDefragged, c.defragged);
}

std::string CDfrgStatistics::today() {
  SYSTEMTIME now = Env::current()->localTime();
  char buffer[32];
  std::snprintf(buffer, sizeof(buffer), "%04i-%02i-%02i", now.wYear, now.wMonth, now.wDay);
  return buffer;
}

void CDfrgStatistics::rollDay() {
  std::string date = today();
  if (!dailyKey_.isValid()) {
    dailyKey_ = statisticsKey_.subKey("daily\\" + date, KEY_ALL_ACCESS, true);
    daily_ = Counters();
    read(dailyKey_, &daily_, true);
  } else if (dailyKey_.name() != date) {
    // The old day keeps what was counted in it; the new day starts from 0
    // (whatever its key may hold already).
    write(dailyKey_, daily_);
    daily_ = Counters();
    dailyKey_ = statisticsKey_.subKey("daily\\" + date, KEY_ALL_ACCESS, true);
  }
  purge();
}

void CDfrgStatistics::purge() {
  Logger log("CDfrgStatistics::purge");
  Env* env = Env::current();
  uint64_t now = 0;
  if (!env->systemTimeToFileTime(env->localTime(), &now)) return;
  CRegistryKey daily = statisticsKey_.subKey("daily", KEY_READ, true);
  // The index moves on after every key, deleted or not: the key that slides
  // into a deleted key's place waits for the next purge.
  for (DWORD index = 0;; ++index) {
    std::string name;
    {
      CRegistryKey day = daily.subKeyAt(index, KEY_READ);
      if (!day.isValid()) break;
      name = day.name();
    }
    SYSTEMTIME date;
    uint64_t then = 0;
    // Keys that are not dates were not made here; they stay.
    if (!parseDay(name, &date) || !env->systemTimeToFileTime(date, &then)) continue;
    int64_t age = static_cast<int64_t>(now - then);
    // A date in the future (the clock went back) is dropped like an old one.
    if (age >= 0 && age / kFileTimeDay <= kDaysKept) continue;
    if (daily.deleteSubKey(name)) log.log(kLogDebug) << "Old daily statistics removed." << LogProperty("Day", name);
  }
}

void CDfrgStatistics::addProcessed(uint32_t n) {
  loaded();
  current_.processed += n;
  daily_.processed += n;
  complete_.processed += n;
}

void CDfrgStatistics::addMoved(uint32_t n) {
  loaded();
  current_.moved += n;
  daily_.moved += n;
  complete_.moved += n;
}

void CDfrgStatistics::addDefragged(uint32_t n) {
  loaded();
  current_.defragged += n;
  daily_.defragged += n;
  complete_.defragged += n;
}

void CDfrgStatistics::setLastFile(const std::wstring& path) {
  loaded();
  lastFile_ = path;
  lastFileDirty_ = true;
}

void CDfrgStatistics::setStatus(int status) {
  loaded();
  if (status == status_) return;
  status_ = status;
  statusDirty_ = true;
}

int CDfrgStatistics::getStatus() { return loaded().status_; }

void CDfrgStatistics::resetRun() {
  loaded();
  current_ = Counters();
  flush(true);
}

void CDfrgStatistics::resetAll() {
  loaded();
  while (statisticsKey_.deleteValueAt(0)) {
  }
  current_ = daily_ = complete_ = Counters();
  flush(true);
}

void CDfrgStatistics::flush(bool force) {
  uint32_t now = Env::current()->timeGetTime();
  loaded();
  uint32_t elapsed = now - lastFlush_;  // wraps with the clock
  if (!force && elapsed <= kFlushInterval) return;
  if (elapsed > kDayCheckInterval) rollDay();
  // A write that fails stays due and is tried again at the next flush.
  if (lastFileDirty_ && statisticsKey_.setString(L"Last File", lastFile_)) lastFileDirty_ = false;
  if (statusDirty_ && statisticsKey_.setDword(L"Status", static_cast<DWORD>(status_))) statusDirty_ = false;
  write(statisticsKey_, current_);
  write(dailyKey_, daily_);
  write(completeKey_, complete_);
  lastFlush_ = now;
}

}  // namespace glidewell
