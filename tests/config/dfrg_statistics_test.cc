#include "config/dfrg_statistics.h"

#include <gtest/gtest.h>

#include "support/fake_env.h"
#include "support/registry_test_util.h"

namespace glidewell {
namespace test {
namespace {

const std::string kStats = "SOFTWARE\\quorvane\\Quorvane Glidewell\\statistics";
const std::string kComplete = kStats + "\\complete";
const std::string kDaily = kStats + "\\daily";
const std::string kToday = kDaily + "\\2024-03-03";

SYSTEMTIME localTime(WORD year, WORD month, WORD day, WORD hour, WORD minute = 0) {
  return SYSTEMTIME{year, month, 0, day, hour, minute, 0, 0};
}

class DfrgStatisticsTest : public RegistryTest {
 protected:
  DfrgStatisticsTest() : scoped_(&env_), stats_(HKEY_CURRENT_USER, "") {
    env_.useManualClock(100000);
    env_.setLocalTime(localTime(2024, 3, 3, 10));
  }
  // A stored counter; -1 when missing or not a REG_QWORD.
  int64_t counter(const std::string& key, const wchar_t* name = L"Processed Files") {
    return number(value(key, name), REG_QWORD);
  }
  void setCounter(const std::string& key, DWORD type, uint64_t n) { setRaw(key, L"Processed Files", type, qwordBytes(n)); }

  FakeEnv env_;
  ScopedEnv scoped_;
  CDfrgStatistics stats_;
};

TEST_F(DfrgStatisticsTest, NothingIsReadBeforeTheFirstUseAndFlushesWriteAtMostOncePerSecond) {
  EXPECT_EQ(0, reg_->calls(FaultInjectingRegistry::kQuery));
  EXPECT_EQ(std::vector<std::string>{"complete"}, names(kStats));
  stats_.addProcessed(1);
  EXPECT_EQ(std::vector<std::string>{"2024-03-03"}, names(kDaily));
  stats_.flush(false);  // the first flush always writes
  for (const std::string& key : {kStats, kToday, kComplete}) EXPECT_EQ(1, counter(key)) << key;
  const int sets = reg_->calls(FaultInjectingRegistry::kSet);

  stats_.addProcessed(1);
  env_.advanceClock(500);
  stats_.flush(false);
  stats_.addProcessed(1);
  env_.advanceClock(500);  // 1000 ms: still not more than the interval
  stats_.flush(false);
  EXPECT_EQ(sets, reg_->calls(FaultInjectingRegistry::kSet));
  env_.advanceClock(1);
  stats_.flush(false);
  EXPECT_EQ(3, counter(kStats));
  EXPECT_EQ(3, counter(kComplete));

  // Forced flushes ignore the interval.
  stats_.addMoved(2);
  stats_.addDefragged(4);
  stats_.flush(true);
  EXPECT_EQ(2, counter(kStats, L"Moved Files"));
  EXPECT_EQ(4, counter(kToday, L"Defragged Files"));

  // The millisecond clock wraps; the interval is measured across the wrap.
  env_.useManualClock(0xFFFFFE00u);
  stats_.flush(true);
  stats_.addProcessed(1);
  env_.useManualClock(0x100);
  stats_.flush(false);
  EXPECT_EQ(3, counter(kStats));
  env_.useManualClock(0x300);
  stats_.flush(false);
  EXPECT_EQ(4, counter(kStats));
}

TEST_F(DfrgStatisticsTest, StoredCountersLoadAndMistypedOnesStartAtZero) {
  setRaw(kStats, L"Processed Files", REG_DWORD, dwordBytes(50));
  setRaw(kStats, L"Moved Files", REG_QWORD, qwordBytes(7));
  setCounter(kComplete, REG_QWORD, 100);
  setRaw(kComplete, L"Moved Files", REG_BINARY, qwordBytes(9));  // wide names take REG_QWORD only
  setCounter(kToday, REG_BINARY, 5);                              // narrow names take 8-byte binary
  stats_.addProcessed(1);
  stats_.addMoved(1);
  EXPECT_EQ(std::make_pair(uint64_t{1}, uint64_t{8}),
            std::make_pair(stats_.currentCounters().processed, stats_.currentCounters().moved));
  EXPECT_EQ(std::make_pair(uint64_t{101}, uint64_t{1}),
            std::make_pair(stats_.completeCounters().processed, stats_.completeCounters().moved));
  EXPECT_EQ(6u, stats_.dailyCounters().processed);
  stats_.flush(false);
  EXPECT_EQ(1, counter(kStats));  // now a REG_QWORD
  EXPECT_EQ(1, counter(kComplete, L"Moved Files"));
  EXPECT_EQ(6, counter(kToday));
}

TEST_F(DfrgStatisticsTest, TheDayRollsOnlyAfterAMinuteWithoutFlush) {
  stats_.addProcessed(5);
  stats_.flush(true);
  // Made after the load's purge, which drops keys of days still to come.
  setCounter(kDaily + "\\2024-03-04", REG_QWORD, 100);

  // Past midnight, but flushing every half minute: still counted on the old day.
  env_.setLocalTime(localTime(2024, 3, 4, 0, 1));
  env_.advanceClock(30000);
  stats_.addProcessed(1);
  stats_.flush(false);
  EXPECT_EQ(6, counter(kToday));
  EXPECT_EQ(100, counter(kDaily + "\\2024-03-04"));

  // More than a minute without a flush: what was counted meanwhile closes the
  // old day, and the new day starts from 0 whatever its key held.
  env_.advanceClock(60001);
  stats_.addProcessed(2);
  stats_.flush(false);
  EXPECT_EQ(8, counter(kToday));
  EXPECT_EQ(0, counter(kDaily + "\\2024-03-04"));
  EXPECT_EQ(8, counter(kComplete));
  stats_.addProcessed(1);
  stats_.flush(true);
  EXPECT_EQ(1, counter(kDaily + "\\2024-03-04"));
  EXPECT_EQ(8, counter(kToday));
}

TEST_F(DfrgStatisticsTest, PurgingKeepsTodayAndTheSevenDaysBefore) {
  // Today is 2024-03-03; the week before it crosses the leap day.
  for (const char* day : {"2024-02-22", "2024-02-23", "2024-02-24", "2024-02-25", "2024-02-26", "2024-02-27",
                          "2024-02-28", "2024-02-29", "2024-03-01", "2024-03-02", "2024-03-03", "2024-03-04",
                          "2024-03-06", "2024-02-30", "notes"}) {
    setCounter(kDaily + "\\" + day, REG_QWORD, 1);
  }
  stats_.getStatus();  // loads, and purges once
  EXPECT_LT(names(kDaily).size(), 15u);
  // A deleted key's successor slides into its index and waits for the next purge.
  for (int i = 0; i < 6; ++i) {
    env_.advanceClock(60001);
    stats_.flush(false);
  }
  EXPECT_EQ((std::vector<std::string>{"2024-02-25", "2024-02-26", "2024-02-27", "2024-02-28", "2024-02-29",
                                      "2024-02-30", "2024-03-01", "2024-03-02", "2024-03-03", "notes"}),
            names(kDaily));
}

TEST_F(DfrgStatisticsTest, ResetsClearWhatTheySay) {
  stats_.setStatus(3);
  stats_.setLastFile(L"C:\\dir\\file.bin");
  stats_.addProcessed(4);
  stats_.flush(true);
  EXPECT_EQ(utf16Bytes(L"C:\\dir\\file.bin"), value(kStats, L"Last File").data);
  EXPECT_EQ(3, number(value(kStats, L"Status"), REG_DWORD));

  stats_.resetRun();
  EXPECT_EQ(std::make_tuple(0, 4, 4), std::make_tuple(counter(kStats), counter(kComplete), counter(kToday)));
  stats_.resetAll();
  EXPECT_EQ((std::vector<std::wstring>{L"Defragged Files", L"Moved Files", L"Processed Files"}),
            names<std::wstring>(kStats));
  EXPECT_EQ(std::make_tuple(0, 0, 3), std::make_tuple(counter(kComplete), counter(kToday), stats_.getStatus()));
  // An unchanged status is not written again; a new one is.
  stats_.setStatus(3);
  stats_.flush(true);
  EXPECT_EQ(-1, number(value(kStats, L"Status"), REG_DWORD));
  stats_.setStatus(4);
  stats_.flush(true);
  EXPECT_EQ(4, number(value(kStats, L"Status"), REG_DWORD));
}

TEST_F(DfrgStatisticsTest, FailedWritesAreTriedAgain) {
  EXPECT_EQ(0, stats_.getStatus());
  reg_->fail(FaultInjectingRegistry::kSet, ERROR_ACCESS_DENIED, false, "Last File");
  reg_->fail(FaultInjectingRegistry::kSet, ERROR_ACCESS_DENIED, false, "Processed Files");
  stats_.setLastFile(L"C:\\a");
  stats_.addProcessed(2);
  stats_.flush(true);
  EXPECT_EQ(ERROR_FILE_NOT_FOUND, value(kStats, L"Last File").result);
  EXPECT_EQ(-1, counter(kStats));
  stats_.flush(true);
  EXPECT_EQ(utf16Bytes(L"C:\\a"), value(kStats, L"Last File").data);
  EXPECT_EQ(2, counter(kStats));
}

TEST_F(DfrgStatisticsTest, ADeadRegistryThrowsNothingAndCountingGoesOn) {
  for (auto op : {FaultInjectingRegistry::kOpen, FaultInjectingRegistry::kCreate, FaultInjectingRegistry::kSet}) {
    reg_->fail(op, ERROR_ACCESS_DENIED, true);
  }
  std::unique_ptr<CDfrgStatistics> stats;
  ASSERT_NO_THROW(stats = std::make_unique<CDfrgStatistics>(HKEY_CURRENT_USER, ""));
  EXPECT_NO_THROW({
    stats->addProcessed(3);
    stats->setLastFile(L"x");
    stats->setStatus(1);
    stats->flush(true);
    stats->resetRun();
    stats->addMoved(1);
    stats->flush(false);
  });
  EXPECT_EQ(1u, stats->currentCounters().moved);
  EXPECT_EQ(3u, stats->completeCounters().processed);
}

}  // namespace
}  // namespace test
}  // namespace glidewell
