// CDfrgStatistics: how many files the engine processed, moved and
// defragmented, kept in the registry below HKEY_CURRENT_USER where programs
// outside the engine read them:
//
//   <path>\statistics                  the current run: the three counters,
//                                      "Status" and "Last File"
//   <path>\statistics\daily\YYYY-MM-DD one key per local day, today and the 7
//                                      days before it
//   <path>\statistics\complete         all-time counters
//
// Counting happens in memory; flush() writes at most once a second unless
// forced. Stored values are read lazily at the first use. Nothing here throws:
// a registry failure leaves the counters in memory and the next flush tries
// again. Clocks come from Env::current().
//
// One object serves the process (instance()); it is used by the worker and,
// between runs, by the host thread, never by both at once, so it has no lock.
#ifndef GLIDEWELL_CONFIG_DFRG_STATISTICS_H_
#define GLIDEWELL_CONFIG_DFRG_STATISTICS_H_

#include <cstdint>
#include <string>

#include "config/registry_store.h"
#include "platform/wintypes.h"

namespace glidewell {

class CDfrgStatistics {
 public:
  // Opens (creating) <path>\statistics and <path>\statistics\complete; an
  // empty path means the default key. Reads nothing yet.
  CDfrgStatistics(HKEY root, const std::string& registryKeyPath);
  virtual ~CDfrgStatistics();
  CDfrgStatistics(const CDfrgStatistics&) = delete;
  CDfrgStatistics& operator=(const CDfrgStatistics&) = delete;

  // The process-wide object, loaded, or null when none exists.
  static CDfrgStatistics* instance();
  // dfrg_initialize: makes the process-wide object (replacing any old one).
  static void create(HKEY root, const std::string& registryKeyPath);
  // dfrg_deinitialize: deletes it without a last flush.
  static void destroy();

  void addProcessed(uint32_t n);
  void addMoved(uint32_t n);
  void addDefragged(uint32_t n);
  void setLastFile(const std::wstring& path);
  void setStatus(int status);
  int getStatus();
  // Zeroes the current run's counters and writes at once.
  void resetRun();
  // Deletes every value of <path>\statistics, zeroes all counters, writes at once.
  void resetAll();
  // Writes the counters; unless forced, only when the last write is more than
  // 1000 ms ago. After more than a minute without a write, the day is checked
  // first and old daily keys are purged.
  void flush(bool force);

  // The counters in memory (for the front end and tests).
  struct Counters {
    uint64_t processed = 0;
    uint64_t moved = 0;
    uint64_t defragged = 0;
  };
  Counters currentCounters() { return loaded().current_; }
  Counters dailyCounters() { return loaded().daily_; }
  Counters completeCounters() { return loaded().complete_; }

  static constexpr uint32_t kFlushInterval = 1000;
  static constexpr uint32_t kDayCheckInterval = 60000;
  // Days kept before today.
  static constexpr int kDaysKept = 7;

 private:
  CDfrgStatistics& loaded();
  void load();
  void rollDay();
  void purge();
  static std::string today();
  static void read(const CRegistryKey& key, Counters* c, bool narrowNames);
  static void write(CRegistryKey& key, const Counters& c);

  CRegistryStore store_;  // first: destroyed after every handle below
  CRegistryKey statisticsKey_;
  CRegistryKey dailyKey_;  // invalid until first opened
  CRegistryKey completeKey_;
  uint32_t lastFlush_ = 0;
  bool statusDirty_ = false;
  int status_ = 0;  // 0: no status set yet in this process
  bool lastFileDirty_ = false;
  std::wstring lastFile_;
  Counters current_;
  Counters daily_;
  Counters complete_;
  bool loaded_ = false;
};

}  // namespace glidewell

#endif  // GLIDEWELL_CONFIG_DFRG_STATISTICS_H_
